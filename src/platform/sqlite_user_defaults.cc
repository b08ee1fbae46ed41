#include "zbiap/platform/sqlite_user_defaults.h"

#include <sqlite3.h>

#include <cstdlib>
#include <string>
#include <system_error>
#include <utility>

namespace zbiap {

namespace {

constexpr char kSelect[] = "SELECT value FROM zbiap_defaults WHERE key = ?1";
constexpr char kUpsert[] = "INSERT OR REPLACE INTO zbiap_defaults(key, value) VALUES(?1, ?2)";
constexpr char kDelete[] = "DELETE FROM zbiap_defaults WHERE key = ?1";
constexpr char kSchema[] =
    "CREATE TABLE IF NOT EXISTS zbiap_defaults(key TEXT PRIMARY KEY NOT NULL, value BLOB)";

// Owns a prepared statement.
class Statement {
 public:
  Statement(sqlite3* db, const char* sql) {
    rc_ = sqlite3_prepare_v2(db, sql, -1, &stmt_, nullptr);
  }
  ~Statement() { sqlite3_finalize(stmt_); }
  Statement(const Statement&) = delete;
  Statement& operator=(const Statement&) = delete;

  bool ok() const { return rc_ == SQLITE_OK && stmt_ != nullptr; }
  int prepareResult() const { return rc_; }
  sqlite3_stmt* get() const { return stmt_; }

  void bindText(int index, std::string_view text) {
    sqlite3_bind_text64(stmt_, index, text.empty() ? "" : text.data(), text.size(), SQLITE_STATIC,
                        SQLITE_UTF8);
  }

 private:
  sqlite3_stmt* stmt_ = nullptr;
  int rc_ = SQLITE_OK;
};

std::string errorText(sqlite3* db, int rc) {
  std::string text = sqlite3_errstr(rc);
  if (db != nullptr) {
    const char* message = sqlite3_errmsg(db);
    if (message != nullptr && text != message) text += std::string(" (") + message + ")";
  }
  return text;
}

bool isMissingTable(sqlite3* db) {
  const char* message = sqlite3_errmsg(db);
  return message != nullptr && std::string_view(message).starts_with("no such table");
}

}  // namespace

struct SQLiteUserDefaults::Read {
  Kind kind;
  std::string bytes;
};

SQLiteUserDefaults::SQLiteUserDefaults(std::filesystem::path path, LogSink log)
    : SQLiteUserDefaults(std::move(path), std::move(log), Options()) {}

SQLiteUserDefaults::SQLiteUserDefaults(std::filesystem::path path, LogSink log, Options options)
    : path_(std::move(path)), log_(std::move(log)), options_(options) {}

SQLiteUserDefaults::~SQLiteUserDefaults() {
  std::lock_guard<std::mutex> lock(mu_);
  closeLocked();
}

void SQLiteUserDefaults::closeLocked() {
  if (db_ != nullptr) sqlite3_close_v2(db_);
  db_ = nullptr;
  schemaReady_ = false;
  durable_ = false;
}

bool SQLiteUserDefaults::ensureOpen(std::string* error) {
  if (db_ != nullptr) return prepareForStatement();
  std::error_code ec;
  if (path_.has_parent_path()) std::filesystem::create_directories(path_.parent_path(), ec);
  sqlite3* db = nullptr;
  int rc =
      sqlite3_open_v2(path_.c_str(), &db,
                      SQLITE_OPEN_READWRITE | SQLITE_OPEN_CREATE | SQLITE_OPEN_NOMUTEX, nullptr);
  if (rc != SQLITE_OK) {
    *error = errorText(db, rc);
    sqlite3_close_v2(db);
    return false;
  }
  db_ = db;
  return prepareForStatement();
}

bool SQLiteUserDefaults::prepareForStatement() {
  // The pragma reads the file, so it runs without waiting for a lock: on a locked file it fails
  // at once and is tried again before the next statement, rather than costing a wait of its own.
  // EXTRA syncs the directory after the rollback journal is deleted, so a power cut right after
  // an acknowledged write cannot roll it back (FULL syncs the file and journal only).
  if (!durable_) {
    sqlite3_busy_timeout(db_, 0);
    durable_ = sqlite3_exec(db_, "PRAGMA synchronous=EXTRA", nullptr, nullptr, nullptr) == SQLITE_OK;
  }
  // After a call gave up on a lock, the calls of the next busy time do not wait again: a burst
  // of writes (the manager saves two keys in a row) costs one wait in all, not one each.
  const bool quiet = std::chrono::steady_clock::now() < quietUntil_;
  sqlite3_busy_timeout(db_, quiet ? 0 : static_cast<int>(options_.busyTimeout.count()));
  return true;
}

SQLiteUserDefaults::Outcome SQLiteUserDefaults::failedLocked(int rc, std::string* error) {
  *error = errorText(db_, rc);
  const int primary = rc & 0xff;
  if (primary == SQLITE_BUSY || primary == SQLITE_LOCKED) {
    // Another connection holds the file: keep this one, and wait no more for a while.
    quietUntil_ = std::chrono::steady_clock::now() + options_.busyTimeout;
    return Outcome::kFailed;
  }
  if (primary == SQLITE_CORRUPT || primary == SQLITE_NOTADB) {
    closeLocked();
    return moveAsideLocked(error) ? Outcome::kRetry : Outcome::kFailed;
  }
  closeLocked();  // Start afresh next time: the file may have been repaired or replaced.
  return Outcome::kFailed;
}

bool SQLiteUserDefaults::moveAsideLocked(std::string* error) {
  // The damaged file is kept beside a new one, under the first free ".corrupt" name, with its
  // journal, so that nothing in it is lost and the defaults work again.
  std::filesystem::path aside = path_.string() + ".corrupt";
  std::error_code ec;
  for (int n = 1; std::filesystem::exists(aside, ec) && n < 100; ++n) {
    aside = path_.string() + ".corrupt." + std::to_string(n);
  }
  std::filesystem::rename(path_, aside, ec);
  if (ec) {
    *error += "; moving it aside failed: " + ec.message();
    return false;
  }
  std::error_code journal;
  std::filesystem::rename(path_.string() + "-journal", aside.string() + "-journal", journal);
  if (log_) {
    log_("ZBIAP user defaults: " + path_.string() + " is damaged (" + *error + "); moved to " +
         aside.string() + ", a new file takes its place");
  }
  return true;
}

void SQLiteUserDefaults::logFailure(std::string_view what, std::string_view key,
                                    std::string_view reason) {
  if (!log_) return;
  std::string line = "ZBIAP user defaults: cannot ";
  line += what;
  if (!key.empty()) {
    line += " \"";
    line += key;
    line += "\"";
  }
  line += " in ";
  line += path_.string();
  line += ": ";
  line += reason;
  log_(line);
}

std::optional<SQLiteUserDefaults::Read> SQLiteUserDefaults::read(std::string_view key) {
  std::lock_guard<std::mutex> lock(mu_);
  std::string error;
  for (int attempt = 0; attempt < 2 && ensureOpen(&error); ++attempt) {
    Statement stmt(db_, kSelect);
    int rc = stmt.prepareResult();
    if (!stmt.ok()) {
      if (isMissingTable(db_)) return std::nullopt;  // A new, empty store.
    } else {
      stmt.bindText(1, key);
      rc = sqlite3_step(stmt.get());
      if (rc == SQLITE_ROW || rc == SQLITE_DONE) {
        readFailureLogged_ = false;
        if (rc == SQLITE_DONE) return std::nullopt;
        int type = sqlite3_column_type(stmt.get(), 0);
        if (type != SQLITE_TEXT && type != SQLITE_BLOB) return std::nullopt;
        const void* bytes = type == SQLITE_TEXT
                                ? static_cast<const void*>(sqlite3_column_text(stmt.get(), 0))
                                : sqlite3_column_blob(stmt.get(), 0);
        int size = sqlite3_column_bytes(stmt.get(), 0);
        Read result{type == SQLITE_TEXT ? Kind::kString : Kind::kData, {}};
        if (bytes != nullptr && size > 0) {
          result.bytes.assign(static_cast<const char*>(bytes), static_cast<size_t>(size));
        }
        return result;
      }
    }
    if (failedLocked(rc, &error) != Outcome::kRetry) break;
  }
  if (!readFailureLogged_) {
    readFailureLogged_ = true;
    logFailure("read", "", error);
  }
  return std::nullopt;
}

bool SQLiteUserDefaults::write(std::string_view key, const void* bytes, size_t size, Kind kind,
                               bool remove) {
  std::lock_guard<std::mutex> lock(mu_);
  const char* what = remove ? "remove" : "write";
  std::string error;
  for (int attempt = 0; attempt < 2 && ensureOpen(&error); ++attempt) {
    int rc = SQLITE_OK;
    if (!schemaReady_) {
      rc = sqlite3_exec(db_, kSchema, nullptr, nullptr, nullptr);
      schemaReady_ = rc == SQLITE_OK;
    }
    if (schemaReady_) {
      Statement stmt(db_, remove ? kDelete : kUpsert);
      rc = stmt.prepareResult();
      if (stmt.ok()) {
        stmt.bindText(1, key);
        if (!remove) {
          if (kind == Kind::kString) {
            stmt.bindText(2, std::string_view(static_cast<const char*>(bytes), size));
          } else if (size == 0) {
            sqlite3_bind_zeroblob(stmt.get(), 2, 0);  // A null pointer would bind SQL NULL.
          } else {
            sqlite3_bind_blob64(stmt.get(), 2, bytes, size, SQLITE_STATIC);
          }
        }
        rc = sqlite3_step(stmt.get());
        if (rc == SQLITE_DONE) return true;
      }
    }
    if (failedLocked(rc, &error) != Outcome::kRetry) break;
  }
  logFailure(what, key, error);
  return false;
}

std::optional<std::string> SQLiteUserDefaults::stringForKey(std::string_view key) {
  std::optional<Read> found = read(key);
  if (!found || found->kind != Kind::kString) return std::nullopt;
  return std::move(found->bytes);
}

std::optional<Data> SQLiteUserDefaults::dataForKey(std::string_view key) {
  std::optional<Read> found = read(key);
  if (!found || found->kind != Kind::kData) return std::nullopt;
  return Data(found->bytes.begin(), found->bytes.end());
}

bool SQLiteUserDefaults::setString(std::string_view key, std::string_view value) {
  return write(key, value.data(), value.size(), Kind::kString, false);
}

bool SQLiteUserDefaults::setData(std::string_view key, const Data& value) {
  return write(key, value.data(), value.size(), Kind::kData, false);
}

bool SQLiteUserDefaults::removeObjectForKey(std::string_view key) {
  return write(key, nullptr, 0, Kind::kString, true);
}

std::filesystem::path defaultUserDefaultsPath(std::string_view app) {
  std::string name;
  for (char c : app) {
    bool safe = (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') ||
                c == '.' || c == '-' || c == '_';
    name += safe ? c : '_';
  }
  if (name.empty() || name == "." || name == "..") name = "default";
  std::filesystem::path base;
  const char* xdg = std::getenv("XDG_DATA_HOME");
  const char* home = std::getenv("HOME");
  if (xdg != nullptr && xdg[0] == '/') {
    base = xdg;
  } else if (home != nullptr && home[0] != '\0') {
    base = std::filesystem::path(home) / ".local" / "share";
  } else {
    base = std::filesystem::temp_directory_path();
  }
  return base / "zbiap" / name / "defaults.sqlite3";
}

}  // namespace zbiap

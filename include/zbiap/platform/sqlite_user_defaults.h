// zbiap::SQLiteUserDefaults: the standard user defaults kept in one SQLite file.
//
// Strings and data live in one table; every write is its own committed transaction with a
// rollback journal synced with its directory, so a crash or a power cut leaves each key at its
// old or its new value. A locked or read-only file never crashes or blocks for long: reads
// answer "absent", writes write one line to the log sink and return false, and the file is left
// as it is; the calls that follow a lock's time-out within one busy time do not wait again. A
// damaged file is moved aside (renamed "<file>.corrupt", its data kept) with a log line, and a
// new file takes its place. Thread-safe.
#ifndef ZBIAP_PLATFORM_SQLITE_USER_DEFAULTS_H_
#define ZBIAP_PLATFORM_SQLITE_USER_DEFAULTS_H_

#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>

#include "zbiap/export.h"
#include "zbiap/platform/platform.h"

struct sqlite3;

namespace zbiap {

class ZBIAP_EXPORT SQLiteUserDefaults final : public UserDefaults {
 public:
  using LogSink = std::function<void(std::string_view line)>;
  struct Options {
    // How long a statement waits for another connection's lock before it gives up.
    std::chrono::milliseconds busyTimeout{1500};
  };

  // Opens (creating the file and its directory when needed) lazily: a file that cannot be
  // opened now is tried again at the next call. `log` receives failures; it may be empty.
  SQLiteUserDefaults(std::filesystem::path path, LogSink log);
  SQLiteUserDefaults(std::filesystem::path path, LogSink log, Options options);
  ~SQLiteUserDefaults() override;
  SQLiteUserDefaults(const SQLiteUserDefaults&) = delete;
  SQLiteUserDefaults& operator=(const SQLiteUserDefaults&) = delete;

  const std::filesystem::path& path() const { return path_; }

  std::optional<std::string> stringForKey(std::string_view key) override;
  std::optional<Data> dataForKey(std::string_view key) override;
  bool setString(std::string_view key, std::string_view value) override;
  bool setData(std::string_view key, const Data& value) override;
  bool removeObjectForKey(std::string_view key) override;

 private:
  enum class Kind { kString, kData };
  struct Read;
  // Both with mu_ held.
  enum class Outcome { kFailed, kRetry };
  bool ensureOpen(std::string* error);
  bool prepareForStatement();
  // Sets `error` for a failed statement's `rc` and decides: keep the connection (a lock), move a
  // damaged file aside and try once more, or close and start afresh at the next call.
  Outcome failedLocked(int rc, std::string* error);
  bool moveAsideLocked(std::string* error);
  void closeLocked();
  std::optional<Read> read(std::string_view key);
  bool write(std::string_view key, const void* bytes, size_t size, Kind kind, bool remove);
  void logFailure(std::string_view what, std::string_view key, std::string_view reason);

  const std::filesystem::path path_;
  const LogSink log_;
  const Options options_;
  std::mutex mu_;
  sqlite3* db_ = nullptr;
  bool schemaReady_ = false;
  bool durable_ = false;  // the durability pragma has run on this connection
  bool readFailureLogged_ = false;
  // Until then, statements do not wait for another connection's lock.
  std::chrono::steady_clock::time_point quietUntil_;
};

// Where the defaults of the application `app` live when the host names no file:
// $XDG_DATA_HOME/zbiap/<app>/defaults.sqlite3, else ~/.local/share/zbiap/<app>/defaults.sqlite3.
// `app` is made safe as a single path component; empty gives "default".
ZBIAP_EXPORT std::filesystem::path defaultUserDefaultsPath(std::string_view app);

}  // namespace zbiap

#endif  // ZBIAP_PLATFORM_SQLITE_USER_DEFAULTS_H_

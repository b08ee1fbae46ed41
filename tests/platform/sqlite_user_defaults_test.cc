#include "zbiap/platform/sqlite_user_defaults.h"

#include <fcntl.h>
#include <gtest/gtest.h>
#include <signal.h>
#include <sqlite3.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cerrno>
#include <fstream>
#include <iterator>
#include <mutex>
#include <string>
#include <thread>
#include <vector>

namespace zbiap {
namespace {

using namespace std::string_literals;

class SQLiteUserDefaultsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = (std::filesystem::temp_directory_path() / "zbiap-defaults-XXXXXX");
    ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
    dir_ = pattern;
    path_ = dir_ / "sub" / "defaults.sqlite3";
  }
  void TearDown() override {
    std::error_code ec;
    std::filesystem::remove_all(dir_, ec);
  }

  // A short busy timeout keeps the lock tests quick; writers that contend need a long one, as
  // every commit waits for the disk.
  std::unique_ptr<SQLiteUserDefaults> open(
      std::chrono::milliseconds busyTimeout = std::chrono::milliseconds(100)) {
    SQLiteUserDefaults::Options options;
    options.busyTimeout = busyTimeout;
    return std::make_unique<SQLiteUserDefaults>(
        path_,
        [this](std::string_view line) {
          std::lock_guard<std::mutex> lock(logMu_);
          log_.emplace_back(line);
        },
        options);
  }

  std::vector<std::string> log() {
    std::lock_guard<std::mutex> lock(logMu_);
    return log_;
  }

  std::string fileBytes() {
    std::ifstream in(path_, std::ios::binary);
    return std::string((std::istreambuf_iterator<char>(in)), std::istreambuf_iterator<char>());
  }

  std::filesystem::path dir_;
  std::filesystem::path path_;
  std::mutex logMu_;
  std::vector<std::string> log_;
};

TEST_F(SQLiteUserDefaultsTest, StoresStringsAndDataExactly) {
  auto defaults = open();
  EXPECT_EQ(defaults->stringForKey("missing"), std::nullopt);
  EXPECT_EQ(defaults->dataForKey("missing"), std::nullopt);

  const std::string withNul = "a\0b\xc3\xa9"s;
  const Data binary = {0, 1, 2, 0, 255};
  EXPECT_TRUE(defaults->setString("s", "hello"));
  EXPECT_TRUE(defaults->setString("empty", ""));
  EXPECT_TRUE(defaults->setString("nul", withNul));
  EXPECT_TRUE(defaults->setString("key\0x"s, "nul key"));
  EXPECT_TRUE(defaults->setData("d", binary));
  EXPECT_TRUE(defaults->setData("nodata", Data()));

  EXPECT_EQ(defaults->stringForKey("s"), "hello");
  EXPECT_EQ(defaults->stringForKey("empty"), "");
  EXPECT_EQ(defaults->stringForKey("nul"), withNul);
  EXPECT_EQ(defaults->stringForKey("key\0x"s), "nul key");
  EXPECT_EQ(defaults->stringForKey("key"), std::nullopt);
  EXPECT_EQ(defaults->dataForKey("d"), binary);
  EXPECT_EQ(defaults->dataForKey("nodata"), Data());

  // A string is not data and data is not a string, as in Foundation's defaults.
  EXPECT_EQ(defaults->dataForKey("s"), std::nullopt);
  EXPECT_EQ(defaults->stringForKey("d"), std::nullopt);

  // Replacing changes the kind with the value.
  EXPECT_TRUE(defaults->setData("s", binary));
  EXPECT_EQ(defaults->stringForKey("s"), std::nullopt);
  EXPECT_EQ(defaults->dataForKey("s"), binary);

  EXPECT_TRUE(defaults->removeObjectForKey("s"));
  EXPECT_TRUE(defaults->removeObjectForKey("never there"));
  EXPECT_EQ(defaults->dataForKey("s"), std::nullopt);
  EXPECT_TRUE(log().empty());
}

TEST_F(SQLiteUserDefaultsTest, ValuesSurviveReopeningTheFile) {
  const Data big(1 << 20, 0x5a);
  {
    auto defaults = open();
    EXPECT_TRUE(defaults->setString("ZBIAP_LOGGING", "YES"));
    EXPECT_TRUE(defaults->setData("ZBIAPProductInfos", big));
    EXPECT_TRUE(defaults->setString("gone", "x"));
    EXPECT_TRUE(defaults->removeObjectForKey("gone"));
  }
  auto reopened = open();
  EXPECT_EQ(reopened->stringForKey("ZBIAP_LOGGING"), "YES");
  EXPECT_EQ(reopened->dataForKey("ZBIAPProductInfos"), big);
  EXPECT_EQ(reopened->stringForKey("gone"), std::nullopt);
}

TEST_F(SQLiteUserDefaultsTest, ThreadsAndTwoConnectionsWriteWithoutLosingAnything) {
  auto first = open(std::chrono::seconds(20));
  auto second = open(std::chrono::seconds(
      20));  // Another handle on the same file, as a second process would have.
  std::vector<std::thread> writers;
  std::atomic<int> failures{0};
  for (int t = 0; t < 4; ++t) {
    SQLiteUserDefaults* defaults = t % 2 ? second.get() : first.get();
    writers.emplace_back([defaults, t, &failures] {
      for (int i = 0; i < 25; ++i) {
        if (!defaults->setString("k" + std::to_string(t) + "-" + std::to_string(i),
                                 std::to_string(i))) {
          ++failures;
        }
      }
    });
  }
  for (std::thread& writer : writers) writer.join();
  EXPECT_EQ(failures.load(), 0) << (log().empty() ? "" : log().front());
  for (int t = 0; t < 4; ++t) {
    for (int i = 0; i < 25; ++i) {
      EXPECT_EQ(first->stringForKey("k" + std::to_string(t) + "-" + std::to_string(i)),
                std::to_string(i));
    }
  }
}

// Reads the rounds a child reported; returns the last complete one.
int drainRounds(int fd, int last) {
  int round;
  while (::read(fd, &round, sizeof round) == static_cast<ssize_t>(sizeof round)) last = round;
  return last;
}

TEST_F(SQLiteUserDefaultsTest, AProcessKilledMidWriteLeavesEveryKeyAtItsOldOrNewValue) {
  constexpr int kKeys = 8;
  auto key = [](int i) { return "key" + std::to_string(i); };
  {
    auto defaults = open();
    for (int i = 0; i < kKeys; ++i) ASSERT_TRUE(defaults->setString(key(i), "0"));
  }
  for (int attempt = 0; attempt < 3; ++attempt) {
    int fds[2];
    ASSERT_EQ(::pipe(fds), 0);
    int start = 0;
    {
      auto defaults = open();
      start = std::stoi(*defaults->stringForKey(key(kKeys - 1)));
    }
    pid_t child = ::fork();
    ASSERT_GE(child, 0);
    if (child == 0) {
      ::close(fds[0]);
      SQLiteUserDefaults defaults(path_, nullptr);
      for (int round = start + 1;; ++round) {
        for (int i = 0; i < kKeys; ++i) {
          if (!defaults.setString(key(i), std::to_string(round))) ::_exit(3);
        }
        if (::write(fds[1], &round, sizeof round) != sizeof round) ::_exit(4);
      }
    }
    ::close(fds[1]);
    // Let a few rounds commit, then kill it wherever it is.
    int acknowledged = start;
    int round;
    while (acknowledged < start + 3 + attempt * 7 &&
           ::read(fds[0], &round, sizeof round) == static_cast<ssize_t>(sizeof round)) {
      acknowledged = round;
    }
    ASSERT_EQ(::kill(child, SIGKILL), 0);
    int status = 0;
    ASSERT_EQ(::waitpid(child, &status, 0), child);
    ASSERT_TRUE(WIFSIGNALED(status)) << "the writer stopped by itself: " << status;
    acknowledged = drainRounds(fds[0], acknowledged);
    ::close(fds[0]);

    auto defaults = open();
    std::vector<int> values;
    for (int i = 0; i < kKeys; ++i) {
      std::optional<std::string> value = defaults->stringForKey(key(i));
      ASSERT_TRUE(value.has_value()) << key(i);
      values.push_back(std::stoi(*value));
    }
    // Every reported round is complete; at most the round after it is partly written, in key
    // order: a prefix of the keys at acknowledged+1, the rest at acknowledged.
    for (int i = 0; i < kKeys; ++i) {
      EXPECT_GE(values[i], acknowledged) << key(i);
      EXPECT_LE(values[i], acknowledged + 1) << key(i);
      if (i > 0) {
        EXPECT_LE(values[i], values[i - 1]) << key(i);
      }
    }
    sqlite3* db = nullptr;
    ASSERT_EQ(sqlite3_open(path_.c_str(), &db), SQLITE_OK);
    sqlite3_stmt* stmt = nullptr;
    ASSERT_EQ(sqlite3_prepare_v2(db, "PRAGMA integrity_check", -1, &stmt, nullptr), SQLITE_OK);
    ASSERT_EQ(sqlite3_step(stmt), SQLITE_ROW);
    EXPECT_STREQ(reinterpret_cast<const char*>(sqlite3_column_text(stmt, 0)), "ok");
    sqlite3_finalize(stmt);
    sqlite3_close(db);
    // The store keeps working after the crash.
    EXPECT_TRUE(defaults->setString(key(0), std::to_string(values[0])));
  }
  EXPECT_TRUE(log().empty());
}

TEST_F(SQLiteUserDefaultsTest, ALockedFileReadsAbsentAndRefusesWritesUntilReleased) {
  {
    auto defaults = open();
    ASSERT_TRUE(defaults->setString("kept", "old"));
  }
  sqlite3* holder = nullptr;
  ASSERT_EQ(sqlite3_open(path_.c_str(), &holder), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(holder, "BEGIN EXCLUSIVE", nullptr, nullptr, nullptr), SQLITE_OK);

  auto defaults = open();
  EXPECT_EQ(defaults->stringForKey("kept"), std::nullopt);
  EXPECT_FALSE(defaults->setString("kept", "new"));
  EXPECT_FALSE(defaults->removeObjectForKey("kept"));
  std::vector<std::string> lines = log();
  ASSERT_GE(lines.size(), 2u);
  bool namesTheKey = false;
  for (const std::string& line : lines) {
    if (line.find("\"kept\"") != std::string::npos) namesTheKey = true;
  }
  EXPECT_TRUE(namesTheKey);

  ASSERT_EQ(sqlite3_exec(holder, "COMMIT", nullptr, nullptr, nullptr), SQLITE_OK);
  sqlite3_close(holder);
  EXPECT_EQ(defaults->stringForKey("kept"), "old");
  EXPECT_TRUE(defaults->setString("kept", "new"));
  EXPECT_EQ(defaults->stringForKey("kept"), "new");
}

TEST_F(SQLiteUserDefaultsTest, ADamagedFileIsMovedAsideAndANewOneStarted) {
  std::filesystem::create_directories(path_.parent_path());
  std::string garbage;
  for (int i = 0; i < 4096; ++i) garbage += static_cast<char>((i * 7919) % 251);
  for (const char* aside : {".corrupt", ".corrupt.1"}) {
    {
      std::ofstream out(path_, std::ios::binary);
      out << garbage;
    }
    auto defaults = open();
    EXPECT_EQ(defaults->stringForKey("k"), std::nullopt);
    EXPECT_TRUE(defaults->setString("k", "v"));
    EXPECT_EQ(defaults->stringForKey("k"), "v");
    // The damaged data is kept, under the first free name, and said once.
    std::ifstream in(path_.string() + aside, std::ios::binary);
    EXPECT_EQ(std::string(std::istreambuf_iterator<char>(in), {}), garbage) << aside;
    ASSERT_EQ(log().size(), 1u);
    EXPECT_NE(log()[0].find("is damaged"), std::string::npos);
    log_.clear();
  }
}

TEST_F(SQLiteUserDefaultsTest, APathThatCannotBeAFileFailsCleanly) {
  std::filesystem::create_directories(path_);  // A directory where the file should be.
  auto defaults = open();
  EXPECT_EQ(defaults->stringForKey("k"), std::nullopt);
  EXPECT_FALSE(defaults->setString("k", "v"));
  ASSERT_FALSE(log().empty());
  EXPECT_NE(log().back().find(path_.string()), std::string::npos);
}

// Runs in a child that has dropped root (root ignores file modes). Exit status: a bit per
// failed check.
int readOnlyChecks(const std::filesystem::path& path) {
  int failed = 0;
  std::vector<std::string> lines;
  SQLiteUserDefaults defaults(path, [&](std::string_view line) { lines.emplace_back(line); });
  if (defaults.stringForKey("kept") != "old") failed |= 1;
  if (defaults.setString("kept", "new")) failed |= 2;
  if (defaults.removeObjectForKey("kept")) failed |= 4;
  if (lines.empty()) failed |= 8;
  if (defaults.stringForKey("kept") != "old") failed |= 16;
  return failed;
}

TEST_F(SQLiteUserDefaultsTest, AReadOnlyFileKeepsItsValuesAndRefusesWrites) {
  {
    auto defaults = open();
    ASSERT_TRUE(defaults->setString("kept", "old"));
  }
  std::string before = fileBytes();
  ASSERT_EQ(::chmod(path_.c_str(), 0444), 0);
  ASSERT_EQ(::chmod(path_.parent_path().c_str(), 0555), 0);
  ASSERT_EQ(::chmod(dir_.c_str(), 0755), 0);
  pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    if (::geteuid() == 0 && (::setgid(65534) != 0 || ::setuid(65534) != 0)) ::_exit(100);
    ::_exit(readOnlyChecks(path_));
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  ::chmod(path_.parent_path().c_str(), 0755);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
  EXPECT_EQ(fileBytes(), before);
}

TEST(DefaultUserDefaultsPathTest, IsPerApplicationUnderTheDataHome) {
  const char* savedXdg = std::getenv("XDG_DATA_HOME");
  std::optional<std::string> saved = savedXdg ? std::optional<std::string>(savedXdg) : std::nullopt;
  ::setenv("XDG_DATA_HOME", "/data", 1);
  EXPECT_EQ(defaultUserDefaultsPath("com.example.app"),
            std::filesystem::path("/data/zbiap/com.example.app/defaults.sqlite3"));
  EXPECT_EQ(defaultUserDefaultsPath(""),
            std::filesystem::path("/data/zbiap/default/defaults.sqlite3"));
  EXPECT_EQ(defaultUserDefaultsPath(".."),
            std::filesystem::path("/data/zbiap/default/defaults.sqlite3"));
  EXPECT_EQ(defaultUserDefaultsPath("../etc/x"),
            std::filesystem::path("/data/zbiap/.._etc_x/defaults.sqlite3"));
  ::setenv("XDG_DATA_HOME", "relative", 1);  // Not absolute: ignored, as the XDG rules say.
  EXPECT_EQ(defaultUserDefaultsPath("a").parent_path().parent_path().parent_path().filename(),
            "share");
  if (saved) {
    ::setenv("XDG_DATA_HOME", saved->c_str(), 1);
  } else {
    ::unsetenv("XDG_DATA_HOME");
  }
}

}  // namespace
}  // namespace zbiap

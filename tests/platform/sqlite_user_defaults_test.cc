#include "zbiap/platform/sqlite_user_defaults.h"

#include <gtest/gtest.h>
#include <sqlite3.h>
#include <stdlib.h>
#include <sys/stat.h>
#include <sys/wait.h>
#include <unistd.h>

#include <fstream>
#include <iterator>
#include <mutex>
#include <string>
#include <thread>
#include <variant>
#include <vector>

namespace zbiap {
namespace {

using namespace std::string_literals;
using namespace std::chrono_literals;

std::string fileBytes(const std::filesystem::path& path) {
  std::ifstream in(path, std::ios::binary);
  return std::string(std::istreambuf_iterator<char>(in), {});
}

class SQLiteUserDefaultsTest : public ::testing::Test {
 protected:
  void SetUp() override {
    std::string pattern = std::filesystem::temp_directory_path() / "zbiap-defaults-XXXXXX";
    ASSERT_NE(::mkdtemp(pattern.data()), nullptr);
    dir_ = pattern;
    path_ = dir_ / "sub" / "defaults.sqlite3";
  }
  void TearDown() override { std::filesystem::remove_all(dir_); }

  // A short busy timeout keeps the lock tests quick; writers that contend need a long one, as
  // every commit waits for the disk.
  std::unique_ptr<SQLiteUserDefaults> open(std::chrono::milliseconds busy = 100ms) {
    return std::make_unique<SQLiteUserDefaults>(
        path_,
        [this](std::string_view line) {
          std::lock_guard<std::mutex> lock(logMu_);
          log_.emplace_back(line);
        },
        SQLiteUserDefaults::Options{busy});
  }
  std::vector<std::string> takeLog() {
    std::lock_guard<std::mutex> lock(logMu_);
    return std::exchange(log_, {});
  }

  std::filesystem::path dir_, path_;
  std::mutex logMu_;
  std::vector<std::string> log_;
};

// Strings and data byte for byte, across a reopening; a string is not data and data is not a
// string, as in Foundation's defaults, and replacing a value changes its kind.
TEST_F(SQLiteUserDefaultsTest, KeepsStringsAndDataExactlyAcrossReopening) {
  // clang-format off
  const std::pair<std::string, std::variant<std::string, Data>> values[] = {
      {"s", "hello"s}, {"empty", ""s}, {"nul", "a\0b\xc3\xa9"s}, {"key\0x"s, "nul key"s},
      {"d", Data{0, 1, 2, 0, 255}}, {"nodata", Data()}, {"big", Data(1 << 20, 0x5a)},
      {"replaced", "text"s}};
  // clang-format on
  {
    auto defaults = open();
    EXPECT_EQ(defaults->stringForKey("s"), std::nullopt);
    EXPECT_EQ(defaults->dataForKey("d"), std::nullopt);
    EXPECT_TRUE(defaults->setData("replaced", Data{1}));
    for (const auto& [key, value] : values) {
      const std::string* text = std::get_if<std::string>(&value);
      EXPECT_TRUE(text ? defaults->setString(key, *text)
                       : defaults->setData(key, std::get<Data>(value)));
    }
    EXPECT_TRUE(defaults->setString("gone", "x"));
    EXPECT_TRUE(defaults->removeObjectForKey("gone"));
    EXPECT_TRUE(defaults->removeObjectForKey("never there"));
  }
  auto defaults = open();
  for (const auto& [key, value] : values) {
    const std::string* text = std::get_if<std::string>(&value);
    const Data* data = std::get_if<Data>(&value);
    EXPECT_EQ(defaults->stringForKey(key), text ? std::optional(*text) : std::nullopt) << key;
    EXPECT_EQ(defaults->dataForKey(key), data ? std::optional(*data) : std::nullopt) << key;
  }
  EXPECT_EQ(defaults->stringForKey("key"), std::nullopt);
  EXPECT_EQ(defaults->stringForKey("gone"), std::nullopt);
  EXPECT_TRUE(takeLog().empty());
}

// Two handles on one file, as two processes would have: each write waits for the other's lock.
TEST_F(SQLiteUserDefaultsTest, TwoConnectionsWriteWithoutLosingAnything) {
  auto first = open(20s), second = open(20s);
  std::vector<std::thread> writers;
  for (SQLiteUserDefaults* defaults : {first.get(), second.get()}) {
    writers.emplace_back([defaults, &first] {
      for (int i = 0; i < 25; ++i) {
        EXPECT_TRUE(defaults->setString((defaults == first.get() ? "a" : "b") + std::to_string(i),
                                        std::to_string(i)));
      }
    });
  }
  for (std::thread& writer : writers) writer.join();
  for (int i = 0; i < 25; ++i) {
    EXPECT_EQ(first->stringForKey("a" + std::to_string(i)), std::to_string(i));
    EXPECT_EQ(first->stringForKey("b" + std::to_string(i)), std::to_string(i));
  }
}

TEST_F(SQLiteUserDefaultsTest, ALockedFileReadsAbsentAndRefusesWritesUntilReleased) {
  ASSERT_TRUE(open()->setString("kept", "old"));
  sqlite3* holder = nullptr;
  ASSERT_EQ(sqlite3_open(path_.c_str(), &holder), SQLITE_OK);
  ASSERT_EQ(sqlite3_exec(holder, "BEGIN EXCLUSIVE", nullptr, nullptr, nullptr), SQLITE_OK);

  auto defaults = open();
  EXPECT_EQ(defaults->stringForKey("kept"), std::nullopt);
  EXPECT_FALSE(defaults->setString("kept", "new"));
  EXPECT_FALSE(defaults->removeObjectForKey("kept"));
  std::vector<std::string> lines = takeLog();
  ASSERT_GE(lines.size(), 2u);
  EXPECT_NE(lines.back().find("\"kept\""), std::string::npos);

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
    std::ofstream(path_, std::ios::binary) << garbage;
    auto defaults = open();
    EXPECT_EQ(defaults->stringForKey("k"), std::nullopt);
    EXPECT_TRUE(defaults->setString("k", "v"));
    EXPECT_EQ(defaults->stringForKey("k"), "v");
    // The damaged data is kept, under the first free name, and said once.
    EXPECT_EQ(fileBytes(path_.string() + aside), garbage) << aside;
    std::vector<std::string> lines = takeLog();
    ASSERT_EQ(lines.size(), 1u);
    EXPECT_NE(lines[0].find("is damaged"), std::string::npos);
  }
  // A directory where the file should be fails cleanly.
  std::filesystem::remove(path_);
  std::filesystem::create_directories(path_);
  auto defaults = open();
  EXPECT_EQ(defaults->stringForKey("k"), std::nullopt);
  EXPECT_FALSE(defaults->setString("k", "v"));
  EXPECT_NE(takeLog().back().find(path_.string()), std::string::npos);
}

TEST_F(SQLiteUserDefaultsTest, AReadOnlyFileKeepsItsValuesAndRefusesWrites) {
  ASSERT_TRUE(open()->setString("kept", "old"));
  std::string before = fileBytes(path_);
  ASSERT_EQ(::chmod(path_.c_str(), 0444), 0);
  ASSERT_EQ(::chmod(path_.parent_path().c_str(), 0555), 0);
  ASSERT_EQ(::chmod(dir_.c_str(), 0755), 0);
  // In a child that has dropped root (root ignores file modes); a bit of the status per failure.
  pid_t child = ::fork();
  ASSERT_GE(child, 0);
  if (child == 0) {
    if (::geteuid() == 0 && (::setgid(65534) != 0 || ::setuid(65534) != 0)) ::_exit(100);
    int lines = 0;
    SQLiteUserDefaults defaults(path_, [&](std::string_view) { ++lines; });
    ::_exit((defaults.stringForKey("kept") != "old") | defaults.setString("kept", "new") << 1 |
            defaults.removeObjectForKey("kept") << 2 | (lines == 0) << 3 |
            (defaults.stringForKey("kept") != "old") << 4);
  }
  int status = 0;
  ASSERT_EQ(::waitpid(child, &status, 0), child);
  ::chmod(path_.parent_path().c_str(), 0755);
  ASSERT_TRUE(WIFEXITED(status));
  EXPECT_EQ(WEXITSTATUS(status), 0);
  EXPECT_EQ(fileBytes(path_), before);
}

TEST(DefaultUserDefaultsPathTest, IsPerApplicationUnderTheDataHome) {
  const char* saved = std::getenv("XDG_DATA_HOME");
  const std::string savedValue = saved ? saved : "";
  ::setenv("XDG_DATA_HOME", "/data", 1);
  for (const auto& [app, dir] : {std::pair{"com.example.app", "com.example.app"},
                                 {"", "default"},
                                 {"..", "default"},
                                 {"../etc/x", ".._etc_x"}}) {
    EXPECT_EQ(defaultUserDefaultsPath(app),
              std::filesystem::path("/data/zbiap") / dir / "defaults.sqlite3");
  }
  ::setenv("XDG_DATA_HOME", "relative", 1);  // Not absolute: ignored, as the XDG rules say.
  EXPECT_EQ(defaultUserDefaultsPath("a").parent_path().parent_path().parent_path().filename(),
            "share");
  if (saved) {
    ::setenv("XDG_DATA_HOME", savedValue.c_str(), 1);
  } else {
    ::unsetenv("XDG_DATA_HOME");
  }
}

}  // namespace
}  // namespace zbiap

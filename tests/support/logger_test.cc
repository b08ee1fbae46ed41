#include "zbiap/support/logger.h"

#include <gtest/gtest.h>

#include <atomic>
#include <string>
#include <thread>
#include <vector>

#include "tests/support/capture_platform.h"
#include "zbiap/support/memory_logger.h"

namespace {

using zbiap::testing::CapturePlatformScope;

// The library's loggers: name and switch key.
struct Component {
  const char* name;
  const char* key;
};
constexpr Component kComponents[] = {
    {"ZBIAPManager", "ZBIAPMANAGER_LOGGING"},
    {"DPI Fetcher", "ZBIAPDYNAMICPRODUCTINFOFETCHER_LOGGING"},
    {"Apple Store", "ZBIAPSTORE_LOGGING"},
    {"ZBIAPStoreMorvane", "ZBIAPStoreMorvane_LOGGING"},
};

class LoggerTest : public ::testing::Test {
 protected:
  void SetUp() override { ZBIAPMemoryLogger::clearLog(); }
  void TearDown() override {
    gZBIAPCustomLoggerClass = nullptr;
    gZBIAPMemoryLoggerMaximumEntries = 0;
    ZBIAPMemoryLogger::clearLog();
  }
  std::vector<std::string> logLines() { return scope_.platform().logLines(); }

  CapturePlatformScope scope_;
};

TEST_F(LoggerTest, CheckKeyAcceptsOneAndYesInAnyCaseOnly) {
  auto& platform = scope_.platform();
  const std::pair<const char*, bool> cases[] = {
      {"1", true},     {"YES", true},   {"yes", true}, {"yEs", true}, {"2", false},
      {"true", false}, {"0", false},    {"", false},   {"NO", false}, {"YES ", false},
      {" 1", false},   {"YESS", false}, {"11", false},
  };
  for (const auto& [value, expected] : cases) {
    platform.setEnvironment("SOME_KEY", value);
    EXPECT_EQ(zbiap::checkKey("SOME_KEY"), expected) << "value '" << value << "'";
  }
  EXPECT_FALSE(zbiap::checkKey("UNSET_KEY"));
}

TEST_F(LoggerTest, CheckKeyFallsBackToUserDefaults) {
  auto& defaults = scope_.platform().standardUserDefaults();
  ASSERT_TRUE(defaults.setString("DEFAULTS_KEY", "1"));
  EXPECT_TRUE(zbiap::checkKey("DEFAULTS_KEY"));
  ASSERT_TRUE(defaults.setString("DEFAULTS_KEY", "Yes"));
  EXPECT_TRUE(zbiap::checkKey("DEFAULTS_KEY"));
  ASSERT_TRUE(defaults.setString("DEFAULTS_KEY", "true"));
  EXPECT_FALSE(zbiap::checkKey("DEFAULTS_KEY"));

  // An environment value that is off does not hide a defaults value that is on.
  ASSERT_TRUE(defaults.setString("DEFAULTS_KEY", "1"));
  scope_.platform().setEnvironment("DEFAULTS_KEY", "0");
  EXPECT_TRUE(zbiap::checkKey("DEFAULTS_KEY"));
}

TEST_F(LoggerTest, DisabledLoggerIsNullAndLogsNothing) {
  scope_.platform().setEnvironment("ZBIAPSTORE_LOGGING", "true");
  std::shared_ptr<ZBIAPLogger> logger =
      ZBIAPLogger::createWithName("Apple Store", "ZBIAPSTORE_LOGGING");
  EXPECT_EQ(logger, nullptr);

  int evaluations = 0;
  auto expensive = [&evaluations] {
    ++evaluations;
    return std::string("x");
  };
  ZBIAP_LOG(logger, "value {}", expensive());
  ZBIAP_LOG_MESSAGE(logger, expensive());
  ZBIAPLogger* raw = nullptr;
  ZBIAP_LOG(raw, "value {}", expensive());
  EXPECT_EQ(evaluations, 0);
  EXPECT_TRUE(logLines().empty());
}

TEST_F(LoggerTest, EnabledLoggerWritesPrefixedLines) {
  scope_.platform().setEnvironment("ZBIAPSTORE_LOGGING", "yes");
  auto logger = ZBIAPLogger::createWithName("Apple Store", "ZBIAPSTORE_LOGGING");
  ASSERT_NE(logger, nullptr);
  EXPECT_EQ(logger->prefix(), "[Apple Store] ");

  ZBIAP_LOG(logger, "Products {} received: {}", 3, "ok");
  logger->logMessage("100% done {} %@");
  logger->setPrefix(">> ");
  logger->log("after");
  EXPECT_EQ(logLines(), (std::vector<std::string>{
                            "[Apple Store] Logging enabled.",
                            "[Apple Store] Products 3 received: ok",
                            "[Apple Store] 100% done {} %@",
                            ">> after",
                        }));
}

TEST_F(LoggerTest, GlobalKeySwitchesEveryComponent) {
  scope_.platform().setEnvironment("ZBIAP_LOGGING", "1");
  for (const Component& component : kComponents) {
    EXPECT_NE(ZBIAPLogger::createWithName(component.name, component.key), nullptr)
        << component.name;
  }
  EXPECT_EQ(logLines().size(), std::size(kComponents));
}

TEST_F(LoggerTest, SwitchIsReadAtCreationOnly) {
  auto& platform = scope_.platform();
  EXPECT_EQ(ZBIAPLogger::createWithName("ZBIAPManager", "ZBIAPMANAGER_LOGGING"), nullptr);
  platform.setEnvironment("ZBIAPMANAGER_LOGGING", "1");
  auto logger = ZBIAPLogger::createWithName("ZBIAPManager", "ZBIAPMANAGER_LOGGING");
  ASSERT_NE(logger, nullptr);
  platform.setEnvironment("ZBIAPMANAGER_LOGGING", "0");
  logger->log("still on");
  EXPECT_EQ(logLines().back(), "[ZBIAPManager] still on");
}

// A host's own logger type, keeping every line of every component.
class CapturingLogger : public ZBIAPLogger {
 public:
  static std::shared_ptr<ZBIAPLogger> make(std::string_view name, std::string_view /*key*/) {
    return std::shared_ptr<ZBIAPLogger>(new CapturingLogger(name));
  }
  void logMessage(std::string_view message) override {
    std::lock_guard<std::mutex> lock(mu);
    lines.push_back(prefix() + std::string(message));
  }
  static inline std::mutex mu;
  static inline std::vector<std::string> lines;

 private:
  explicit CapturingLogger(std::string_view name) : ZBIAPLogger(name) {}
};

TEST_F(LoggerTest, CustomFactoryCapturesEveryComponentWhateverTheSwitches) {
  CapturingLogger::lines.clear();
  gZBIAPCustomLoggerClass = &CapturingLogger::make;
  for (const Component& component : kComponents) {
    auto logger = ZBIAPLogger::createWithName(component.name, component.key);
    ASSERT_NE(logger, nullptr);
    ZBIAP_LOG(logger, "hello from {}", component.key);
  }
  ASSERT_EQ(CapturingLogger::lines.size(), std::size(kComponents));
  EXPECT_EQ(CapturingLogger::lines[1],
            "[DPI Fetcher] hello from ZBIAPDYNAMICPRODUCTINFOFETCHER_LOGGING");
  EXPECT_TRUE(logLines().empty());
}

TEST_F(LoggerTest, MemoryLoggerKeepsLinesWithDateAndPrefix) {
  gZBIAPCustomLoggerClass = &ZBIAPMemoryLogger::initWithName;
  std::vector<std::shared_ptr<ZBIAPLogger>> loggers;
  for (const Component& component : kComponents) {
    loggers.push_back(ZBIAPLogger::createWithName(component.name, component.key));
    ASSERT_NE(loggers.back(), nullptr);
  }
  ZBIAP_LOG(loggers[0], "state {} -> {}", 0, 1);
  loggers[2]->logMessage("50% {}");
  // The virtual clock starts at 2025-01-01 00:00:00 UTC.
  EXPECT_EQ(ZBIAPMemoryLogger::combinedLogString(),
            "2025-01-01 00:00:00 +0000 [ZBIAPManager] state 0 -> 1\n"
            "2025-01-01 00:00:00 +0000 [Apple Store] 50% {}\n");
  EXPECT_TRUE(logLines().empty());  // no "Logging enabled.", nothing to the system log
}

TEST_F(LoggerTest, MemoryLoggerDropsLinesBeyondTheLimitUntilCleared) {
  gZBIAPMemoryLoggerMaximumEntries = 3;
  auto logger = ZBIAPMemoryLogger::initWithName("M", "ignored");
  for (int i = 1; i <= 5; ++i) logger->log("line {}", i);
  std::string text = ZBIAPMemoryLogger::combinedLogString();
  EXPECT_NE(text.find("[M] line 3\n"), std::string::npos);
  EXPECT_EQ(text.find("line 4"), std::string::npos);

  ZBIAPMemoryLogger::clearLog();
  EXPECT_EQ(ZBIAPMemoryLogger::combinedLogString(), "");
  for (int i = 6; i <= 9; ++i) logger->log("line {}", i);
  text = ZBIAPMemoryLogger::combinedLogString();
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 3);
  EXPECT_NE(text.find("line 8"), std::string::npos);
  EXPECT_EQ(text.find("line 9"), std::string::npos);
}

TEST_F(LoggerTest, MemoryLoggerLimitHoldsAcrossThreads) {
  constexpr int kThreads = 8;
  constexpr int kLinesPerThread = 500;
  gZBIAPMemoryLoggerMaximumEntries = 1000;
  std::vector<std::thread> threads;
  for (int t = 0; t < kThreads; ++t) {
    threads.emplace_back([t] {
      auto logger = ZBIAPMemoryLogger::initWithName(fmt::format("T{}", t), "");
      for (int i = 0; i < kLinesPerThread; ++i) logger->log("message {} of {}", i, t);
    });
  }
  for (auto& thread : threads) thread.join();
  const std::string text = ZBIAPMemoryLogger::combinedLogString();
  EXPECT_EQ(std::count(text.begin(), text.end(), '\n'), 1000);
  // Every line is whole: date, prefix, message.
  size_t start = 0;
  while (start < text.size()) {
    const size_t end = text.find('\n', start);
    const std::string line = text.substr(start, end - start);
    EXPECT_EQ(line.rfind("2025-01-01 00:00:00 +0000 [T", 0), 0u) << line;
    EXPECT_NE(line.find("] message "), std::string::npos) << line;
    start = end + 1;
  }
}

TEST_F(LoggerTest, MemoryLoggerClearRacesWithWritersSafely) {
  gZBIAPMemoryLoggerMaximumEntries = 50;
  std::atomic<bool> done{false};
  std::thread clearer([&done] {
    while (!done) {
      ZBIAPMemoryLogger::clearLog();
      (void)ZBIAPMemoryLogger::combinedLogString();
    }
  });
  std::vector<std::thread> writers;
  for (int t = 0; t < 4; ++t) {
    writers.emplace_back([] {
      auto logger = ZBIAPMemoryLogger::initWithName("W", "");
      for (int i = 0; i < 2000; ++i) logger->logMessage("x");
    });
  }
  for (auto& writer : writers) writer.join();
  done = true;
  clearer.join();
  const std::string text = ZBIAPMemoryLogger::combinedLogString();
  EXPECT_LE(std::count(text.begin(), text.end(), '\n'), 50);
  ZBIAPMemoryLogger::clearLog();
  ZBIAPMemoryLogger::initWithName("W", "")->logMessage("after");
  EXPECT_EQ(ZBIAPMemoryLogger::combinedLogString(), "2025-01-01 00:00:00 +0000 [W] after\n");
}

}  // namespace

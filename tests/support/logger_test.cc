#include "zbiap/support/logger.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "testing/test_platform.h"
#include "zbiap/support/memory_logger.h"

namespace {

using Lines = std::vector<std::string>;

class LoggerTest : public ::testing::Test {
 protected:
  void SetUp() override { ZBIAPMemoryLogger::clearLog(); }
  void TearDown() override {
    gZBIAPCustomLoggerClass = nullptr;
    gZBIAPMemoryLoggerMaximumEntries = 0;
    ZBIAPMemoryLogger::clearLog();
  }
  zbiap::testing::TestPlatform platform_;
};

TEST_F(LoggerTest, CheckKeyAcceptsOneAndYesInAnyCaseFromEnvironmentOrDefaults) {
  const std::pair<const char*, bool> cases[] = {
      {"1", true}, {"YES", true}, {"yEs", true},   {"2", false},  {"true", false}, {"0", false},
      {"", false}, {"NO", false}, {"YES ", false}, {" 1", false}, {"YESS", false}, {"11", false},
  };
  for (const auto& [value, expected] : cases) {
    platform_.setEnv("ENV_KEY", value);
    EXPECT_EQ(zbiap::checkKey("ENV_KEY"), expected) << "environment '" << value << "'";
    ASSERT_TRUE(platform_.userDefaults().setString("DEFAULTS_KEY", value));
    EXPECT_EQ(zbiap::checkKey("DEFAULTS_KEY"), expected) << "defaults '" << value << "'";
  }
  EXPECT_FALSE(zbiap::checkKey("UNSET_KEY"));
  // An environment value that is off does not hide a defaults value that is on.
  ASSERT_TRUE(platform_.userDefaults().setString("DEFAULTS_KEY", "1"));
  platform_.setEnv("DEFAULTS_KEY", "0");
  EXPECT_TRUE(zbiap::checkKey("DEFAULTS_KEY"));
}

TEST_F(LoggerTest, DisabledLoggerIsNullAndEvaluatesNothing) {
  platform_.setEnv("ZBIAPSTORE_LOGGING", "true");
  std::shared_ptr<ZBIAPLogger> logger =
      ZBIAPLogger::createWithName("Apple Store", "ZBIAPSTORE_LOGGING");
  EXPECT_EQ(logger, nullptr);
  int evaluations = 0;
  auto expensive = [&evaluations] { return std::to_string(++evaluations); };
  ZBIAP_LOG(logger, "value {}", expensive());
  ZBIAP_LOG_MESSAGE(logger, expensive());
  EXPECT_EQ(evaluations, 0);
  EXPECT_TRUE(platform_.logLines().empty());
}

TEST_F(LoggerTest, SwitchOfTheComponentOrTheLibraryIsReadAtCreation) {
  platform_.setEnv("ZBIAPSTORE_LOGGING", "yes");
  auto logger = ZBIAPLogger::createWithName("Apple Store", "ZBIAPSTORE_LOGGING");
  ASSERT_NE(logger, nullptr);
  platform_.setEnv("ZBIAPSTORE_LOGGING", "0");
  ZBIAP_LOG(logger, "Products {} received: {}", 3, "ok");
  logger->logMessage("100% done {} %@");
  logger->setPrefix(">> ");
  logger->log("after");
  platform_.setEnv("ZBIAP_LOGGING", "1");
  ASSERT_NE(ZBIAPLogger::createWithName("M", "M_LOGGING"), nullptr);
  EXPECT_EQ(platform_.logLines(), (Lines{
                                      "[Apple Store] Logging enabled.",
                                      "[Apple Store] Products 3 received: ok",
                                      "[Apple Store] 100% done {} %@",
                                      ">> after",
                                      "[M] Logging enabled.",
                                  }));
}

// A host's own logger type, keeping every line of every component.
class CapturingLogger : public ZBIAPLogger {
 public:
  static std::shared_ptr<ZBIAPLogger> make(std::string_view name, std::string_view /*key*/) {
    return std::shared_ptr<ZBIAPLogger>(new CapturingLogger(name));
  }
  void logMessage(std::string_view message) override {
    lines.push_back(prefix() + std::string(message));
  }
  static inline Lines lines;

 private:
  explicit CapturingLogger(std::string_view name) : ZBIAPLogger(name) {}
};

TEST_F(LoggerTest, CustomFactoryMakesEveryLoggerWhateverTheSwitch) {
  CapturingLogger::lines.clear();
  gZBIAPCustomLoggerClass = &CapturingLogger::make;
  auto logger = ZBIAPLogger::createWithName("DPI Fetcher", "OFF_KEY");
  ASSERT_NE(logger, nullptr);
  ZBIAP_LOG(logger, "hello {}", 1);
  EXPECT_EQ(CapturingLogger::lines, Lines{"[DPI Fetcher] hello 1"});
  EXPECT_TRUE(platform_.logLines().empty());
}

TEST_F(LoggerTest, MemoryLoggerKeepsDatedLinesUpToTheLimitUntilCleared) {
  gZBIAPCustomLoggerClass = &ZBIAPMemoryLogger::initWithName;
  auto manager = ZBIAPLogger::createWithName("ZBIAPManager", "OFF_KEY");
  ASSERT_NE(manager, nullptr);
  ZBIAP_LOG(manager, "state {} -> {}", 0, 1);
  manager->logMessage("50% {}");
  // The virtual clock starts at 2025-01-01 00:00:00 UTC; nothing goes to the system log.
  EXPECT_EQ(ZBIAPMemoryLogger::combinedLogString(),
            "2025-01-01 00:00:00 +0000 [ZBIAPManager] state 0 -> 1\n"
            "2025-01-01 00:00:00 +0000 [ZBIAPManager] 50% {}\n");
  EXPECT_TRUE(platform_.logLines().empty());

  ZBIAPMemoryLogger::clearLog();
  gZBIAPMemoryLoggerMaximumEntries = 3;
  auto logger = ZBIAPMemoryLogger::initWithName("M", "ignored");
  for (int i = 1; i <= 5; ++i) logger->log("line {}", i);
  EXPECT_EQ(ZBIAPMemoryLogger::combinedLogString(),
            "2025-01-01 00:00:00 +0000 [M] line 1\n2025-01-01 00:00:00 +0000 [M] line 2\n"
            "2025-01-01 00:00:00 +0000 [M] line 3\n");
  ZBIAPMemoryLogger::clearLog();
  EXPECT_EQ(ZBIAPMemoryLogger::combinedLogString(), "");
  logger->log("line 6");
  EXPECT_EQ(ZBIAPMemoryLogger::combinedLogString(), "2025-01-01 00:00:00 +0000 [M] line 6\n");
}

}  // namespace

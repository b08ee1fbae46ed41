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

// A component's switch, or the library's, is read when its logger is made; a disabled logger
// is null and evaluates nothing of what it would log.
TEST_F(LoggerTest, SwitchIsReadAtCreation) {
  platform_.setEnv("C_LOGGING", "true");
  std::shared_ptr<ZBIAPLogger> off = ZBIAPLogger::createWithName("C", "C_LOGGING");
  EXPECT_EQ(off, nullptr);
  int evaluations = 0;
  auto expensive = [&evaluations] { return std::to_string(++evaluations); };
  ZBIAP_LOG(off, "value {}", expensive());
  ZBIAP_LOG_MESSAGE(off, expensive());
  EXPECT_EQ(evaluations, 0);

  platform_.setEnv("C_LOGGING", "yes");
  auto logger = ZBIAPLogger::createWithName("C", "C_LOGGING");
  ASSERT_NE(logger, nullptr);
  platform_.setEnv("C_LOGGING", "0");
  ZBIAP_LOG(logger, "Products {} received: {}", 3, "ok");
  logger->logMessage("100% done {} %@");
  logger->setPrefix(">> ");
  logger->log("after");
  platform_.setEnv("ZBIAP_LOGGING", "1");
  ASSERT_NE(ZBIAPLogger::createWithName("M", "M_LOGGING"), nullptr);
  EXPECT_EQ(platform_.logLines(),
            (Lines{"[C] Logging enabled.", "[C] Products 3 received: ok", "[C] 100% done {} %@",
                   ">> after", "[M] Logging enabled."}));
}

// A custom factory makes every logger, whatever the switch.
TEST_F(LoggerTest, CustomFactoryMakesEveryLoggerWhateverTheSwitch) {
  // The memory logger, a factory as a host's own would be, keeps dated lines up to its limit until
  // cleared; nothing goes to the system log. The virtual clock starts at 2025-01-01 00:00:00 UTC.
  gZBIAPCustomLoggerClass = &ZBIAPMemoryLogger::initWithName;
  gZBIAPMemoryLoggerMaximumEntries = 2;
  auto logger = ZBIAPLogger::createWithName("M", "OFF_KEY");
  ZBIAP_LOG(logger, "state {} -> {}", 0, 1);
  for (int i = 1; i <= 3; ++i) logger->logMessage("50% {} " + std::to_string(i));
  EXPECT_EQ(ZBIAPMemoryLogger::combinedLogString(),
            "2025-01-01 00:00:00 +0000 [M] state 0 -> 1\n"
            "2025-01-01 00:00:00 +0000 [M] 50% {} 1\n");
  ZBIAPMemoryLogger::clearLog();
  EXPECT_EQ(ZBIAPMemoryLogger::combinedLogString(), "");
  logger->log("again");
  EXPECT_EQ(ZBIAPMemoryLogger::combinedLogString(), "2025-01-01 00:00:00 +0000 [M] again\n");
  EXPECT_TRUE(platform_.logLines().empty());
}

}  // namespace

#include "tests/manager/manager_fixture.h"

#include "zbiap/foundation/json.h"
#include "zbiap/support/logger.h"
#include "zbiap/support/memory_logger.h"

namespace zbiap::testing {

void ManagerTest::SetUp() {
  platform_ = std::make_unique<TestPlatform>();
  gZBIAPCustomLoggerClass = &ZBIAPMemoryLogger::initWithName;
  ZBIAPMemoryLogger::clearLog();

  store_ = FakeStore::create();
  fetcher_ = FakeFetcher::create();
  configuration_ = ZBIAPManagerConfiguration::create(store_, kCountryProduct, "US", fetcher_);
  ASSERT_NE(configuration_, nullptr);
}

void ManagerTest::TearDown() {
  tokens_.clear();
  // Whatever the path: "did become ready" is posted at most once, right after a state change,
  // and no state notification repeats the state before it.
  size_t readyPosts = 0;
  int64_t lastState = ZBIAPManagerStateNotConfigured;
  for (size_t i = 0; i < heard_.size(); ++i) {
    if (heard_[i].name == ZBIAPManagerDidBecomeReadyStateNotification) {
      ++readyPosts;
      EXPECT_TRUE(i > 0 && heard_[i - 1].name == ZBIAPManagerDidUpdateStateNotification);
    } else if (heard_[i].name == ZBIAPManagerDidUpdateStateNotification) {
      EXPECT_NE(heard_[i].state, lastState);
      lastState = heard_[i].state;
    }
  }
  EXPECT_LE(readyPosts, 1u);
  // Held callbacks and pending timers own the manager; let them go before the platform.
  store_->dropPending();
  fetcher_->dropPending();
  manager_.reset();
  configuration_.reset();
  platform_.reset();
  gZBIAPCustomLoggerClass = nullptr;
}

std::shared_ptr<ZBIAPManager> ManagerTest::makeManager() {
  tokens_.clear();
  heard_.clear();
  manager_ = ZBIAPManager::create(configuration_);
  for (const char* name :
       {ZBIAPManagerDidUpdateStateNotification, ZBIAPManagerDidBecomeReadyStateNotification,
        ZBIAPManagerDidUpdateDynamicProductInfosNotification,
        ZBIAPManagerStoreDidUpdateNotification}) {
    ZBIAPManager* manager = manager_.get();
    tokens_.push_back(NotificationCenter::defaultCenter().addObserver(
        name, manager_.get(), [this, manager](const Notification& notification) {
          EXPECT_TRUE(platform_->mainQueue().isMainThread()) << notification.name;
          EXPECT_EQ(notification.userInfo, nullptr);
          heard_.push_back({std::string(notification.name), manager->state()});
        }));
  }
  return manager_;
}

void ManagerTest::commit() {
  manager_->commitConfiguration();
  runUntilIdle();
}

void ManagerTest::relaunch() {
  store_->dropPending();
  fetcher_->dropPending();
  platform_->reopenUserDefaults();
  store_ = FakeStore::create();
  fetcher_ = FakeFetcher::create();
  configuration_ = ZBIAPManagerConfiguration::create(store_, kCountryProduct, "US", fetcher_);
  makeManager();
  commit();
}

size_t ManagerTest::logCount(std::string_view message) const {
  const std::string text = ZBIAPMemoryLogger::combinedLogString();
  const std::string needle = "[ZBIAPManager] " + std::string(message);
  size_t count = 0;
  for (size_t at = text.find(needle); at != std::string::npos; at = text.find(needle, at + 1)) {
    ++count;
  }
  return count;
}

std::vector<std::string> ManagerTest::heardNames() const {
  std::vector<std::string> names;
  for (const Heard& h : heard_) names.push_back(h.name);
  return names;
}

size_t ManagerTest::heardCount(std::string_view name) const {
  size_t count = 0;
  for (const Heard& h : heard_) count += h.name == name;
  return count;
}

void ManagerTest::saveCatalogue(const std::vector<Dictionary>& products,
                                const std::vector<Dictionary>& features) {
  Array productArray(products.begin(), products.end());
  Array featureArray(features.begin(), features.end());
  std::string productText = toJSON(Value(productArray));
  std::string featureText = toJSON(Value(featureArray));
  UserDefaults& defaults = platform_->userDefaults();
  ASSERT_TRUE(defaults.setData("ZBIAPProductInfos", Data(productText.begin(), productText.end())));
  ASSERT_TRUE(defaults.setData("ZBIAPBaselineFeatureMetadata",
                               Data(featureText.begin(), featureText.end())));
}

}  // namespace zbiap::testing

#include "tests/manager/manager_fixture.h"

namespace zbiap::testing {

void ManagerTest::SetUp() {
  platform_ = std::make_unique<TestPlatform>();
  store_ = FakeStore::create();
  fetcher_ = FakeFetcher::create();
}

void ManagerTest::TearDown() {
  // Held callbacks and pending timers own the manager; let them go before the platform.
  store_->dropPending();
  fetcher_->dropPending();
  manager_.reset();
  platform_.reset();
}

std::shared_ptr<ZBIAPManager> ManagerTest::makeManager() {
  manager_ = ZBIAPManager::initWithConfiguration(
      ZBIAPManagerConfiguration::initWithStore(store_, "com.example.country", "US", fetcher_));
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
  makeManager();
  commit();
}

}  // namespace zbiap::testing

// The manager fault tests' fixture: the test platform (virtual-time main queue, user defaults in
// a real SQLite file that can be reopened as a new launch would, a captured system log), a
// scriptable store and fetcher, and a manager of them.
#ifndef ZBIAP_TESTS_MANAGER_MANAGER_FIXTURE_H_
#define ZBIAP_TESTS_MANAGER_MANAGER_FIXTURE_H_

#include <gtest/gtest.h>

#include <memory>

#include "testing/fake_fetcher.h"
#include "testing/fake_store.h"
#include "testing/test_platform.h"
#include "zbiap/manager/manager.h"

namespace zbiap::testing {

class ManagerTest : public ::testing::Test {
 protected:
  void SetUp() override;
  void TearDown() override;

  // A new manager of a new store and fetcher, as a launch of the app makes it.
  std::shared_ptr<ZBIAPManager> makeManager();
  // Commits and runs what is due now.
  void commit();
  // The next launch: the defaults file opened anew, a new manager, committed.
  void relaunch();
  void runUntilIdle() { platform_->runUntilIdle(); }

  std::unique_ptr<TestPlatform> platform_;
  std::shared_ptr<FakeStore> store_;
  std::shared_ptr<FakeFetcher> fetcher_;
  std::shared_ptr<ZBIAPManager> manager_;
};

}  // namespace zbiap::testing

#endif  // ZBIAP_TESTS_MANAGER_MANAGER_FIXTURE_H_

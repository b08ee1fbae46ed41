// The manager tests' fixture: the test platform (virtual-time main queue, user defaults in a real
// SQLite file that can be reopened as a new launch would, a captured system log), the manager's
// log lines in memory; a scriptable store and fetcher; a recorder of the manager's
// notifications.
#ifndef ZBIAP_TESTS_MANAGER_MANAGER_FIXTURE_H_
#define ZBIAP_TESTS_MANAGER_MANAGER_FIXTURE_H_

#include <gtest/gtest.h>

#include <chrono>
#include <memory>
#include <string>
#include <vector>

#include "testing/fake_fetcher.h"
#include "testing/fake_store.h"
#include "testing/manual_main_queue.h"
#include "testing/test_platform.h"
#include "zbiap/manager/manager.h"
#include "zbiap/platform/notification_center.h"

namespace zbiap::testing {

// One notification as the recorder heard it, with the manager's state at that moment.
struct Heard {
  std::string name;
  int64_t state;
};

class ManagerTest : public ::testing::Test {
 protected:
  static constexpr char kCountryProduct[] = "com.example.country";

  void SetUp() override;
  void TearDown() override;

  // A manager of the fixture's configuration, with its notifications recorded.
  std::shared_ptr<ZBIAPManager> makeManager();
  // Commits and runs what is due now.
  void commit();
  // The next launch: the defaults file opened anew, a new store, fetcher and manager, committed.
  void relaunch();
  void runUntilIdle() { platform_->runUntilIdle(); }
  void advance(std::chrono::seconds seconds) { platform_->advanceBy(seconds); }

  // How often the manager logged a line that begins with `message`.
  size_t logCount(std::string_view message) const;
  bool logged(std::string_view message) const { return logCount(message) > 0; }
  // Names of the notifications heard, in order.
  std::vector<std::string> heardNames() const;
  size_t heardCount(std::string_view name) const;
  void clearHeard() { heard_.clear(); }

  // Saves a catalogue in the user defaults as a previous launch would have left it.
  void saveCatalogue(const std::vector<Dictionary>& products,
                     const std::vector<Dictionary>& features = {});

  std::unique_ptr<TestPlatform> platform_;
  std::shared_ptr<FakeStore> store_;
  std::shared_ptr<FakeFetcher> fetcher_;
  std::shared_ptr<ZBIAPManagerConfiguration> configuration_;
  std::shared_ptr<ZBIAPManager> manager_;
  std::vector<Heard> heard_;
  std::vector<ObserverToken> tokens_;
};

}  // namespace zbiap::testing

#endif  // ZBIAP_TESTS_MANAGER_MANAGER_FIXTURE_H_

// The manager tests' fixture: a platform with a virtual-time main queue, user defaults in a real
// SQLite file that can be reopened (as a new launch would), a captured system log and the
// manager's log lines in memory; a scriptable store and fetcher; a recorder of the manager's
// notifications.
#ifndef ZBIAP_TESTS_MANAGER_MANAGER_FIXTURE_H_
#define ZBIAP_TESTS_MANAGER_MANAGER_FIXTURE_H_

#include <gtest/gtest.h>

#include <chrono>
#include <filesystem>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "testing/fake_fetcher.h"
#include "testing/fake_store.h"
#include "testing/manual_main_queue.h"
#include "zbiap/manager/manager.h"
#include "zbiap/platform/directory_bundle.h"
#include "zbiap/platform/notification_center.h"
#include "zbiap/platform/platform.h"
#include "zbiap/platform/sqlite_user_defaults.h"

namespace zbiap::testing {

class ManagerTestPlatform final : public Platform {
 public:
  explicit ManagerTestPlatform(const std::filesystem::path& dir);

  ManualMainQueue& queue() { return queue_; }
  // Closes the defaults file and opens it again, as the next launch of the app would.
  void reopenDefaults();
  std::vector<std::string> logLines() const;

  MainQueue& mainQueue() override { return queue_; }
  TaskQueue& globalQueue() override { return queue_; }
  Date now() override { return queue_.now(); }
  std::optional<std::string> environmentValue(std::string_view name) override;
  UserDefaults& standardUserDefaults() override;
  Bundle& mainBundle() override { return bundle_; }
  DeviceInfo deviceInfo() override { return {"Test", "Linux", "6.1.0", "x86_64"}; }
  std::vector<std::string> preferredLanguages() override { return {"en"}; }
  void systemLog(std::string_view line) override;

 private:
  const std::filesystem::path dir_;
  mutable std::mutex mu_;
  std::vector<std::string> lines_;
  ManualMainQueue queue_;
  DirectoryBundle bundle_;
  std::unique_ptr<SQLiteUserDefaults> defaults_;
};

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
  void runUntilIdle() { platform_->queue().runUntilIdle(); }
  void advance(std::chrono::seconds seconds) { platform_->queue().advanceBy(seconds); }

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

  std::filesystem::path dir_;
  std::shared_ptr<ManagerTestPlatform> platform_;
  std::shared_ptr<Platform> previousPlatform_;
  std::shared_ptr<FakeStore> store_;
  std::shared_ptr<FakeFetcher> fetcher_;
  std::shared_ptr<ZBIAPManagerConfiguration> configuration_;
  std::shared_ptr<ZBIAPManager> manager_;
  std::vector<Heard> heard_;
  std::vector<ObserverToken> tokens_;
};

}  // namespace zbiap::testing

#endif  // ZBIAP_TESTS_MANAGER_MANAGER_FIXTURE_H_

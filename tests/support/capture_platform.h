// A platform for the support and store tests: environment variables from a map, user defaults
// in a real SQLite file in a temp directory, the system log captured line by line, the clock
// and main queue virtual. Installed for the life of a CapturePlatformScope.
#ifndef ZBIAP_TESTS_SUPPORT_CAPTURE_PLATFORM_H_
#define ZBIAP_TESTS_SUPPORT_CAPTURE_PLATFORM_H_

#include <unistd.h>

#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "testing/manual_main_queue.h"
#include "zbiap/platform/directory_bundle.h"
#include "zbiap/platform/platform.h"
#include "zbiap/platform/sqlite_user_defaults.h"

namespace zbiap::testing {

class CapturePlatform final : public Platform {
 public:
  explicit CapturePlatform(const std::filesystem::path& dir)
      : bundle_(dir), defaults_(dir / "defaults.sqlite", nullptr) {}

  void setEnvironment(const std::string& name, const std::string& value) {
    std::lock_guard<std::mutex> lock(mu_);
    environment_[name] = value;
  }
  std::vector<std::string> logLines() const {
    std::lock_guard<std::mutex> lock(mu_);
    return lines_;
  }

  MainQueue& mainQueue() override { return queue_; }
  TaskQueue& globalQueue() override { return queue_; }
  Date now() override { return queue_.now(); }
  std::optional<std::string> environmentValue(std::string_view name) override {
    std::lock_guard<std::mutex> lock(mu_);
    auto it = environment_.find(std::string(name));
    if (it == environment_.end()) return std::nullopt;
    return it->second;
  }
  UserDefaults& standardUserDefaults() override { return defaults_; }
  Bundle& mainBundle() override { return bundle_; }
  DeviceInfo deviceInfo() override { return {"Test", "Linux", "6.1.0", "x86_64"}; }
  std::vector<std::string> preferredLanguages() override { return {"en"}; }
  void systemLog(std::string_view line) override {
    std::lock_guard<std::mutex> lock(mu_);
    lines_.emplace_back(line);
  }

 private:
  mutable std::mutex mu_;
  std::map<std::string, std::string> environment_;
  std::vector<std::string> lines_;
  ManualMainQueue queue_;
  DirectoryBundle bundle_;
  SQLiteUserDefaults defaults_;
};

// Installs a fresh CapturePlatform with its own temp directory; restores the previous platform
// and removes the directory when it ends.
class CapturePlatformScope {
 public:
  CapturePlatformScope() {
    dir_ = std::filesystem::temp_directory_path() /
           ("zbiap-support-test-" + std::to_string(::getpid()) + "-" + std::to_string(counter_++));
    std::filesystem::create_directories(dir_);
    platform_ = std::make_shared<CapturePlatform>(dir_);
    previous_ = Platform::install(platform_);
  }
  ~CapturePlatformScope() {
    Platform::install(previous_);
    platform_.reset();
    std::error_code ec;
    std::filesystem::remove_all(dir_, ec);
  }
  CapturePlatformScope(const CapturePlatformScope&) = delete;
  CapturePlatformScope& operator=(const CapturePlatformScope&) = delete;

  CapturePlatform& platform() { return *platform_; }

 private:
  static inline int counter_ = 0;
  std::filesystem::path dir_;
  std::shared_ptr<CapturePlatform> platform_;
  std::shared_ptr<Platform> previous_;
};

}  // namespace zbiap::testing

#endif  // ZBIAP_TESTS_SUPPORT_CAPTURE_PLATFORM_H_

// LogCapturingPlatform: the default platform with its system log caught in memory, so that a
// command can show which messages the library wrote while it read one piece of input.
// Everything else is the wrapped platform's. Thread-safe.
#ifndef ZBIAP_TOOLS_LOG_CAPTURE_H_
#define ZBIAP_TOOLS_LOG_CAPTURE_H_

#include <memory>
#include <mutex>
#include <string>
#include <vector>

#include "zbiap/platform/platform.h"

namespace zbiap::cli {

class LogCapturingPlatform final : public Platform {
 public:
  explicit LogCapturingPlatform(std::shared_ptr<Platform> inner);
  LogCapturingPlatform(const LogCapturingPlatform&) = delete;
  LogCapturingPlatform& operator=(const LogCapturingPlatform&) = delete;

  // The lines logged since the last call, oldest first.
  std::vector<std::string> takeLines();

  MainQueue& mainQueue() override { return inner_->mainQueue(); }
  TaskQueue& globalQueue() override { return inner_->globalQueue(); }
  Date now() override { return inner_->now(); }
  std::optional<std::string> environmentValue(std::string_view name) override {
    return inner_->environmentValue(name);
  }
  UserDefaults& standardUserDefaults() override { return inner_->standardUserDefaults(); }
  Bundle& mainBundle() override { return inner_->mainBundle(); }
  DeviceInfo deviceInfo() override { return inner_->deviceInfo(); }
  std::vector<std::string> preferredLanguages() override { return inner_->preferredLanguages(); }
  void systemLog(std::string_view line) override;

 private:
  const std::shared_ptr<Platform> inner_;
  std::mutex mutex_;
  std::vector<std::string> lines_;
};

}  // namespace zbiap::cli

#endif  // ZBIAP_TOOLS_LOG_CAPTURE_H_

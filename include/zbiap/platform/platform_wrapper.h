// zbiap::PlatformWrapper: a platform that forwards every call to another one, so that a host,
// tool or test can change one service and keep the rest (after LevelDB's EnvWrapper). Subclass
// it and override what differs. It shares ownership of the target; thread-safety is the
// target's.
#ifndef ZBIAP_PLATFORM_PLATFORM_WRAPPER_H_
#define ZBIAP_PLATFORM_PLATFORM_WRAPPER_H_

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "zbiap/export.h"
#include "zbiap/platform/platform.h"

namespace zbiap {

class ZBIAP_EXPORT PlatformWrapper : public Platform {
 public:
  explicit PlatformWrapper(std::shared_ptr<Platform> target) : target_(std::move(target)) {}
  PlatformWrapper(const PlatformWrapper&) = delete;
  PlatformWrapper& operator=(const PlatformWrapper&) = delete;

  Platform& target() const { return *target_; }

  MainQueue& mainQueue() override { return target_->mainQueue(); }
  TaskQueue& globalQueue() override { return target_->globalQueue(); }
  Date now() override { return target_->now(); }
  std::optional<std::string> environmentValue(std::string_view name) override {
    return target_->environmentValue(name);
  }
  UserDefaults& standardUserDefaults() override { return target_->standardUserDefaults(); }
  Bundle& mainBundle() override { return target_->mainBundle(); }
  DeviceInfo deviceInfo() override { return target_->deviceInfo(); }
  std::vector<std::string> preferredLanguages() override { return target_->preferredLanguages(); }
  void systemLog(std::string_view line) override { target_->systemLog(line); }

 private:
  const std::shared_ptr<Platform> target_;
};

}  // namespace zbiap

#endif  // ZBIAP_PLATFORM_PLATFORM_WRAPPER_H_

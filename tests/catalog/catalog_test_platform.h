// A platform for the catalogue record tests: the default platform with a scripted environment,
// scripted preferred languages and a captured system log. Installed for the life of a fixture.
#ifndef ZBIAP_TESTS_CATALOG_CATALOG_TEST_PLATFORM_H_
#define ZBIAP_TESTS_CATALOG_CATALOG_TEST_PLATFORM_H_

#include <gtest/gtest.h>

#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "zbiap/foundation/json.h"
#include "zbiap/foundation/value.h"
#include "zbiap/platform/platform.h"

namespace zbiap::testing {

class CatalogTestPlatform final : public Platform {
 public:
  explicit CatalogTestPlatform(Platform& base) : base_(base) {}

  void setEnvironment(const std::string& name, std::optional<std::string> value) {
    std::lock_guard<std::mutex> lock(mu_);
    if (value) {
      environment_[name] = *value;
    } else {
      environment_.erase(name);
    }
  }
  void setPreferredLanguages(std::vector<std::string> languages) {
    std::lock_guard<std::mutex> lock(mu_);
    languages_ = std::move(languages);
  }
  std::vector<std::string> logLines() {
    std::lock_guard<std::mutex> lock(mu_);
    return log_;
  }
  void clearLog() {
    std::lock_guard<std::mutex> lock(mu_);
    log_.clear();
  }

  MainQueue& mainQueue() override { return base_.mainQueue(); }
  TaskQueue& globalQueue() override { return base_.globalQueue(); }
  Date now() override { return base_.now(); }
  std::optional<std::string> environmentValue(std::string_view name) override {
    std::lock_guard<std::mutex> lock(mu_);
    auto it = environment_.find(std::string(name));
    if (it == environment_.end()) return std::nullopt;
    return it->second;
  }
  UserDefaults& standardUserDefaults() override { return base_.standardUserDefaults(); }
  Bundle& mainBundle() override { return base_.mainBundle(); }
  DeviceInfo deviceInfo() override { return base_.deviceInfo(); }
  std::vector<std::string> preferredLanguages() override {
    std::lock_guard<std::mutex> lock(mu_);
    return languages_;
  }
  void systemLog(std::string_view line) override {
    std::lock_guard<std::mutex> lock(mu_);
    log_.emplace_back(line);
  }

 private:
  Platform& base_;
  std::mutex mu_;
  std::map<std::string, std::string> environment_;
  std::vector<std::string> languages_{"en-US"};
  std::vector<std::string> log_;
};

// Installs a CatalogTestPlatform for each test and restores the previous platform afterwards.
class CatalogTest : public ::testing::Test {
 protected:
  void SetUp() override {
    platform_ = std::make_shared<CatalogTestPlatform>(Platform::current());
    previous_ = Platform::install(platform_);
  }
  void TearDown() override { Platform::install(previous_); }

  CatalogTestPlatform& platform() { return *platform_; }
  std::vector<std::string> log() { return platform_->logLines(); }

  // The JSON text as a value; fails the test when it is not JSON.
  static Value json(std::string_view text) {
    std::string error;
    std::optional<Value> value = parseJSON(text, &error);
    EXPECT_TRUE(value.has_value()) << error << " in " << text;
    return value.value_or(Value());
  }

 private:
  std::shared_ptr<CatalogTestPlatform> platform_;
  std::shared_ptr<Platform> previous_;
};

}  // namespace zbiap::testing

#endif  // ZBIAP_TESTS_CATALOG_CATALOG_TEST_PLATFORM_H_

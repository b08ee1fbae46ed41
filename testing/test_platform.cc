#include "testing/test_platform.h"

#include <stdlib.h>

#include <chrono>
#include <cstdio>
#include <fstream>
#include <map>
#include <mutex>
#include <stdexcept>
#include <system_error>
#include <thread>
#include <utility>

#include "zbiap/foundation/json.h"
#include "zbiap/platform/sqlite_user_defaults.h"

namespace zbiap::testing {

namespace {

std::filesystem::path makeRootDir() {
  std::string pattern = (std::filesystem::temp_directory_path() / "zbiap-test-XXXXXX").string();
  if (::mkdtemp(pattern.data()) == nullptr) {
    throw std::runtime_error("TestPlatform: cannot create a temporary directory");
  }
  return pattern;
}

void writeFile(const std::filesystem::path& path, std::string_view contents) {
  std::error_code ec;
  std::filesystem::create_directories(path.parent_path(), ec);
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  out.write(contents.data(), static_cast<std::streamsize>(contents.size()));
  if (!out) throw std::runtime_error("TestPlatform: cannot write " + path.string());
}

}  // namespace

class TestPlatform::Impl final : public Platform {
 public:
  explicit Impl(const Options& options)
      : root_(makeRootDir()),
        queue_(options.start),
        pool_(2),
        bundle_(root_ / "bundle"),
        echoLog_(options.echoLog || std::getenv("ZBIAP_TEST_ECHO_LOG") != nullptr) {
    std::filesystem::create_directories(root_ / "bundle");
    openDefaults();
  }

  ~Impl() override {
    defaults_.reset();
    std::error_code ec;
    std::filesystem::remove_all(root_, ec);
  }

  MainQueue& mainQueue() override { return queue_; }
  TaskQueue& globalQueue() override { return pool_; }
  Date now() override { return queue_.now(); }

  std::optional<std::string> environmentValue(std::string_view name) override {
    std::lock_guard<std::mutex> lock(mu_);
    auto it = env_.find(name);
    if (it == env_.end()) return std::nullopt;
    return it->second;
  }

  UserDefaults& standardUserDefaults() override {
    std::lock_guard<std::mutex> lock(mu_);
    return *defaults_;
  }
  Bundle& mainBundle() override { return bundle_; }

  DeviceInfo deviceInfo() override {
    std::lock_guard<std::mutex> lock(mu_);
    return device_;
  }
  std::vector<std::string> preferredLanguages() override {
    std::lock_guard<std::mutex> lock(mu_);
    return languages_;
  }

  void systemLog(std::string_view line) override {
    if (echoLog_) std::fprintf(stderr, "[log] %.*s\n", static_cast<int>(line.size()), line.data());
    std::lock_guard<std::mutex> lock(mu_);
    log_.emplace_back(line);
  }

  void openDefaults() {
    SQLiteUserDefaults::Options options;
    options.busyTimeout = std::chrono::milliseconds(250);
    auto defaults = std::make_unique<SQLiteUserDefaults>(
        defaultsPath(), [this](std::string_view line) { systemLog(line); }, options);
    std::unique_ptr<SQLiteUserDefaults> old;
    {
      std::lock_guard<std::mutex> lock(mu_);
      old = std::move(defaults_);
      defaults_ = std::move(defaults);
    }
    // The old connection closes outside mu_ (its log sink takes mu_), and before the new one
    // first touches the file: connections open at their first use, after this returns.
    old.reset();
  }

  std::filesystem::path defaultsPath() const { return root_ / "defaults.sqlite3"; }

  const std::filesystem::path root_;
  ManualMainQueue queue_;
  ThreadPool pool_;
  DirectoryBundle bundle_;
  const bool echoLog_;

  mutable std::mutex mu_;
  std::map<std::string, std::string, std::less<>> env_;
  std::unique_ptr<SQLiteUserDefaults> defaults_;
  DeviceInfo device_{"Test Device", "Linux", "6.1.0", "x86_64"};
  std::vector<std::string> languages_{"en-US"};
  std::vector<std::string> log_;
  int tempDirs_ = 0;
};

TestPlatform::TestPlatform() : TestPlatform(Options()) {}

TestPlatform::TestPlatform(Options options) : impl_(std::make_shared<Impl>(options)) {
  previous_ = Platform::install(impl_);
}

TestPlatform::~TestPlatform() {
  impl_->pool_.waitIdle();
  Platform::install(std::move(previous_));
}

Platform& TestPlatform::platform() { return *impl_; }
ManualMainQueue& TestPlatform::mainQueue() { return impl_->queue_; }
ThreadPool& TestPlatform::globalQueue() { return impl_->pool_; }
Date TestPlatform::now() { return impl_->queue_.now(); }
size_t TestPlatform::runUntilIdle() { return impl_->queue_.runUntilIdle(); }
size_t TestPlatform::advanceBy(Duration delta) { return impl_->queue_.advanceBy(delta); }
void TestPlatform::drainGlobalQueue() { impl_->pool_.waitIdle(); }

bool TestPlatform::runUntil(const std::function<bool()>& done, std::chrono::milliseconds timeout) {
  const auto deadline = std::chrono::steady_clock::now() + timeout;
  bool held;
  while (!(held = done()) && std::chrono::steady_clock::now() < deadline) {
    if (runUntilIdle() == 0) std::this_thread::sleep_for(std::chrono::milliseconds(1));
  }
  runUntilIdle();
  return held;
}

void TestPlatform::settle() {
  for (;;) {
    size_t ran = impl_->queue_.runUntilIdle();
    bool poolRan = impl_->pool_.waitIdle();
    if (ran == 0 && !poolRan && impl_->queue_.nextDueIn() != Duration::zero()) return;
  }
}

void TestPlatform::setEnv(std::string name, std::string value) {
  std::lock_guard<std::mutex> lock(impl_->mu_);
  impl_->env_[std::move(name)] = std::move(value);
}

void TestPlatform::unsetEnv(std::string_view name) {
  std::lock_guard<std::mutex> lock(impl_->mu_);
  auto it = impl_->env_.find(name);
  if (it != impl_->env_.end()) impl_->env_.erase(it);
}

std::filesystem::path TestPlatform::bundleDir() const { return impl_->bundle_.bundlePath(); }
DirectoryBundle& TestPlatform::bundle() { return impl_->bundle_; }

std::filesystem::path TestPlatform::writeResource(std::string_view fileName,
                                                  std::string_view contents) {
  std::filesystem::path path = bundleDir() / fileName;
  writeFile(path, contents);
  return path;
}

void TestPlatform::writeInfoDictionary(const Dictionary& info) {
  writeInfoJSON(toJSON(Value(info)));
}

void TestPlatform::writeInfoJSON(std::string_view text) { writeResource("Info.json", text); }

UserDefaults& TestPlatform::userDefaults() { return impl_->standardUserDefaults(); }
std::filesystem::path TestPlatform::userDefaultsPath() const { return impl_->defaultsPath(); }
void TestPlatform::reopenUserDefaults() { impl_->openDefaults(); }

void TestPlatform::setDeviceInfo(DeviceInfo info) {
  std::lock_guard<std::mutex> lock(impl_->mu_);
  impl_->device_ = std::move(info);
}

void TestPlatform::setPreferredLanguages(std::vector<std::string> languages) {
  std::lock_guard<std::mutex> lock(impl_->mu_);
  impl_->languages_ = std::move(languages);
}

std::vector<std::string> TestPlatform::logLines() const {
  std::lock_guard<std::mutex> lock(impl_->mu_);
  return impl_->log_;
}

void TestPlatform::clearLog() {
  std::lock_guard<std::mutex> lock(impl_->mu_);
  impl_->log_.clear();
}

bool TestPlatform::logContains(std::string_view text) const {
  std::lock_guard<std::mutex> lock(impl_->mu_);
  for (const std::string& line : impl_->log_) {
    if (line.find(text) != std::string::npos) return true;
  }
  return false;
}

std::filesystem::path TestPlatform::makeTempDir(std::string_view name) {
  int n;
  {
    std::lock_guard<std::mutex> lock(impl_->mu_);
    n = ++impl_->tempDirs_;
  }
  std::filesystem::path dir = impl_->root_ / "tmp" / (std::string(name) + "-" + std::to_string(n));
  std::filesystem::create_directories(dir);
  return dir;
}

}  // namespace zbiap::testing

// zbiap::LinuxPlatform: the default platform on Linux. Its main queue is an EventLoop that the
// host runs; its global queue a small thread pool; user defaults a SQLite file; the bundle a
// directory. A host that wants other paths creates one with its options and installs it with
// Platform::install() before creating library objects; otherwise the first Platform::current()
// makes one from the environment (ZBIAP_BUNDLE_DIR, ZBIAP_USER_DEFAULTS_PATH). Thread-safe.
#ifndef ZBIAP_PLATFORM_LINUX_PLATFORM_H_
#define ZBIAP_PLATFORM_LINUX_PLATFORM_H_

#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "zbiap/export.h"
#include "zbiap/platform/directory_bundle.h"
#include "zbiap/platform/event_loop.h"
#include "zbiap/platform/platform.h"
#include "zbiap/platform/sqlite_user_defaults.h"
#include "zbiap/platform/thread_pool.h"

namespace zbiap {

class ZBIAP_EXPORT LinuxPlatform final : public Platform {
 public:
  struct Options {
    // The main bundle's directory; empty: $ZBIAP_BUNDLE_DIR, else the executable's directory.
    std::filesystem::path bundleDir;
    // The user defaults file; empty: $ZBIAP_USER_DEFAULTS_PATH, else
    // defaultUserDefaultsPath(<the bundle's CFBundleIdentifier, or "default">).
    std::filesystem::path userDefaultsPath;
    size_t globalQueueThreads = 2;
  };

  LinuxPlatform();
  explicit LinuxPlatform(Options options);
  ~LinuxPlatform() override;
  LinuxPlatform(const LinuxPlatform&) = delete;
  LinuxPlatform& operator=(const LinuxPlatform&) = delete;

  // The event loop of the current platform when it is a LinuxPlatform, else null: what a host
  // runs (or drains) on its main thread.
  static EventLoop* mainEventLoop();

  EventLoop& eventLoop() { return loop_; }
  DirectoryBundle& directoryBundle() { return *bundle_; }

  MainQueue& mainQueue() override { return loop_; }
  TaskQueue& globalQueue() override { return pool_; }
  Date now() override { return loop_.now(); }
  std::optional<std::string> environmentValue(std::string_view name) override;
  UserDefaults& standardUserDefaults() override;
  Bundle& mainBundle() override { return *bundle_; }
  DeviceInfo deviceInfo() override;
  std::vector<std::string> preferredLanguages() override;
  void systemLog(std::string_view line) override;

 private:
  std::filesystem::path userDefaultsPath_;
  EventLoop loop_;
  ThreadPool pool_;
  std::unique_ptr<DirectoryBundle> bundle_;
  std::once_flag defaultsOnce_;
  std::unique_ptr<SQLiteUserDefaults> defaults_;
  std::once_flag deviceOnce_;
  DeviceInfo device_;
};

// Writes one line to standard error as the system log does: local time, process name and id,
// then the text, in one write.
ZBIAP_EXPORT void writeSystemLogLine(std::string_view line);

}  // namespace zbiap

#endif  // ZBIAP_PLATFORM_LINUX_PLATFORM_H_

// zbiap::testing::TestPlatform: the platform a test runs on. Creating one installs it (the
// previous platform comes back when it is destroyed); create it on the test's thread, which
// becomes the main thread.
//
// It gives: a ManualMainQueue (virtual clock; nothing runs until the test runs it); a real
// two-thread pool as the global queue (drainGlobalQueue() waits for it, settle() alternates
// both queues until neither has work); an environment map that starts empty; a fresh temporary
// bundle directory; user defaults in a fresh temporary SQLite file, which reopenUserDefaults()
// closes and opens again as a new launch would; fixed device info; settable preferred languages
// (default {"en-US"}); and a captured system log. Everything temporary is removed at the end.
// All members are safe to call from any thread except the run functions (main thread only).
#ifndef ZBIAP_TESTING_TEST_PLATFORM_H_
#define ZBIAP_TESTING_TEST_PLATFORM_H_

#include <chrono>
#include <filesystem>
#include <functional>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "testing/manual_main_queue.h"
#include "zbiap/foundation/value.h"
#include "zbiap/platform/directory_bundle.h"
#include "zbiap/platform/platform.h"
#include "zbiap/platform/thread_pool.h"

namespace zbiap::testing {

class TestPlatform {
 public:
  struct Options {
    Date start = ManualMainQueue::kDefaultStart;
    // Also copy each system log line to standard error (or set ZBIAP_TEST_ECHO_LOG=1).
    bool echoLog = false;
  };

  TestPlatform();
  explicit TestPlatform(Options options);
  ~TestPlatform();
  TestPlatform(const TestPlatform&) = delete;
  TestPlatform& operator=(const TestPlatform&) = delete;

  // The installed platform itself (for code that takes a Platform&).
  Platform& platform();

  // Queues and virtual time.
  ManualMainQueue& mainQueue();
  ThreadPool& globalQueue();
  Date now();
  size_t runUntilIdle();
  size_t advanceBy(Duration delta);
  // Waits until the global queue has nothing queued or running.
  void drainGlobalQueue();
  // Runs the main queue and waits for the global queue until neither has anything to do now.
  void settle();
  // Runs the main queue until `done()` holds, waiting in real time (never advancing the virtual
  // clock) for work that other threads post: answers over loopback HTTP, file events. Gives up
  // after `timeout`; returns whether `done()` held. Runs what is due once more at the end.
  bool runUntil(const std::function<bool()>& done,
                std::chrono::milliseconds timeout = std::chrono::seconds(20));

  // Environment.
  void setEnv(std::string name, std::string value);
  void unsetEnv(std::string_view name);

  // Bundle.
  std::filesystem::path bundleDir() const;
  DirectoryBundle& bundle();
  // Writes <bundleDir>/<fileName> (e.g. "ZBIAPPInfos.json") and returns its path.
  std::filesystem::path writeResource(std::string_view fileName, std::string_view contents);
  // Writes Info.json from a dictionary or as raw text.
  void writeInfoDictionary(const Dictionary& info);
  void writeInfoJSON(std::string_view text);

  // User defaults.
  UserDefaults& userDefaults();
  std::filesystem::path userDefaultsPath() const;
  // Closes the defaults file and opens it again, as the next launch of the app would.
  void reopenUserDefaults();

  // Device and languages.
  void setDeviceInfo(DeviceInfo info);
  void setPreferredLanguages(std::vector<std::string> languages);

  // The system log as captured, one entry per line logged.
  std::vector<std::string> logLines() const;
  void clearLog();
  // Whether some captured line contains `text`.
  bool logContains(std::string_view text) const;

  // A fresh directory inside this platform's temporary area, for a test's own files.
  std::filesystem::path makeTempDir(std::string_view name);

 private:
  class Impl;
  std::shared_ptr<Impl> impl_;
  std::shared_ptr<Platform> previous_;
};

}  // namespace zbiap::testing

#endif  // ZBIAP_TESTING_TEST_PLATFORM_H_

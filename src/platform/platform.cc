#include "zbiap/platform/platform.h"

#include <atomic>
#include <mutex>
#include <utility>

#include "zbiap/platform/linux_platform.h"

namespace zbiap {

namespace {

std::mutex& installMutex() {
  static std::mutex* mu = new std::mutex();
  return *mu;
}

// Both guarded by installMutex(); never destroyed, so library objects that outlive main() still
// find a platform.
std::shared_ptr<Platform>* installed = nullptr;
std::shared_ptr<Platform>* defaultPlatform = nullptr;
std::atomic<Platform*> currentPlatform{nullptr};
std::atomic<uint64_t> installs{0};

std::shared_ptr<Platform>& defaultLocked() {
  if (defaultPlatform == nullptr) {
    defaultPlatform = new std::shared_ptr<Platform>(std::make_shared<LinuxPlatform>());
  }
  return *defaultPlatform;
}

// The current platform, kept alive for the caller. A network thread that hands a completion to
// the main queue while the host installs another platform (at shutdown, say) must not have the
// platform destroyed under it; if it holds the last reference, the platform goes when it is done.
std::shared_ptr<Platform> retainCurrent() {
  std::lock_guard<std::mutex> lock(installMutex());
  if (installed != nullptr && *installed) return *installed;
  return defaultLocked();
}

}  // namespace

Platform& Platform::current() {
  Platform* platform = currentPlatform.load(std::memory_order_acquire);
  if (platform != nullptr) return *platform;
  std::lock_guard<std::mutex> lock(installMutex());
  platform = currentPlatform.load(std::memory_order_acquire);
  if (platform == nullptr) {
    platform = defaultLocked().get();
    currentPlatform.store(platform, std::memory_order_release);
  }
  return *platform;
}

std::shared_ptr<Platform> Platform::install(std::shared_ptr<Platform> platform) {
  std::lock_guard<std::mutex> lock(installMutex());
  if (installed == nullptr) installed = new std::shared_ptr<Platform>();
  std::shared_ptr<Platform> previous = std::move(*installed);
  *installed = std::move(platform);
  Platform* now = installed->get();
  if (now == nullptr && currentPlatform.load() != nullptr) now = defaultLocked().get();
  currentPlatform.store(now, std::memory_order_release);
  installs.fetch_add(1, std::memory_order_release);
  return previous;
}

void runOnMainThread(Task task) {
  const std::shared_ptr<Platform> platform = retainCurrent();
  MainQueue& queue = platform->mainQueue();
  if (queue.isMainThread()) {
    task();
  } else {
    queue.post(std::move(task));
  }
}

uint64_t Platform::installCount() { return installs.load(std::memory_order_acquire); }

}  // namespace zbiap

// The C API's platform (the default Linux platform and its event loop) and StoreKit simulator.
#include <chrono>
#include <mutex>
#include <thread>

#include "capi/handles.h"
#include "zbiap/platform/linux_platform.h"
#include "zbiap/storekit/storekit_binding.h"
#include "zbiap/storekit/storekit_configuration.h"
#include "zbiap/storekit/storekit_simulator.h"

using zbiap::capi::fail;
using zbiap::capi::guarded;
using zbiap::capi::nullArgument;

struct zbiap_platform {
  std::shared_ptr<zbiap::LinuxPlatform> platform;
  std::shared_ptr<zbiap::Platform> previous;
  std::thread thread;
};

struct zbiap_simulator {
  std::shared_ptr<zbiap::StoreKitSimulator> simulator;
  std::shared_ptr<zbiap::StoreKitBinding> previous;
};

namespace zbiap::capi {
namespace {

// Guards the two singletons below.
std::mutex& singletonMutex() {
  static std::mutex mutex;
  return mutex;
}
zbiap_platform* gPlatform = nullptr;
zbiap_simulator* gSimulator = nullptr;

int checkPlatform(zbiap_platform* platform) {
  if (platform == nullptr) return nullArgument("platform");
  std::lock_guard lock(singletonMutex());
  return platform == gPlatform ? ZBIAP_OK
                               : fail(ZBIAP_ERROR_INVALID_ARGUMENT, "not the current platform");
}

}  // namespace

int requirePlatform() {
  std::lock_guard lock(singletonMutex());
  return gPlatform ? ZBIAP_OK
                   : fail(ZBIAP_ERROR_WRONG_STATE, "no platform: call zbiap_platform_create first");
}

}  // namespace zbiap::capi

using zbiap::capi::checkPlatform;
using zbiap::capi::gPlatform;
using zbiap::capi::gSimulator;
using zbiap::capi::singletonMutex;

extern "C" {

int zbiap_platform_create(const zbiap_platform_options* options, zbiap_platform** out) {
  return guarded([&] {
    if (out == nullptr) return nullArgument("out");
    *out = nullptr;
    std::lock_guard lock(singletonMutex());
    if (gPlatform != nullptr) return fail(ZBIAP_ERROR_WRONG_STATE, "a platform exists already");
    zbiap::LinuxPlatform::Options settings;
    if (options != nullptr) {
      if (options->bundle_dir) settings.bundleDir = options->bundle_dir;
      if (options->user_defaults_path) settings.userDefaultsPath = options->user_defaults_path;
      if (options->global_queue_threads > 0) {
        settings.globalQueueThreads = options->global_queue_threads;
      }
    }
    auto handle = std::make_unique<zbiap_platform>();
    handle->platform = std::make_shared<zbiap::LinuxPlatform>(settings);
    handle->previous = zbiap::Platform::install(handle->platform);
    gPlatform = *out = handle.release();
    return int{ZBIAP_OK};
  });
}

int zbiap_platform_destroy(zbiap_platform* platform) {
  return guarded([&] {
    if (int status = checkPlatform(platform)) return status;
    {
      std::lock_guard lock(singletonMutex());
      if (zbiap::capi::liveObjects() > 0 || gSimulator != nullptr) {
        return fail(ZBIAP_ERROR_WRONG_STATE,
                    "destroy the managers, stores, fetchers and the simulator first");
      }
    }
    zbiap_platform_stop_thread(platform);
    // What the objects posted on their way out.
    platform->platform->eventLoop().drain();
    zbiap::Platform::install(platform->previous);
    std::lock_guard lock(singletonMutex());
    gPlatform = nullptr;
    delete platform;
    return int{ZBIAP_OK};
  });
}

int zbiap_platform_wakeup_fd(zbiap_platform* platform, int* fd) {
  return guarded([&] {
    if (int status = checkPlatform(platform)) return status;
    if (fd == nullptr) return nullArgument("fd");
    *fd = platform->platform->eventLoop().wakeupFd();
    return int{ZBIAP_OK};
  });
}

int zbiap_platform_drain(zbiap_platform* platform, size_t* ran) {
  return guarded([&] {
    if (int status = checkPlatform(platform)) return status;
    if (platform->thread.joinable()) {
      return fail(ZBIAP_ERROR_WRONG_STATE, "the main queue runs on the platform's thread");
    }
    size_t count = platform->platform->eventLoop().drain();
    if (ran != nullptr) *ran = count;
    return int{ZBIAP_OK};
  });
}

int zbiap_platform_next_due(zbiap_platform* platform, int64_t* milliseconds) {
  return guarded([&] {
    if (int status = checkPlatform(platform)) return status;
    if (milliseconds == nullptr) return nullArgument("milliseconds");
    auto due = platform->platform->eventLoop().nextDueIn();
    // Rounded up, so that a host that waits this long finds the timer due.
    *milliseconds = due ? std::chrono::ceil<std::chrono::milliseconds>(*due).count() : int64_t{-1};
    return int{ZBIAP_OK};
  });
}

int zbiap_platform_run_for(zbiap_platform* platform, int64_t milliseconds) {
  return guarded([&] {
    if (int status = checkPlatform(platform)) return status;
    if (milliseconds < 0) return fail(ZBIAP_ERROR_INVALID_ARGUMENT, "negative duration");
    if (platform->thread.joinable()) {
      return fail(ZBIAP_ERROR_WRONG_STATE, "the main queue runs on the platform's thread");
    }
    platform->platform->eventLoop().runFor(std::chrono::milliseconds(milliseconds));
    return int{ZBIAP_OK};
  });
}

int zbiap_platform_start_thread(zbiap_platform* platform) {
  return guarded([&] {
    if (int status = checkPlatform(platform)) return status;
    if (platform->thread.joinable()) return fail(ZBIAP_ERROR_WRONG_STATE, "it runs already");
    zbiap::EventLoop* loop = &platform->platform->eventLoop();
    platform->thread = std::thread([loop] { loop->run(); });
    return int{ZBIAP_OK};
  });
}

int zbiap_platform_stop_thread(zbiap_platform* platform) {
  return guarded([&] {
    if (int status = checkPlatform(platform)) return status;
    if (!platform->thread.joinable()) return int{ZBIAP_OK};
    if (platform->thread.get_id() == std::this_thread::get_id()) {
      return fail(ZBIAP_ERROR_WRONG_STATE, "called from the platform's own thread");
    }
    platform->platform->eventLoop().stop();
    platform->thread.join();
    return int{ZBIAP_OK};
  });
}

int zbiap_simulator_create(const char* storekit_path, zbiap_simulator** out) {
  return guarded([&] {
    if (out == nullptr) return nullArgument("out");
    *out = nullptr;
    if (storekit_path == nullptr) return nullArgument("storekit_path");
    if (int status = zbiap::capi::requirePlatform()) return status;
    std::lock_guard lock(singletonMutex());
    if (gSimulator != nullptr) return fail(ZBIAP_ERROR_WRONG_STATE, "a simulator exists already");
    std::string reason;
    auto configuration = zbiap::StoreKitConfiguration::fromFile(storekit_path, &reason);
    if (!configuration) {
      return fail(ZBIAP_ERROR_INVALID_ARGUMENT, std::string(storekit_path) + ": " + reason);
    }
    auto handle = std::make_unique<zbiap_simulator>();
    handle->simulator = zbiap::StoreKitSimulator::create(std::move(*configuration));
    if (!handle->simulator) return fail(ZBIAP_ERROR_FAILED, "cannot make the receipt signer");
    handle->previous = zbiap::StoreKitBinding::install(handle->simulator);
    gSimulator = *out = handle.release();
    return int{ZBIAP_OK};
  });
}

int zbiap_simulator_destroy(zbiap_simulator* simulator) {
  return guarded([&] {
    if (simulator == nullptr) return nullArgument("simulator");
    std::lock_guard lock(singletonMutex());
    if (simulator != gSimulator) {
      return fail(ZBIAP_ERROR_INVALID_ARGUMENT, "not the current simulator");
    }
    if (zbiap::capi::liveObjects() > 0) {
      return fail(ZBIAP_ERROR_WRONG_STATE, "destroy the managers and stores first");
    }
    zbiap::StoreKitBinding::install(simulator->previous);
    gSimulator = nullptr;
    delete simulator;
    return int{ZBIAP_OK};
  });
}

}  // extern "C"

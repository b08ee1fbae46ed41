// zbiap::Platform: every service the library takes from its operating system, behind one
// replaceable object (after LevelDB's Env). Nothing outside src/platform touches the OS.
//
// Platform::current() is never null: on first use it is the default Linux platform. A host or
// a test installs its own with Platform::install() before creating library objects. Services
// are safe to call from any thread unless their own header says otherwise.
#ifndef ZBIAP_PLATFORM_PLATFORM_H_
#define ZBIAP_PLATFORM_PLATFORM_H_

#include <cstdint>
#include <filesystem>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "zbiap/export.h"
#include "zbiap/foundation/date.h"
#include "zbiap/foundation/value.h"
#include "zbiap/platform/main_queue.h"

namespace zbiap {

// The standard user defaults: a persistent string/data store. Every write is one committed
// transaction (the "synchronize" of Foundation), so a crash leaves each key at its old or new
// value. A write that fails is reported to the system log and returns false; reads of an
// unreadable store give "absent".
class ZBIAP_EXPORT UserDefaults {
 public:
  virtual ~UserDefaults() = default;
  virtual std::optional<std::string> stringForKey(std::string_view key) = 0;
  virtual std::optional<Data> dataForKey(std::string_view key) = 0;
  virtual bool setString(std::string_view key, std::string_view value) = 0;
  virtual bool setData(std::string_view key, const Data& value) = 0;
  virtual bool removeObjectForKey(std::string_view key) = 0;
};

// The application bundle: a directory with resources and Info.json (the info dictionary).
class ZBIAP_EXPORT Bundle {
 public:
  virtual ~Bundle() = default;
  virtual std::filesystem::path bundlePath() const = 0;
  // The resource's path, or nullopt when there is no such file. `type` may be empty.
  virtual std::optional<std::filesystem::path> pathForResource(std::string_view name,
                                                               std::string_view type) const = 0;
  // Info.json as a dictionary; an empty dictionary when it is missing or unreadable.
  virtual Dictionary infoDictionary() const = 0;
  // Where the App Store receipt lives (it need not exist).
  virtual std::filesystem::path appStoreReceiptURL() const = 0;
};

struct ZBIAP_EXPORT DeviceInfo {
  std::string model;          // "Linux PC", UIDevice's model
  std::string systemName;     // "Linux"
  std::string systemVersion;  // kernel release, "6.1.0"
  std::string machineModel;   // hw.machine: "x86_64"
};

class ZBIAP_EXPORT Platform {
 public:
  virtual ~Platform() = default;

  static Platform& current();
  // Installs `platform` as the process's platform (null restores the default) and returns the
  // previous one. Call it before creating library objects.
  static std::shared_ptr<Platform> install(std::shared_ptr<Platform> platform);
  // Counts install() calls: what was learnt of one platform for the life of the process (the
  // receipt's location, say) is asked again when this has moved on.
  static uint64_t installCount();

  virtual MainQueue& mainQueue() = 0;
  // High-priority concurrent queue.
  virtual TaskQueue& globalQueue() = 0;
  // The current time (the main queue's clock).
  virtual Date now() = 0;
  virtual std::optional<std::string> environmentValue(std::string_view name) = 0;
  virtual UserDefaults& standardUserDefaults() = 0;
  virtual Bundle& mainBundle() = 0;
  virtual DeviceInfo deviceInfo() = 0;
  // Most preferred first, as BCP 47 tags ("de-DE", "en").
  virtual std::vector<std::string> preferredLanguages() = 0;
  // One line to the system log (default: standard error, time-stamped).
  virtual void systemLog(std::string_view line) = 0;
};

// Runs `task` at once when called on the main queue's thread, else posts it to the main queue.
ZBIAP_EXPORT void runOnMainThread(Task task);

}  // namespace zbiap

#endif  // ZBIAP_PLATFORM_PLATFORM_H_

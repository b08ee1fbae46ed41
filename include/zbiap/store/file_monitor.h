// ZBIAPFileMonitor: watches one file (the App Store receipt) and tells its delegate on the main
// queue whenever the file is written, changed in its attributes, renamed, or deleted and created
// again. A missing file is polled for every 200 ms on the main queue's clock; a deleted one is
// watched again under its path.
//
// The monitor holds its delegate weakly and everything it schedules holds the monitor weakly, so
// dropping the monitor ends polling and notifications. fileHasChanged() is only ever called on the
// main queue. A failure to watch other than a missing file is final for the monitor and is written
// to the system log once per distinct error number per process.
#ifndef ZBIAP_STORE_FILE_MONITOR_H_
#define ZBIAP_STORE_FILE_MONITOR_H_

#include <chrono>
#include <filesystem>
#include <memory>
#include <mutex>
#include <optional>

#include "zbiap/export.h"

namespace zbiap {
class FileWatch;
}

class ZBIAP_EXPORT ZBIAPFileMonitorDelegate {
 public:
  virtual ~ZBIAPFileMonitorDelegate() = default;
  // The watched file changed. Main queue only.
  virtual void fileHasChanged(const std::filesystem::path& fileURL) = 0;
};

class ZBIAP_EXPORT ZBIAPFileMonitor : public std::enable_shared_from_this<ZBIAPFileMonitor> {
 public:
  // Starts watching at once. Null when the URL is missing or empty or the delegate is null.
  static std::shared_ptr<ZBIAPFileMonitor> initWithURL(
      const std::optional<std::filesystem::path>& fileURL,
      const std::shared_ptr<ZBIAPFileMonitorDelegate>& delegate);

  ~ZBIAPFileMonitor();
  ZBIAPFileMonitor(const ZBIAPFileMonitor&) = delete;
  ZBIAPFileMonitor& operator=(const ZBIAPFileMonitor&) = delete;

  // Arms the watch; `isRetry` when called again after a deletion or a missing file, in which
  // case the delegate is told once that the file changed.
  void startWatchingIsRetry(bool isRetry);
  // Calls the delegate's fileHasChanged() with fileURL(). Main queue only.
  void notifyDelegate();

  std::shared_ptr<ZBIAPFileMonitorDelegate> delegate() const;
  void setDelegate(std::weak_ptr<ZBIAPFileMonitorDelegate> delegate);
  std::filesystem::path fileURL() const;
  // The current watch; null while waiting for the file or after giving up.
  std::shared_ptr<zbiap::FileWatch> source() const;

  // How often a missing file is looked for.
  static constexpr auto kRetryInterval = std::chrono::milliseconds(200);

 private:
  ZBIAPFileMonitor(std::filesystem::path fileURL, std::weak_ptr<ZBIAPFileMonitorDelegate> delegate);
  void setSource(std::shared_ptr<zbiap::FileWatch> source);

  mutable std::mutex mu_;  // makes the properties atomic
  std::weak_ptr<ZBIAPFileMonitorDelegate> delegate_;
  const std::filesystem::path fileURL_;
  std::shared_ptr<zbiap::FileWatch> source_;
};

#endif  // ZBIAP_STORE_FILE_MONITOR_H_

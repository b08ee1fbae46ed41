#include "zbiap/store/file_monitor.h"

#include <fmt/format.h>

#include <atomic>
#include <utility>

#include "zbiap/platform/file_watcher.h"
#include "zbiap/platform/platform.h"

namespace {

// The number of the last open error that was written to the system log, shared by all monitors
// so that one broken path does not flood the log.
std::atomic<int> gLastReportedOpenError{0};

std::string fileURLText(const std::filesystem::path& path) { return "file://" + path.string(); }

}  // namespace

std::shared_ptr<ZBIAPFileMonitor> ZBIAPFileMonitor::initWithURL(
    const std::optional<std::filesystem::path>& fileURL,
    const std::shared_ptr<ZBIAPFileMonitorDelegate>& delegate) {
  if (!fileURL || fileURL->empty() || !delegate) return nullptr;
  std::shared_ptr<ZBIAPFileMonitor> monitor(new ZBIAPFileMonitor(*fileURL, delegate));
  monitor->startWatchingIsRetry(false);
  return monitor;
}

ZBIAPFileMonitor::ZBIAPFileMonitor(std::filesystem::path fileURL,
                                   std::weak_ptr<ZBIAPFileMonitorDelegate> delegate)
    : delegate_(std::move(delegate)), fileURL_(std::move(fileURL)) {}

ZBIAPFileMonitor::~ZBIAPFileMonitor() {
  // The watch's cancel handler closes the descriptor.
  if (auto source = this->source()) source->cancel();
}

void ZBIAPFileMonitor::startWatchingIsRetry(bool isRetry) {
  zbiap::MainQueue& mainQueue = zbiap::Platform::current().mainQueue();
  std::weak_ptr<ZBIAPFileMonitor> weakSelf = weak_from_this();

  int errorNumber = 0;
  std::shared_ptr<zbiap::FileWatch> source = zbiap::FileWatch::open(fileURL_, &errorNumber);
  if (source) {
    std::weak_ptr<zbiap::FileWatch> weakSource = source;
    source->setEventHandler([weakSelf, weakSource](uint32_t events) {
      if (events & zbiap::kFileEventDelete) {
        if (auto watch = weakSource.lock()) watch->cancel();
        if (auto self = weakSelf.lock()) self->startWatchingIsRetry(true);
        return;
      }
      zbiap::Platform::current().mainQueue().post([weakSelf] {
        if (auto self = weakSelf.lock()) self->notifyDelegate();
      });
    });
    if (isRetry) {
      // The file appeared or was replaced: that is a change.
      mainQueue.post([weakSelf] {
        if (auto self = weakSelf.lock()) self->notifyDelegate();
      });
    }
    // The descriptor belongs to the watch and is closed when it is cancelled.
    source->setCancelHandler([] {});
    source->resume();
    setSource(std::move(source));
    return;
  }

  setSource(nullptr);
  if (errorNumber == zbiap::kFileErrorNoSuchFile) {
    mainQueue.postAfter(std::chrono::duration_cast<zbiap::Duration>(kRetryInterval), [weakSelf] {
      if (auto self = weakSelf.lock()) self->startWatchingIsRetry(true);
    });
    return;
  }
  if (gLastReportedOpenError.exchange(errorNumber) != errorNumber) {
    zbiap::Platform::current().systemLog(fmt::format("Unable to watch {}: {} - {}",
                                                     fileURLText(fileURL_), errorNumber,
                                                     zbiap::systemErrorText(errorNumber)));
  }
}

void ZBIAPFileMonitor::notifyDelegate() {
  if (auto delegate = this->delegate()) delegate->fileHasChanged(fileURL_);
}

std::shared_ptr<ZBIAPFileMonitorDelegate> ZBIAPFileMonitor::delegate() const {
  std::lock_guard<std::mutex> lock(mu_);
  return delegate_.lock();
}

void ZBIAPFileMonitor::setDelegate(std::weak_ptr<ZBIAPFileMonitorDelegate> delegate) {
  std::lock_guard<std::mutex> lock(mu_);
  delegate_ = std::move(delegate);
}

std::filesystem::path ZBIAPFileMonitor::fileURL() const { return fileURL_; }

std::shared_ptr<zbiap::FileWatch> ZBIAPFileMonitor::source() const {
  std::lock_guard<std::mutex> lock(mu_);
  return source_;
}

void ZBIAPFileMonitor::setSource(std::shared_ptr<zbiap::FileWatch> source) {
  std::shared_ptr<zbiap::FileWatch> previous;
  {
    std::lock_guard<std::mutex> lock(mu_);
    previous = std::exchange(source_, std::move(source));
  }
  // A replaced watch is cancelled already (by its delete handler); make sure of it.
  if (previous) previous->cancel();
}

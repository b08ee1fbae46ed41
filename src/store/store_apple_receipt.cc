// ZBIAPStoreApple: reading and watching the App Store receipt, and wrapping StoreKit errors.
#include <algorithm>
#include <filesystem>
#include <mutex>
#include <system_error>

#include "foundation/object_lists.h"
#include "zbiap/platform/platform.h"
#include "zbiap/store/store_apple.h"
#include "zbiap/storekit/sk_error.h"
#include "zbiap/support/logger.h"

namespace {

// The receipt URL comes from the platform's main bundle, asked once and then kept for the life
// of the process (a platform without one is asked again at the next read). A newly installed
// platform, which only tests and tools do, is asked anew.
std::optional<std::filesystem::path> appStoreReceiptURL() {
  static std::mutex mutex;
  static std::optional<std::filesystem::path> kept;
  static uint64_t keptFor = 0;
  std::lock_guard lock(mutex);
  const uint64_t installs = zbiap::Platform::installCount();
  if (!kept || keptFor != installs) {
    std::filesystem::path url = zbiap::Platform::current().mainBundle().appStoreReceiptURL();
    if (url.empty()) return std::nullopt;
    kept = std::move(url);
    keptFor = installs;
  }
  return kept;
}

}  // namespace

bool ZBIAPStoreApple::locked_readReceipt() {
  std::optional<std::filesystem::path> url = appStoreReceiptURL();
  if (!url) {
    ZBIAP_LOG(logger_, "Could not query App Store Receipt URL!");
    return false;
  }
  if (!receiptParser_) {
    receiptParser_ = ZBIAPReceiptParser::initWithReceiptURL(*url);
  } else {
    receiptParser_->refresh();
  }
  if (!receiptParser_ || !receiptParser_->isLoaded()) {
    ZBIAPErrorPtr lastError = receiptParser_ ? receiptParser_->lastError() : nullptr;
    ZBIAP_LOG(logger_, "Could not parse receipt: {}",
              lastError ? lastError->description() : std::string("(null)"));
    return false;
  }
  if (!receiptMonitor_) {
    receiptMonitor_ = ZBIAPFileMonitor::initWithURL(
        *url, std::static_pointer_cast<ZBIAPFileMonitorDelegate>(shared_from_this()));
  }

  bool changed = false;
  std::vector<ZBIAPReceiptIAPPtr> purchases = receiptParser_->inAppPurchases();
  if (!zbiap::sameObjects(inAppPurchases_, purchases)) {
    inAppPurchases_ = std::move(purchases);
    changed = true;
  }
  // An absent current value never compares equal, so a receipt without these counts as a
  // change at every read.
  std::optional<zbiap::Date> date = receiptParser_->originalPurchaseDate();
  if (!originalPurchaseDate_ || !date || *originalPurchaseDate_ != *date) {
    originalPurchaseDate_ = date;
    changed = true;
  }
  std::optional<std::string> version = receiptParser_->originalPurchaseVersion();
  if (!originalPurchaseVersion_ || !version || *originalPurchaseVersion_ != *version) {
    originalPurchaseVersion_ = version;
    changed = true;
  }
  return changed;
}

void ZBIAPStoreApple::updateReceipt() {
  bool changed;
  {
    std::lock_guard<std::recursive_mutex> guard(recursiveLock_);
    changed = locked_readReceipt();
  }
  if (!changed) return;
  if (auto delegate = storeDelegate()) delegate->storeDidUpdateInformations(*this);
}

void ZBIAPStoreApple::fileHasChanged(const std::filesystem::path& fileURL) {
  std::error_code error;
  const auto status = std::filesystem::status(fileURL, error);
  if (!error && std::filesystem::exists(status)) {
    const auto size = std::filesystem::file_size(fileURL, error);
    // An empty file is a receipt being written (or a placeholder): wait for its content.
    if (!error && size == 0) return;
  }
  updateReceipt();
}

ZBIAPErrorPtr ZBIAPStoreApple::wrapError(const ZBIAPErrorPtr& error) {
  if (error && error->domain() == SKErrorDomain && error->code() == SKErrorPaymentCancelled) {
    return zbiap::makeStoreError(ZBIAPStoreErrorPaymentCancelled);
  }
  if (error && error->domain() == SSServerErrorDomain &&
      error->code() == SSServerErrorAlreadySubscribed) {
    return zbiap::makeStoreError(ZBIAPStoreErrorAlreadySubscribed, error);
  }
  return zbiap::makeStoreError(ZBIAPStoreErrorOther, error);
}

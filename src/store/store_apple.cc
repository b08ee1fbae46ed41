// ZBIAPStoreApple: queries, purchases, restore, refresh and self-retention. The receipt side
// (reading, watching, wrapping errors) is in store_apple_receipt.cc.
#include "zbiap/store/store_apple.h"

#include <fmt/format.h>
#include <fmt/ranges.h>

#include <algorithm>
#include <set>
#include <utility>

#include "zbiap/platform/platform.h"
#include "zbiap/storekit/sk_error.h"
#include "zbiap/support/logger.h"

namespace {

// Keys under which a products request carries its completion; which one is set says what the
// request is for.
const char kQueryStoreCountryCompletionBlockToken = 0;
const char kQueryProductsCompletionBlockToken = 0;

std::string orNull(const std::optional<std::string>& text) { return text ? *text : "(null)"; }

std::string describe(const ZBIAPErrorPtr& error) {
  return error ? error->description() : std::string("(null)");
}

}  // namespace

std::shared_ptr<ZBIAPStoreApple> ZBIAPStoreApple::create() {
  std::shared_ptr<ZBIAPStoreApple> store(new ZBIAPStoreApple());
  // The receipt is read before anyone else can see the store, so without the lock.
  store->locked_readReceipt();
  store->observedQueue_ = SKPaymentQueue::defaultQueue();
  store->observedQueue_->addTransactionObserver(
      std::static_pointer_cast<SKPaymentTransactionObserver>(store));
  return store;
}

ZBIAPStoreApple::ZBIAPStoreApple()
    : logger_(ZBIAPLogger::createWithName("Apple Store", "ZBIAPSTORE_LOGGING")) {}

ZBIAPStoreApple::~ZBIAPStoreApple() {
  if (observedQueue_) observedQueue_->removeTransactionObserver(this);
}

ZBIAPErrorPtr ZBIAPStoreApple::error(ZBIAPStoreErrorCode code) {
  return zbiap::makeStoreError(code);
}

// ----- Properties -----

std::shared_ptr<ZBIAPStoreDelegate> ZBIAPStoreApple::storeDelegate() const {
  std::lock_guard<std::recursive_mutex> guard(recursiveLock_);
  return storeDelegate_.lock();
}

void ZBIAPStoreApple::setStoreDelegate(std::weak_ptr<ZBIAPStoreDelegate> delegate) {
  std::lock_guard<std::recursive_mutex> guard(recursiveLock_);
  storeDelegate_ = std::move(delegate);
}

std::shared_ptr<ZBIAPManager> ZBIAPStoreApple::manager() const {
  std::lock_guard<std::recursive_mutex> guard(recursiveLock_);
  return manager_.lock();
}

void ZBIAPStoreApple::setManager(std::weak_ptr<ZBIAPManager> manager) {
  std::lock_guard<std::recursive_mutex> guard(recursiveLock_);
  manager_ = std::move(manager);
}

std::optional<zbiap::Date> ZBIAPStoreApple::originalPurchaseDate() const {
  std::lock_guard<std::recursive_mutex> guard(recursiveLock_);
  return originalPurchaseDate_;
}

std::optional<std::string> ZBIAPStoreApple::originalPurchaseVersion() const {
  std::lock_guard<std::recursive_mutex> guard(recursiveLock_);
  return originalPurchaseVersion_;
}

std::vector<ZBIAPReceiptIAPPtr> ZBIAPStoreApple::inAppPurchases() const {
  std::lock_guard<std::recursive_mutex> guard(recursiveLock_);
  return inAppPurchases_;
}

size_t ZBIAPStoreApple::retainCount() const {
  std::lock_guard<std::recursive_mutex> guard(recursiveLock_);
  return retainingArray_.size();
}

std::string ZBIAPStoreApple::countryCode() const {
  std::lock_guard<std::recursive_mutex> guard(recursiveLock_);
  return countryCode_;
}

bool ZBIAPStoreApple::canPurchaseProduct(const ZBIAPStoreProductPtr& product) {
  return skProductOf(product) != nullptr;
}

// ----- Self-retention -----

void ZBIAPStoreApple::retainSelf() {
  std::lock_guard<std::recursive_mutex> guard(recursiveLock_);
  ZBIAP_LOG(logger_, "Retain {}", fmt::ptr(this));
  retainingArray_.push_back(shared_from_this());
}

void ZBIAPStoreApple::releaseSelf() {
  std::shared_ptr<ZBIAPStoreApple> held;
  {
    std::lock_guard<std::recursive_mutex> guard(recursiveLock_);
    if (retainingArray_.empty()) {
      zbiap::Platform::current().systemLog(
          "ZBIAPStoreApple: releaseSelf without a matching retainSelf (programming error)");
      return;
    }
    held = std::move(retainingArray_.front());
    retainingArray_.erase(retainingArray_.begin());
  }
  ZBIAP_LOG(logger_, "Release {}", fmt::ptr(this));
  // `held` goes last: the store may end here, after its lock was given back.
}

void ZBIAPStoreApple::addProductsRequest(const std::shared_ptr<SKProductsRequest>& request) {
  std::lock_guard<std::recursive_mutex> guard(recursiveLock_);
  for (const auto& pending : pendingProductsRequest_) {
    if (pending == request) return;
  }
  pendingProductsRequest_.push_back(request);
  retainSelf();
}

void ZBIAPStoreApple::removeProductsRequest(const std::shared_ptr<SKRequest>& request) {
  bool removed = false;
  {
    std::lock_guard<std::recursive_mutex> guard(recursiveLock_);
    for (auto it = pendingProductsRequest_.begin(); it != pendingProductsRequest_.end(); ++it) {
      if (*it == request) {
        pendingProductsRequest_.erase(it);
        removed = true;
        break;
      }
    }
  }
  if (removed) releaseSelf();
}

// ----- Country and products -----

void ZBIAPStoreApple::queryStoreCountryWithProductIdentifier(const std::string& productIdentifier,
                                                             CountryCompletion completion) {
  const std::string known = countryCode();
  if (!known.empty()) {
    ZBIAP_LOG(logger_, "Query country code: we already know the country code ({}).", known);
    if (completion) completion(known, nullptr);
    return;
  }
  if (productIdentifier.empty()) {
    ZBIAP_LOG(logger_, "Query country code called without a product info!");
    if (completion) completion(std::nullopt, error(ZBIAPStoreErrorInvalidArgument));
    return;
  }
  auto request = SKProductsRequest::initWithProductIdentifiers({productIdentifier});
  request->setDelegate(std::static_pointer_cast<SKProductsRequestDelegate>(shared_from_this()));
  if (completion) {
    request->setAssociatedObject(&kQueryStoreCountryCompletionBlockToken,
                                 std::make_shared<CountryCompletion>(std::move(completion)));
  }
  request->start();
  ZBIAP_LOG(logger_, "Querying store country with product '{}': {}", productIdentifier,
            request->description());
  addProductsRequest(request);
}

void ZBIAPStoreApple::queryProducts(const std::vector<std::string>& productIdentifiers,
                                    ProductsCompletion completion) {
  if (productIdentifiers.empty()) {
    ZBIAP_LOG(logger_, "Query products: empty product list!");
    if (completion) completion({}, error(ZBIAPStoreErrorInvalidArgument));
    return;
  }
  std::set<std::string> identifiers;
  for (const std::string& identifier : productIdentifiers) {
    if (!identifier.empty()) identifiers.insert(identifier);
  }
  if (identifiers.empty()) {
    ZBIAP_LOG(logger_, "Query products: no product with identifier in list!");
    if (completion) completion({}, error(ZBIAPStoreErrorInvalidArgument));
    return;
  }
  auto request = SKProductsRequest::initWithProductIdentifiers(identifiers);
  request->setDelegate(std::static_pointer_cast<SKProductsRequestDelegate>(shared_from_this()));
  if (completion) {
    request->setAssociatedObject(&kQueryProductsCompletionBlockToken,
                                 std::make_shared<ProductsCompletion>(std::move(completion)));
  }
  request->start();
  ZBIAP_LOG(logger_, "Querying products ({}): {{({})}}", request->description(),
            fmt::join(identifiers, ", "));
  addProductsRequest(request);
}

std::optional<std::string> ZBIAPStoreApple::locked_deriveCountry(
    const SKProductsResponse& response) {
  if (response.products().empty()) return std::nullopt;
  const std::string code = zbiap::countryCodeOfLocale(response.products().front()->priceLocale());
  ZBIAP_LOG(logger_, "Store country code is '{}'.", code);
  if (countryCode_.empty() && !code.empty()) {
    countryCode_ = code;
    if (auto delegate = storeDelegate_.lock()) delegate->store(*this, code);
  }
  if (code.empty()) return std::nullopt;
  return code;
}

void ZBIAPStoreApple::productsRequest(const std::shared_ptr<SKProductsRequest>& request,
                                      const std::shared_ptr<const SKProductsResponse>& response) {
  ZBIAP_LOG(logger_, "Products request {} did receive response {}.", request->description(),
            response->description());
  std::lock_guard<std::recursive_mutex> guard(recursiveLock_);
  auto country = std::static_pointer_cast<CountryCompletion>(
      request->associatedObject(&kQueryStoreCountryCompletionBlockToken));
  auto products = std::static_pointer_cast<ProductsCompletion>(
      request->associatedObject(&kQueryProductsCompletionBlockToken));
  const auto& invalid = response->invalidProductIdentifiers();

  if (country) {
    if (!invalid.empty()) {
      ZBIAP_LOG(logger_,
                "App Store reports invalid product identifiers while querying the country: {}",
                fmt::join(invalid, ", "));
      (*country)(std::nullopt, error(ZBIAPStoreErrorInvalidArgument));
    }
    if (!response->products().empty()) {
      std::optional<std::string> code = locked_deriveCountry(*response);
      (*country)(code, nullptr);
      request->setAssociatedObject(&kQueryStoreCountryCompletionBlockToken, nullptr);
    }
    return;
  }
  if (products) {
    ZBIAPErrorPtr failure;
    if (!invalid.empty()) {
      if (!response->products().empty()) {
        ZBIAP_LOG(logger_,
                  "App Store reports invalid product identifiers while querying products "
                  "(informational): {}",
                  fmt::join(invalid, ", "));
      } else {
        ZBIAP_LOG(logger_, "The store reported that all {} product identifiers are invalid: {}",
                  invalid.size(), fmt::join(invalid, ", "));
        failure = error(ZBIAPStoreErrorInvalidArgument);
      }
    }
    if (countryCode_.empty() && !response->products().empty()) locked_deriveCountry(*response);
    std::vector<ZBIAPStoreProductPtr> result;
    if (!failure) {
      for (const auto& product : response->products()) result.push_back(storeProductFor(product));
    }
    (*products)(std::move(result), failure);
    request->setAssociatedObject(&kQueryProductsCompletionBlockToken, nullptr);
    return;
  }
  ZBIAP_LOG(logger_,
            "Received a products request response without an associated completion block.");
  if (countryCode_.empty() && !response->products().empty()) locked_deriveCountry(*response);
}

void ZBIAPStoreApple::requestDidFinish(const std::shared_ptr<SKRequest>& request) {
  ZBIAP_LOG(logger_, "Products request {} did finish.", request->description());
  updateReceipt();
  if (std::dynamic_pointer_cast<SKProductsRequest>(request)) {
    removeProductsRequest(request);
    return;
  }
  if (!std::dynamic_pointer_cast<SKReceiptRefreshRequest>(request)) return;
  {
    std::lock_guard<std::recursive_mutex> guard(recursiveLock_);
    pendingRefreshReceiptRequest_ = nullptr;
    if (SuccessCompletion completion = std::exchange(pendingRefreshReceiptCompletion_, nullptr)) {
      completion(true, nullptr);
    }
  }
  releaseSelf();
}

void ZBIAPStoreApple::request(const std::shared_ptr<SKRequest>& request, ZBIAPErrorPtr error) {
  ZBIAP_LOG(logger_, "Products request {} did fail with error {}", request->description(),
            describe(error));
  if (auto country = std::static_pointer_cast<CountryCompletion>(
          request->associatedObject(&kQueryStoreCountryCompletionBlockToken))) {
    (*country)(std::nullopt, wrapError(error));
  }
  if (auto products = std::static_pointer_cast<ProductsCompletion>(
          request->associatedObject(&kQueryProductsCompletionBlockToken))) {
    (*products)({}, wrapError(error));
  }
  if (std::dynamic_pointer_cast<SKProductsRequest>(request)) {
    removeProductsRequest(request);
    return;
  }
  if (!std::dynamic_pointer_cast<SKReceiptRefreshRequest>(request)) return;
  {
    std::lock_guard<std::recursive_mutex> guard(recursiveLock_);
    pendingRefreshReceiptRequest_ = nullptr;
    if (SuccessCompletion completion = std::exchange(pendingRefreshReceiptCompletion_, nullptr)) {
      completion(false, wrapError(error));
    }
  }
  releaseSelf();
}

// ----- Purchases -----

void ZBIAPStoreApple::purchaseProduct(const ZBIAPStoreProductPtr& product,
                                      SuccessCompletion completion) {
  SKProductPtr skProduct = skProductOf(product);
  if (!skProduct) {
    ZBIAP_LOG(logger_, "Purchase product: invalid argument!");
    if (completion) completion(false, error(ZBIAPStoreErrorInvalidArgument));
    return;
  }
  if (!SKPaymentQueue::canMakePayments()) {
    ZBIAP_LOG(logger_, "Purchase product: store cannot make payments.");
    if (completion) completion(false, error(ZBIAPStoreErrorCannotMakePayments));
    return;
  }
  const std::string& identifier = skProduct->productIdentifier();
  lock();
  if (pendingPurchaseRequests_.contains(identifier)) {
    unlock();
    ZBIAP_LOG(logger_, "Purchase product: a request for {} is still in flight.", identifier);
    if (completion) completion(false, error(ZBIAPStoreErrorRequestInFlight));
    return;
  }
  pendingPurchaseRequests_[identifier] = std::move(completion);
  retainSelf();
  unlock();
  ZBIAP_LOG(logger_, "Purchasing product: {}", skProduct->description());
  SKPaymentQueue::defaultQueue()->addPayment(SKPayment::paymentWithProduct(skProduct));
}

void ZBIAPStoreApple::paymentQueue(SKPaymentQueue& queue,
                                   const std::vector<SKPaymentTransactionPtr>& transactions) {
  size_t releases = 0;
  for (const auto& transaction : transactions) {
    const std::string transactionID = orNull(transaction->transactionIdentifier());
    const std::string& productID = transaction->payment()->productIdentifier();
    bool success = false;
    switch (transaction->transactionState()) {
      case SKPaymentTransactionStatePurchasing:
        ZBIAP_LOG(logger_, "Payment transaction {} for {}: purchasing.", transactionID, productID);
        continue;
      case SKPaymentTransactionStateDeferred:
        ZBIAP_LOG(logger_, "Payment transaction {} for {}: deferred.", transactionID, productID);
        continue;
      case SKPaymentTransactionStatePurchased:
        ZBIAP_LOG(logger_, "Payment transaction {} for {}: purchased.", transactionID, productID);
        success = true;
        break;
      case SKPaymentTransactionStateFailed:
        ZBIAP_LOG(logger_, "Payment transaction {} for {}: failed with error: {}", transactionID,
                  productID, describe(transaction->error()));
        break;
      case SKPaymentTransactionStateRestored: {
        const auto& original = transaction->originalTransaction();
        ZBIAP_LOG(logger_, "Payment transaction {} for {}: restored (original transaction {}).",
                  transactionID, productID,
                  original ? orNull(original->transactionIdentifier()) : "(null)");
        success = true;
        break;
      }
      default:
        continue;
    }
    SuccessCompletion completion;
    {
      std::lock_guard<std::recursive_mutex> guard(recursiveLock_);
      auto it = pendingPurchaseRequests_.find(productID);
      if (it != pendingPurchaseRequests_.end()) {
        completion = std::move(it->second);
        pendingPurchaseRequests_.erase(it);
        ++releases;
      }
    }
    updateReceipt();
    if (completion) completion(success, success ? nullptr : wrapError(transaction->error()));
    queue.finishTransaction(transaction);
  }
  for (size_t i = 0; i < releases; ++i) releaseSelf();
}

// ----- Restore and refresh -----

void ZBIAPStoreApple::restorePurchasesWithCompletion(RestoreCompletion completion) {
  lock();
  if (pendingRestoreRequestCompletion_) {
    unlock();
    ZBIAP_LOG(logger_, "Restore purchases already in flight.");
    if (completion)
      completion(ZBIAPStoreRestoreResultFailed, error(ZBIAPStoreErrorRequestInFlight));
    return;
  }
  pendingRestoreRequestCompletion_ = std::move(completion);
  preRestoreInAppPurchases_ = inAppPurchases_;
  retainSelf();
  unlock();
  ZBIAP_LOG(logger_, "Restoring purchases.");
  SKPaymentQueue::defaultQueue()->restoreCompletedTransactions();
}

void ZBIAPStoreApple::paymentQueueRestoreCompletedTransactionsFinished(SKPaymentQueue&) {
  ZBIAP_LOG(logger_, "Restore transactions succeeded.");
  RestoreCompletion completion;
  bool unchanged;
  {
    std::lock_guard<std::recursive_mutex> guard(recursiveLock_);
    completion = std::exchange(pendingRestoreRequestCompletion_, nullptr);
    unchanged = std::equal(inAppPurchases_.begin(), inAppPurchases_.end(),
                           preRestoreInAppPurchases_.begin(), preRestoreInAppPurchases_.end(),
                           [](const auto& a, const auto& b) { return *a == *b; });
    preRestoreInAppPurchases_.clear();
  }
  updateReceipt();
  if (!completion) return;
  completion(unchanged ? ZBIAPStoreRestoreResultUnchanged : ZBIAPStoreRestoreResultChanged,
             nullptr);
  releaseSelf();
}

void ZBIAPStoreApple::paymentQueue(SKPaymentQueue&, ZBIAPErrorPtr error) {
  ZBIAP_LOG(logger_, "Restore transactions failed with error: {}", describe(error));
  RestoreCompletion completion;
  {
    std::lock_guard<std::recursive_mutex> guard(recursiveLock_);
    completion = std::exchange(pendingRestoreRequestCompletion_, nullptr);
  }
  if (!completion) return;
  completion(ZBIAPStoreRestoreResultFailed, wrapError(error));
  releaseSelf();
}

void ZBIAPStoreApple::refreshReceiptWithCompletion(SuccessCompletion completion) {
  lock();
  if (pendingRefreshReceiptCompletion_) {
    unlock();
    ZBIAP_LOG(logger_, "Receipt refresh already in flight.");
    if (completion) completion(false, error(ZBIAPStoreErrorRequestInFlight));
    return;
  }
  pendingRefreshReceiptCompletion_ = std::move(completion);
  retainSelf();
  unlock();
  ZBIAP_LOG(logger_, "Refreshing receipt.");
  auto request = SKReceiptRefreshRequest::initWithReceiptProperties(std::nullopt);
  request->setDelegate(std::static_pointer_cast<SKProductsRequestDelegate>(shared_from_this()));
  request->start();
  std::lock_guard<std::recursive_mutex> guard(recursiveLock_);
  pendingRefreshReceiptRequest_ = std::move(request);
}

#include "zbiap/store/store_morvane.h"

#include <atomic>
#include <string_view>
#include <utility>

#include "foundation/object_lists.h"
#include "store/store_morvane_body.h"
#include "zbiap/platform/http_client.h"
#include "zbiap/platform/platform.h"
#include "zbiap/support/logger.h"

namespace {

constexpr char kLoggerName[] = "ZBIAPStoreMorvane";
constexpr char kLoggerKey[] = "ZBIAPStoreMorvane_LOGGING";
constexpr int kStatusUnauthorized = 401;

using Lock = std::lock_guard<std::recursive_mutex>;

// `base` with `component` appended to its path, as NSURL's URLByAppendingPathComponent: one
// slash between the two, the query and fragment kept after the path, and "/" as the path of a
// URL that has none.
std::string appendPathComponent(std::string_view base, std::string_view component) {
  size_t pathEnd = base.find_first_of("?#");
  if (pathEnd == std::string_view::npos) pathEnd = base.size();
  std::string_view path = base.substr(0, pathEnd);
  std::string_view rest = base.substr(pathEnd);
  std::string url(path);
  if (url.empty() || url.back() != '/') url += '/';
  url += component;
  url += rest;
  return url;
}

}  // namespace

std::shared_ptr<ZBIAPStoreMorvane> ZBIAPStoreMorvane::initWithBaseURL(std::string baseURL) {
  return initWithBaseURL(std::move(baseURL), nullptr);
}

std::shared_ptr<ZBIAPStoreMorvane> ZBIAPStoreMorvane::initWithBaseURL(
    std::string baseURL, std::shared_ptr<zbiap::HttpClient> httpClient) {
  if (!httpClient) httpClient = zbiap::HttpClient::shared();
  return std::shared_ptr<ZBIAPStoreMorvane>(
      new ZBIAPStoreMorvane(std::move(baseURL), std::move(httpClient)));
}

ZBIAPStoreMorvane::ZBIAPStoreMorvane(std::string baseURL,
                                     std::shared_ptr<zbiap::HttpClient> httpClient)
    : baseURL_(std::move(baseURL)),
      urlSession_(std::move(httpClient)),
      logger_(ZBIAPLogger::createWithName(kLoggerName, kLoggerKey)) {}

ZBIAPStoreMorvane::~ZBIAPStoreMorvane() = default;

std::string ZBIAPStoreMorvane::productsURL() const {
  return appendPathComponent(baseURL_, kProductsPath);
}

// ---- Delegates and properties ----------------------------------------------------------------

std::shared_ptr<ZBIAPStoreMorvaneDelegate> ZBIAPStoreMorvane::morvaneStoreDelegate() const {
  std::lock_guard lock(delegateMutex_);
  return morvaneStoreDelegate_.lock();
}

void ZBIAPStoreMorvane::setMorvaneStoreDelegate(std::weak_ptr<ZBIAPStoreMorvaneDelegate> delegate) {
  bool hasDelegate = !delegate.expired();
  {
    std::lock_guard lock(delegateMutex_);
    morvaneStoreDelegate_ = std::move(delegate);
  }
  if (!hasDelegate) return;
  uint64_t generation;
  {
    Lock lock(lock_);
    if (inAppPurchases_ && !inAppPurchases_->empty()) return;
    generation = listGeneration_;
  }
  private_readIAPs(generation);
}

std::shared_ptr<ZBIAPStoreDelegate> ZBIAPStoreMorvane::storeDelegate() const {
  std::lock_guard lock(delegateMutex_);
  return storeDelegate_.lock();
}

void ZBIAPStoreMorvane::setStoreDelegate(std::weak_ptr<ZBIAPStoreDelegate> delegate) {
  std::lock_guard lock(delegateMutex_);
  storeDelegate_ = std::move(delegate);
}

std::shared_ptr<ZBIAPManager> ZBIAPStoreMorvane::manager() const {
  std::lock_guard lock(delegateMutex_);
  return manager_.lock();
}

void ZBIAPStoreMorvane::setManager(std::weak_ptr<ZBIAPManager> manager) {
  std::lock_guard lock(delegateMutex_);
  manager_ = std::move(manager);
}

bool ZBIAPStoreMorvane::isExistingCustomer() const {
  Lock lock(lock_);
  return isExistingCustomer_;
}

std::optional<zbiap::Date> ZBIAPStoreMorvane::originalPurchaseDate() const { return std::nullopt; }

std::optional<std::string> ZBIAPStoreMorvane::originalPurchaseVersion() const {
  return std::nullopt;
}

std::vector<ZBIAPReceiptIAPPtr> ZBIAPStoreMorvane::inAppPurchases() const {
  Lock lock(lock_);
  return inAppPurchases_.value_or(std::vector<ZBIAPReceiptIAPPtr>());
}

// ---- The store interface ---------------------------------------------------------------------

bool ZBIAPStoreMorvane::canPurchaseProduct(const ZBIAPStoreProductPtr& product) {
  (void)product;
  return false;
}

void ZBIAPStoreMorvane::queryStoreCountryWithProductIdentifier(const std::string& productIdentifier,
                                                               CountryCompletion completion) {
  (void)productIdentifier;
  if (std::shared_ptr<ZBIAPStoreDelegate> delegate = storeDelegate()) {
    delegate->store(*this, std::string(kCountryCode));
  }
  if (completion) completion(std::string(kCountryCode), nullptr);
}

void ZBIAPStoreMorvane::queryProducts(const std::vector<std::string>& productIdentifiers,
                                      ProductsCompletion completion) {
  (void)productIdentifiers;
  if (completion) completion({}, nullptr);
}

void ZBIAPStoreMorvane::purchaseProduct(const ZBIAPStoreProductPtr& product,
                                        SuccessCompletion completion) {
  (void)product;
  if (completion) completion(false, zbiap::makeStoreError(ZBIAPStoreErrorCannotMakePayments));
}

void ZBIAPStoreMorvane::restorePurchasesWithCompletion(RestoreCompletion completion) {
  private_getIAPsWithCompletion(std::move(completion), /*isRetry=*/false);
}

void ZBIAPStoreMorvane::refreshReceiptWithCompletion(SuccessCompletion completion) {
  if (completion) completion(true, nullptr);
}

void ZBIAPStoreMorvane::discardInAppPurchases() {
  bool hadPurchases;
  bool wasCustomer;
  {
    Lock lock(lock_);
    wasCustomer = isExistingCustomer_;
    isExistingCustomer_ = false;
    hadPurchases = inAppPurchases_ && !inAppPurchases_->empty();
    if (hadPurchases) {
      inAppPurchases_.emplace();
      ++listGeneration_;
      private_saveIAPs();
    }
  }
  if (!hadPurchases && !wasCustomer) return;
  if (std::shared_ptr<ZBIAPStoreDelegate> delegate = storeDelegate()) {
    delegate->storeDidUpdateInformations(*this);
  }
}

// ---- Querying the account server -------------------------------------------------------------

void ZBIAPStoreMorvane::private_getIAPsWithCompletion(RestoreCompletion completion, bool isRetry) {
  std::shared_ptr<ZBIAPStoreMorvaneDelegate> delegate = morvaneStoreDelegate();
  if (!delegate) {
    ZBIAP_LOG(logger_, "Querying IAPs without additional headers.");
    private_getIAPsWithAddtionalHeaders({}, std::move(completion), isRetry);
    return;
  }
  if (!delegate->shouldQueryInAppPurchasesForStore(*this)) {
    zbiap::runOnMainThread([completion = std::move(completion)] {
      if (completion) completion(ZBIAPStoreRestoreResultUnchanged, nullptr);
    });
    return;
  }
  // A delegate that answers twice does not start a second request.
  auto answered = std::make_shared<std::atomic<bool>>(false);
  delegate->store(
      *this, isRetry,
      [self = shared_from_this(), completion = std::move(completion), isRetry, answered](
          ZBIAPStoreMorvaneHeaders headers, ZBIAPErrorPtr error) mutable {
        if (answered->exchange(true)) return;
        zbiap::runOnMainThread([self, completion = std::move(completion), isRetry,
                         headers = std::move(headers), error = std::move(error)] {
          if (error) {
            ZBIAP_LOG(self->logger_, "Failed to get additional headers: {}", error->description());
            if (completion) completion(ZBIAPStoreRestoreResultFailed, private_wrapError(error));
            return;
          }
          ZBIAP_LOG(self->logger_, "Querying IAPs with {} additional header(s).", headers.size());
          self->private_getIAPsWithAddtionalHeaders(headers, completion, isRetry);
        });
      });
}

void ZBIAPStoreMorvane::private_getIAPsWithAddtionalHeaders(const ZBIAPStoreMorvaneHeaders& headers,
                                                            RestoreCompletion completion,
                                                            bool isRetry) {
  zbiap::HttpRequest request;
  request.url = productsURL();
  request.headers.emplace_back("Accept", "application/json");
  for (const auto& [name, value] : headers) request.addHeaderValue(name, value);

  urlSession_->send(
      std::move(request),
      [self = shared_from_this(), completion = std::move(completion), isRetry](
          std::shared_ptr<const zbiap::HttpResponse> response, ZBIAPErrorPtr error) mutable {
        zbiap::runOnMainThread([self, completion = std::move(completion), isRetry,
                         response = std::move(response), error = std::move(error)] {
          if (error) {
            ZBIAP_LOG(self->logger_, "Querying IAPs failed: {}", error->description());
            if (completion) completion(ZBIAPStoreRestoreResultFailed, private_wrapError(error));
            return;
          }
          if (!response) {
            ZBIAP_LOG(self->logger_, "Response is not a HTTP response.");
            if (completion) completion(ZBIAPStoreRestoreResultFailed, private_wrapError(nullptr));
            return;
          }
          int status = response->statusCode;
          if (status >= 200 && status <= 299) {
            self->private_getIAPsWithData(response->bodyText(), completion);
          } else if (status == kStatusUnauthorized && !isRetry) {
            self->private_getIAPsWithCompletion(completion, /*isRetry=*/true);
          } else {
            ZBIAP_LOG(self->logger_, "Got failure response code {}.", status);
            if (completion) completion(ZBIAPStoreRestoreResultFailed, private_wrapError(nullptr));
          }
        });
      });
}

void ZBIAPStoreMorvane::private_getIAPsWithData(std::string_view data,
                                                const RestoreCompletion& completion) {
  zbiap::AccountBodyFailure failure;
  std::optional<zbiap::AccountProductsBody> body = zbiap::parseAccountProductsBody(data, &failure);
  if (!body) {
    ZBIAP_LOG_MESSAGE(logger_, failure.message);
    if (completion) {
      completion(ZBIAPStoreRestoreResultFailed, private_wrapError(std::move(failure.underlying)));
    }
    return;
  }

  bool changed;
  {
    Lock lock(lock_);
    bool listChanged = !zbiap::sameObjects(inAppPurchases_, body->inAppPurchases);
    changed = listChanged || isExistingCustomer_ != body->isExistingCustomer;
    isExistingCustomer_ = body->isExistingCustomer;
    inAppPurchases_ = body->inAppPurchases;
    ++listGeneration_;
    if (changed) private_saveIAPs();
  }
  if (changed) {
    ZBIAP_LOG(logger_, "Got products (did change): {}", zbiap::describeObjects(body->inAppPurchases));
    if (std::shared_ptr<ZBIAPStoreDelegate> delegate = storeDelegate()) {
      delegate->storeDidUpdateInformations(*this);
    }
    if (completion) completion(ZBIAPStoreRestoreResultChanged, nullptr);
  } else if (completion) {
    ZBIAP_LOG(logger_, "Got products (no change): {}", zbiap::describeObjects(body->inAppPurchases));
    completion(ZBIAPStoreRestoreResultUnchanged, nullptr);
  }
}

// ---- Keeping the list ------------------------------------------------------------------------

void ZBIAPStoreMorvane::private_saveIAPs() {
  std::shared_ptr<ZBIAPStoreMorvaneDelegate> delegate = morvaneStoreDelegate();
  if (!delegate) return;
  zbiap::Array dictionaries;
  if (inAppPurchases_) {
    dictionaries.reserve(inAppPurchases_->size());
    for (const ZBIAPReceiptIAPPtr& iap : *inAppPurchases_) {
      dictionaries.emplace_back(iap->dictionaryRepresentation());
    }
  }
  delegate->store(*this, dictionaries);
}

void ZBIAPStoreMorvane::private_readIAPs(uint64_t generation) {
  std::shared_ptr<ZBIAPStoreMorvaneDelegate> delegate = morvaneStoreDelegate();
  if (!delegate) return;
  zbiap::Value saved = delegate->readInAppPurchasesForStore(*this);
  const zbiap::Array* array = saved.asArray();
  if (array == nullptr) return;
  std::vector<ZBIAPReceiptIAPPtr> purchases;
  purchases.reserve(array->size());
  for (const zbiap::Value& element : *array) {
    const zbiap::Dictionary* dictionary = element.asDictionary();
    if (dictionary == nullptr) continue;
    if (ZBIAPReceiptIAPPtr iap =
            ZBIAPReceiptIAP::initWithDictionaryRepresentation(*dictionary, /*fromAppleStore=*/false)) {
      purchases.push_back(std::move(iap));
    }
  }
  Lock lock(lock_);
  if (listGeneration_ != generation) return;
  inAppPurchases_ = std::move(purchases);
  ++listGeneration_;
}

ZBIAPErrorPtr ZBIAPStoreMorvane::private_wrapError(ZBIAPErrorPtr error) {
  return zbiap::makeStoreError(ZBIAPStoreErrorOther, std::move(error));
}

// The manager's life: construction, the start-up steps, the state machine and the query
// counter. The catalogue merge lives in manager_catalog.cc, persistence in
// manager_persistence.cc, the sort in manager_sort.cc.
#include "zbiap/manager/manager.h"

#include <chrono>
#include <utility>

#include "manager/manager_internal.h"
#include "zbiap/platform/notification_center.h"
#include "zbiap/platform/platform.h"
#include "zbiap/support/logger.h"

namespace {

using zbiap::manager_internal::describe;
using Lock = std::lock_guard<std::recursive_mutex>;

constexpr auto kCountryQuerySoftTimeout = std::chrono::seconds(10);
constexpr auto kCatalogueRetryDelay = std::chrono::seconds(60);
// The POSIX time-out code as the platform that defined the soft time-out numbers it.
constexpr int64_t kPOSIXTimedOutCode = 60;

bool isReadyState(int64_t state) {
  return state == ZBIAPManagerStateReadyNoProductInfos ||
         state == ZBIAPManagerStateReadyProductInfos ||
         state == ZBIAPManagerStateReadyStoreProducts;
}

}  // namespace

std::shared_ptr<ZBIAPManager> ZBIAPManager::initWithConfiguration(
    std::shared_ptr<ZBIAPManagerConfiguration> configuration) {
  if (!configuration) {
    zbiap::Platform::current().systemLog("No valid configuration provided to ZBIAPManager!");
    return nullptr;
  }
  return std::shared_ptr<ZBIAPManager>(new ZBIAPManager(std::move(configuration)));
}

ZBIAPManager::ZBIAPManager(std::shared_ptr<ZBIAPManagerConfiguration> configuration)
    : configuration_(std::move(configuration)),
      logger_(ZBIAPLogger::createWithName("ZBIAPManager", "ZBIAPMANAGER_LOGGING")) {}

ZBIAPManager::~ZBIAPManager() = default;

void ZBIAPManager::runOnMainThread(std::function<void()> block) {
  zbiap::runOnMainThread(std::move(block));
}

// ---- Start-up --------------------------------------------------------------------------------

void ZBIAPManager::commitConfiguration() {
  zbiap::MainQueue& queue = zbiap::Platform::current().mainQueue();
  if (!queue.isMainThread()) {
    queue.post([self = shared_from_this()] { self->commitConfiguration(); });
    return;
  }
  {
    Lock lock(mutex_);
    if (state() != ZBIAPManagerStateNotConfigured) {
      ZBIAP_LOG(logger_,
                "Commit configuration called even though the manager is already "
                "configured.");
      return;
    }
    locked_updateState(ZBIAPManagerStateConfiguring);
  }
  ZBIAP_LOG(logger_, "Committing configuration.");

  bool restored;
  const std::shared_ptr<ZBIAPStore>& store = configuration_->store();
  const std::shared_ptr<ZBIAPProductInfoFetcher>& fetcher = configuration_->fetcher();
  // The store is asked outside the manager's lock: the store tells its delegate of the country
  // with its own lock held, and the manager takes its lock inside that notice, so taking the
  // store's lock inside the manager's would order the two locks both ways.
  fetcher->setOwner(weak_from_this());
  std::vector<ZBIAPReceiptIAPPtr> purchases = store->inAppPurchases();
  std::optional<zbiap::Date> originalPurchaseDate = store->originalPurchaseDate();
  std::optional<std::string> originalPurchaseVersion = store->originalPurchaseVersion();
  {
    Lock lock(mutex_);
    inAppPurchases_ = std::move(purchases);
    cachedOriginalPurchaseDate_ = std::move(originalPurchaseDate);
    cachedOriginalPurchaseVersion_ = std::move(originalPurchaseVersion);
  }
  // The manager is the store's delegate and manager before the saved catalogue comes back: a
  // store that reports its country as soon as it has a delegate is heard first, and a store
  // that reads the manager when it is given one does not see the saved catalogue yet.
  store->setStoreDelegate(weak_from_this());
  store->setManager(weak_from_this());
  {
    Lock lock(mutex_);
    restored = locked_restoreProductInfosAndBaselineFeatures();
  }

  if (!restored) {
    auto self = shared_from_this();
    fetcher->fetchWithSuccess(
        [self](std::shared_ptr<ZBIAPProductInfoResponse> response) {
          runOnMainThread([self, response] {
            {
              Lock lock(self->mutex_);
              if (self->state() == ZBIAPManagerStateConfiguring) self->locked_updateReadyState();
            }
            self->updateDynamicProductInfosWithResponse(response);
          });
        },
        [self](ZBIAPErrorPtr error) {
          ZBIAP_LOG(self->logger_, "Loading local product infos failed with error: {}",
                    describe(error));
        },
        true);
  }
  configurationStepQueryAppStoreCountry();
}

void ZBIAPManager::configurationStepQueryAppStoreCountry() {
  ZBIAP_LOG(logger_, "Configuration step query App Store country.");
  std::string product;
  {
    Lock lock(mutex_);
    if (appStoreCountry_) {
      ZBIAP_LOG(logger_,
                "Configuration step query App Store country: we already know the country ({}).",
                *appStoreCountry_);
    } else if (configuration_->appStoreCountryProduct().empty()) {
      ZBIAP_LOG(logger_, "Configuration step query App Store country: no product registered!");
    } else {
      product = configuration_->appStoreCountryProduct();
      locked_increaseQueryCounter();
    }
  }
  if (product.empty()) {
    ZBIAP_LOG(logger_, "Configuration step query App Store country: skipping to next step.");
    configurationStepQueryDynamicProductInfos();
    return;
  }
  ZBIAP_LOG(logger_, "Configuration step query App Store country: querying {}.", product);

  // One callback for the store's answer and the soft time-out; whichever comes first ends the
  // step, and the counter drops exactly once however often it runs.
  auto self = shared_from_this();
  auto counted = std::make_shared<bool>(false);
  ZBIAPStore::CountryCompletion callback = [self, counted](std::optional<std::string> code,
                                                           ZBIAPErrorPtr error) {
    runOnMainThread([self, counted, code = std::move(code), error = std::move(error)] {
      if (code) {
        self->updateCountryCode(code);
      } else {
        ZBIAP_LOG(self->logger_, "Querying the store country failed with error: {}",
                  describe(error));
      }
      {
        Lock lock(self->mutex_);
        if (!*counted) {
          self->locked_decreaseQueryCounter();
          *counted = true;
        }
      }
      if (!self->hasPassedConfigurationStepQueryAppStoreCountry_) {
        self->hasPassedConfigurationStepQueryAppStoreCountry_ = true;
        self->configurationStepQueryDynamicProductInfos();
      }
    });
  };
  configuration_->store()->queryStoreCountryWithProductIdentifier(product, callback);
  zbiap::Platform::current().mainQueue().postAfter(kCountryQuerySoftTimeout, [self, callback] {
    if (self->hasPassedConfigurationStepQueryAppStoreCountry_) return;
    ZBIAP_LOG(self->logger_, "Querying the App Store country timed out (soft)!");
    callback(std::nullopt, ZBIAPError::make(zbiap::kNSPOSIXErrorDomain, kPOSIXTimedOutCode));
  });
}

void ZBIAPManager::configurationStepQueryDynamicProductInfos() {
  ZBIAP_LOG(logger_, "Configuration step query Dynamic Product Infos.");
  queryDynamicProductInfos();
}

void ZBIAPManager::queryDynamicProductInfos() {
  ZBIAP_LOG(logger_, "Querying Dynamic Product Infos.");
  std::shared_ptr<ZBIAPProductInfoFetcher> fetcher;
  {
    Lock lock(mutex_);
    fetcher = configuration_->fetcher();
    locked_increaseQueryCounter();
  }
  auto self = shared_from_this();
  auto finish = [self] {
    Lock lock(self->mutex_);
    if (self->state() == ZBIAPManagerStateConfiguring) self->locked_updateReadyState();
    self->locked_decreaseQueryCounter();
  };
  fetcher->fetchWithSuccess(
      [self, finish](std::shared_ptr<ZBIAPProductInfoResponse> response) {
        runOnMainThread([self, finish, response] {
          self->updateDynamicProductInfosWithResponse(response);
          finish();
        });
      },
      [self, finish](ZBIAPErrorPtr error) {
        ZBIAP_LOG(self->logger_, "Error querying Dynamic Product Infos: {}", describe(error));
        zbiap::Platform::current().mainQueue().postAfter(
            kCatalogueRetryDelay, [self] { self->queryDynamicProductInfos(); });
        runOnMainThread(finish);
      });
}

void ZBIAPManager::updateCountryCode(const std::optional<std::string>& code) {
  if (!code || code->empty()) return;
  Lock lock(mutex_);
  if (appStoreCountry_ == code) return;
  ZBIAP_LOG(logger_, "Updating the store's country to '{}'.", *code);
  appStoreCountry_ = code;
  if (isReady()) queryDynamicProductInfos();
}

void ZBIAPManager::store(ZBIAPStore& store, const std::optional<std::string>& countryCode) {
  runOnMainThread(
      [self = shared_from_this(), countryCode] { self->updateCountryCode(countryCode); });
}

// ---- State and counter -----------------------------------------------------------------------

bool ZBIAPManager::isReady() const { return isReadyState(state_.load()); }

bool ZBIAPManager::isQuerying() const {
  Lock lock(mutex_);
  return queryCounter_ != 0;
}

void ZBIAPManager::locked_updateReadyState() {
  int64_t newState;
  if (!dynamicProductInfos_ || dynamicProductInfos_->empty()) {
    newState = ZBIAPManagerStateReadyNoProductInfos;
  } else if (!dynamicProductInfosWithStoreProducts_ ||
             dynamicProductInfosWithStoreProducts_->empty()) {
    newState = ZBIAPManagerStateReadyProductInfos;
  } else {
    newState = ZBIAPManagerStateReadyStoreProducts;
  }
  locked_updateState(newState);
}

void ZBIAPManager::locked_updateState(int64_t newState) {
  const int64_t oldState = state_.load();
  if (oldState == newState) return;
  const bool wasReady = isReadyState(oldState);
  state_.store(newState);
  const bool ready = isReadyState(newState);
  stateObservers_.notify(oldState, newState);
  readyObservers_.notify(wasReady, ready);
  auto& center = zbiap::NotificationCenter::defaultCenter();
  center.post(ZBIAPManagerDidUpdateStateNotification, this);
  if (!wasReady && ready) center.post(ZBIAPManagerDidBecomeReadyStateNotification, this);
}

void ZBIAPManager::locked_increaseQueryCounter() {
  const int64_t old = queryCounter_;
  queryCounter_ = old + 1;
  queryCounterObservers_.notify(old, queryCounter_);
  queryingObservers_.notify(old != 0, queryCounter_ != 0);
}

void ZBIAPManager::locked_decreaseQueryCounter() {
  const int64_t old = queryCounter_;
  queryCounter_ = old - 1;
  queryCounterObservers_.notify(old, queryCounter_);
  queryingObservers_.notify(old != 0, queryCounter_ != 0);
}

// ---- Properties ------------------------------------------------------------------------------

int64_t ZBIAPManager::queryCounter() const {
  Lock lock(mutex_);
  return queryCounter_;
}

ZBIAPManager::ProductInfos ZBIAPManager::dynamicProductInfos() const {
  Lock lock(mutex_);
  return dynamicProductInfos_.value_or(ProductInfos{});
}

ZBIAPManager::ProductInfos ZBIAPManager::dynamicProductInfosWithStoreProducts() const {
  Lock lock(mutex_);
  return dynamicProductInfosWithStoreProducts_.value_or(ProductInfos{});
}

std::optional<std::string> ZBIAPManager::htmlStoreHeader() const {
  Lock lock(mutex_);
  return htmlStoreHeader_;
}

std::optional<zbiap::Dictionary> ZBIAPManager::featureGroups() const {
  Lock lock(mutex_);
  return featureGroups_;
}

std::optional<ZBIAPManager::FeatureSet> ZBIAPManager::baselineFeatureMetadata() const {
  Lock lock(mutex_);
  return baselineFeatureMetadata_;
}

std::optional<std::string> ZBIAPManager::appStoreCountry() const {
  Lock lock(mutex_);
  return appStoreCountry_;
}

std::map<std::string, ZBIAPStoreProductPtr> ZBIAPManager::storeProductMap() const {
  Lock lock(mutex_);
  return storeProductMap_.value_or(std::map<std::string, ZBIAPStoreProductPtr>{});
}

std::vector<ZBIAPReceiptIAPPtr> ZBIAPManager::inAppPurchases() const {
  Lock lock(mutex_);
  return inAppPurchases_.value_or(std::vector<ZBIAPReceiptIAPPtr>{});
}

std::optional<zbiap::Date> ZBIAPManager::cachedOriginalPurchaseDate() const {
  Lock lock(mutex_);
  return cachedOriginalPurchaseDate_;
}

std::optional<std::string> ZBIAPManager::cachedOriginalPurchaseVersion() const {
  Lock lock(mutex_);
  return cachedOriginalPurchaseVersion_;
}

std::optional<std::string> ZBIAPManager::appStoreFallbackCountryCode() const {
  return configuration_->appStoreFallbackCountryCode();
}

std::shared_ptr<ZBIAPStore> ZBIAPManager::storeForRequests() const {
  return configuration_->store();
}

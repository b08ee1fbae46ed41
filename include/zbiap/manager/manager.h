// ZBIAPManager: the one object a host application creates to learn the App Store country, keep
// the catalogue of dynamic product infos (DPIs) with their store products, and follow the
// store's purchases.
//
// Contracts: create() returns null for a null configuration. The manager does its work, changes
// its state and posts its notifications (on zbiap::NotificationCenter::defaultCenter(), with the
// manager as object) on the platform's main queue; store and fetcher callbacks are moved there.
// Property getters may be called from any thread. The manager owns its configuration (and so the
// store and fetcher); the store and fetcher hold the manager weakly, but a query or timer in
// flight keeps it alive until it ends. Observer lists are called synchronously by the setters.
#ifndef ZBIAP_MANAGER_MANAGER_H_
#define ZBIAP_MANAGER_MANAGER_H_

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "zbiap/catalog/product_info.h"
#include "zbiap/catalog/product_info_fetcher.h"
#include "zbiap/catalog/product_info_response.h"
#include "zbiap/export.h"
#include "zbiap/foundation/date.h"
#include "zbiap/foundation/error.h"
#include "zbiap/foundation/value.h"
#include "zbiap/manager/manager_configuration.h"
#include "zbiap/platform/observer_list.h"
#include "zbiap/store/store.h"

class ZBIAPLogger;

// The manager's states; the values are part of the interface.
enum ZBIAPManagerState : int64_t {
  ZBIAPManagerStateNotConfigured = 0,        // commitConfiguration not yet called
  ZBIAPManagerStateConfiguring = 1,          // committed, start-up not finished
  ZBIAPManagerStateReadyNoProductInfos = 2,  // ready, the catalogue is empty
  ZBIAPManagerStateReadyProductInfos = 3,    // ready, no DPI has a store product yet
  ZBIAPManagerStateReadyStoreProducts = 4,   // ready, some DPI has a store product
};

inline constexpr char ZBIAPManagerDidUpdateStateNotification[] =
    "ZBIAPManagerDidUpdateStateNotification";
inline constexpr char ZBIAPManagerDidBecomeReadyStateNotification[] =
    "ZBIAPManagerDidBecomeReadyStateNotification";
inline constexpr char ZBIAPManagerDidUpdateDynamicProductInfosNotification[] =
    "ZBIAPManagerDidUpdateDynamicProductInfosNotification";
inline constexpr char ZBIAPManagerStoreDidUpdateNotification[] =
    "ZBIAPManagerStoreDidUpdateNotification";
// The manager's own errors; code 0: the manager is not ready.
inline constexpr char ZBIAPManagerErrorDomain[] = "ZBIAPManagerErrorDomain";

class ZBIAP_EXPORT ZBIAPManager final : public ZBIAPStoreDelegate,
                                        public zbiap::ProductInfoFetcherOwner,
                                        public std::enable_shared_from_this<ZBIAPManager> {
 public:
  using ProductInfoPtr = std::shared_ptr<ZBIAPProductInfo>;
  using ProductInfos = std::vector<ProductInfoPtr>;
  using FeatureSet = zbiap::ProductFeatureSet;
  using Completion = std::function<void(ZBIAPErrorPtr error)>;

  // Null (with a line in the system log) when `configuration` is null. Touches neither the
  // store nor the fetcher.
  static std::shared_ptr<ZBIAPManager> initWithConfiguration(
      std::shared_ptr<ZBIAPManagerConfiguration> configuration);

  ~ZBIAPManager() override;
  ZBIAPManager(const ZBIAPManager&) = delete;
  ZBIAPManager& operator=(const ZBIAPManager&) = delete;

  // Starts the manager: restores the saved catalogue (or loads the bundle's), learns the App
  // Store country, then queries the catalogue. From another thread it is moved to the main
  // queue; a second commit only logs.
  void commitConfiguration();

  // Asks the server for the catalogue again. Not ready: fails at once, on the caller's thread,
  // with ZBIAPManagerErrorDomain code 0. Otherwise the completion runs on the main queue.
  // `completion` may be null.
  void refreshDynamicProductInfosWithCompletion(Completion completion);
  // Asks the store for the products of the active (or upgradable purchased) DPIs and attaches
  // them; the completion runs on the main queue with the store's error. May be null.
  void queryStoreProductsWithCompletion(Completion completion);

  // `dpis` sorted by the duration that follows the first matching prefix of their identifiers
  // ("com.app.sub." + "1m"): shortest first, then those with unreadable durations, then those
  // without a prefix; equal durations by identifier. Any thread.
  static ProductInfos sortDynamicProductInfos(const ProductInfos& dpis,
                                              const std::vector<std::string>& prefixes);

  // Properties.
  int64_t state() const { return state_.load(); }
  bool isReady() const;
  bool isQuerying() const;
  int64_t queryCounter() const;
  const std::shared_ptr<ZBIAPManagerConfiguration>& configuration() const { return configuration_; }
  // The catalogue (empty until one is known).
  ProductInfos dynamicProductInfos() const;
  // The DPIs of the catalogue that have a store product, in catalogue order.
  ProductInfos dynamicProductInfosWithStoreProducts() const;
  std::optional<std::string> htmlStoreHeader() const;
  std::optional<zbiap::Dictionary> featureGroups() const;
  std::optional<FeatureSet> baselineFeatureMetadata() const;
  std::optional<std::string> appStoreCountry() const override;
  // Every store product received so far, by product identifier.
  std::map<std::string, ZBIAPStoreProductPtr> storeProductMap() const;
  std::vector<ZBIAPReceiptIAPPtr> inAppPurchases() const override;
  std::optional<zbiap::Date> cachedOriginalPurchaseDate() const;
  std::optional<std::string> cachedOriginalPurchaseVersion() const;
  // Null when the manager's logging is off.
  const std::shared_ptr<ZBIAPLogger>& logger() const { return logger_; }

  // Observers of the properties: state and queryCounter, and ready and querying, which are
  // told whenever state or queryCounter is set.
  zbiap::ObserverList<int64_t>& stateObservers() { return stateObservers_; }
  zbiap::ObserverList<int64_t>& queryCounterObservers() { return queryCounterObservers_; }
  zbiap::ObserverList<bool>& readyObservers() { return readyObservers_; }
  zbiap::ObserverList<bool>& queryingObservers() { return queryingObservers_; }

  // Takes a new country code: a non-empty code that differs from the current one is kept and,
  // once the manager is ready, starts a catalogue query; nullopt or empty changes nothing. Main
  // queue.
  void updateCountryCode(const std::optional<std::string>& code);
  // Merges a fetched catalogue (null is ignored). Main queue.
  void updateDynamicProductInfosWithResponse(
      const std::shared_ptr<ZBIAPProductInfoResponse>& response);
  // Attaches store products to the catalogue. Main queue.
  void updateStoreProducts(const std::vector<ZBIAPStoreProductPtr>& products);
  // Runs `block` now when called on the main thread, else posts it to the main queue.
  static void runOnMainThread(std::function<void()> block);

  // ZBIAPStoreDelegate; any thread.
  void store(ZBIAPStore& store, const std::optional<std::string>& countryCode) override;
  void storeDidUpdateInformations(ZBIAPStore& store) override;

  // zbiap::ProductInfoFetcherOwner.
  std::optional<std::string> appStoreFallbackCountryCode() const override;
  std::shared_ptr<ZBIAPStore> storeForRequests() const override;

 private:
  explicit ZBIAPManager(std::shared_ptr<ZBIAPManagerConfiguration> configuration);

  void configurationStepQueryAppStoreCountry();
  void configurationStepQueryDynamicProductInfos();
  void queryDynamicProductInfos();

  // The caller holds mutex_.
  void locked_updateState(int64_t newState);
  void locked_updateReadyState();
  void locked_increaseQueryCounter();
  void locked_decreaseQueryCounter();
  void locked_saveProductInfos();
  void locked_saveBaselineFeatures();
  bool locked_restoreProductInfosAndBaselineFeatures();

  // Main thread only.
  bool hasPassedConfigurationStepQueryAppStoreCountry_ = false;

  // "ZBIAPManager Lock": guards every field below.
  mutable std::recursive_mutex mutex_;
  std::atomic<int64_t> state_{ZBIAPManagerStateNotConfigured};
  const std::shared_ptr<ZBIAPManagerConfiguration> configuration_;
  std::optional<ProductInfos> dynamicProductInfos_;
  std::optional<std::string> htmlStoreHeader_;
  std::optional<zbiap::Dictionary> featureGroups_;
  std::optional<FeatureSet> baselineFeatureMetadata_;
  std::optional<std::string> appStoreCountry_;
  std::optional<std::map<std::string, ZBIAPStoreProductPtr>> storeProductMap_;
  const std::shared_ptr<ZBIAPLogger> logger_;
  std::optional<std::vector<ZBIAPReceiptIAPPtr>> inAppPurchases_;
  std::optional<zbiap::Date> cachedOriginalPurchaseDate_;
  std::optional<std::string> cachedOriginalPurchaseVersion_;
  std::optional<ProductInfos> dynamicProductInfosWithStoreProducts_;
  int64_t queryCounter_ = 0;
  // The texts last read from or written to the user defaults, so that saving what is already
  // there (a server repeating its feature list) costs no write.
  std::string savedProductInfosText_;
  std::string savedBaselineFeaturesText_;

  zbiap::ObserverList<int64_t> stateObservers_;
  zbiap::ObserverList<int64_t> queryCounterObservers_;
  zbiap::ObserverList<bool> readyObservers_;
  zbiap::ObserverList<bool> queryingObservers_;
};

#endif  // ZBIAP_MANAGER_MANAGER_H_

// The catalogue side of the manager: merging fetched catalogues, asking the store for the
// catalogue's products and attaching them, refreshing, and taking the store's purchase data.
#include <set>
#include <string_view>
#include <utility>

#include "foundation/object_lists.h"
#include "manager/manager_internal.h"
#include "zbiap/manager/manager.h"
#include "zbiap/platform/notification_center.h"
#include "zbiap/support/logger.h"

namespace {

using zbiap::manager_internal::describe;
using Lock = std::lock_guard<std::recursive_mutex>;

constexpr char kMissingIdentifierMessage[] =
    "Found a Dynamic Product Info without an identifier: {}";

}  // namespace

void ZBIAPManager::updateDynamicProductInfosWithResponse(
    const std::shared_ptr<ZBIAPProductInfoResponse>& response) {
  if (!response) return;
  Lock lock(mutex_);
  if (!htmlStoreHeader_ || htmlStoreHeader_ != response->htmlStoreHeader()) {
    htmlStoreHeader_ = response->htmlStoreHeader();
  }
  if (!featureGroups_ || featureGroups_ != response->featureGroups()) {
    featureGroups_ = response->featureGroups();
  }
  if (!baselineFeatureMetadata_ || baselineFeatureMetadata_ != response->featureSet()) {
    baselineFeatureMetadata_ = response->featureSet();
    locked_saveBaselineFeatures();
  }

  ProductInfos infos = response->productInfos().value_or(ProductInfos{});
  for (const ProductInfoPtr& dpi : infos) {
    if (!dpi) continue;
    if (dpi->productIdentifier().empty()) {
      ZBIAP_LOG(logger_, kMissingIdentifierMessage, describe(dpi));
      continue;
    }
    if (storeProductMap_) {
      auto it = storeProductMap_->find(dpi->productIdentifier());
      if (it != storeProductMap_->end()) dpi->setProduct(it->second);
    }
  }

  if (zbiap::sameObjects(dynamicProductInfos_, infos)) {
    ZBIAP_LOG(logger_, "Successfully queried Dynamic Product Infos: no change.");
    return;
  }
  ZBIAP_LOG(logger_, "Successfully queried Dynamic Product Infos: {}", zbiap::describeObjects(infos));
  dynamicProductInfos_ = std::move(infos);
  locked_saveProductInfos();
  if (isReady()) {
    zbiap::NotificationCenter::defaultCenter().post(
        ZBIAPManagerDidUpdateDynamicProductInfosNotification, this);
  }
  if (state() == ZBIAPManagerStateReadyNoProductInfos) locked_updateReadyState();
  queryStoreProductsWithCompletion(nullptr);
}

void ZBIAPManager::queryStoreProductsWithCompletion(Completion completion) {
  ProductInfos infos;
  std::vector<ZBIAPReceiptIAPPtr> purchases;
  {
    Lock lock(mutex_);
    infos = dynamicProductInfos_.value_or(ProductInfos{});
    purchases = inAppPurchases_.value_or(std::vector<ZBIAPReceiptIAPPtr>{});
    locked_increaseQueryCounter();
  }

  // Products the user holds through an upgradable purchase are asked for even when inactive.
  std::set<std::string_view> upgradable;
  for (const ZBIAPReceiptIAPPtr& purchase : purchases) {
    if (purchase && purchase->upgradable()) upgradable.insert(purchase->productIdentifier());
  }
  std::set<std::string> identifiers;
  for (const ProductInfoPtr& dpi : infos) {
    if (!dpi) continue;
    const bool taken = dpi->active() || upgradable.count(dpi->productIdentifier()) > 0;
    if (!taken) {
      ZBIAP_LOG(logger_, "Skip inactive or Non-Apple Store Dynamic Product Info: {}",
                describe(dpi));
    } else if (dpi->productIdentifier().empty()) {
      ZBIAP_LOG(logger_, kMissingIdentifierMessage, describe(dpi));
    } else {
      identifiers.insert(dpi->productIdentifier());
    }
  }

  auto self = shared_from_this();
  configuration_->store()->queryProducts(
      std::vector<std::string>(identifiers.begin(), identifiers.end()),
      [self, completion = std::move(completion)](std::vector<ZBIAPStoreProductPtr> products,
                                                 ZBIAPErrorPtr error) {
        runOnMainThread(
            [self, completion, products = std::move(products), error = std::move(error)] {
              if (!products.empty()) {
                self->updateStoreProducts(products);
              } else {
                ZBIAP_LOG(self->logger_, "Error querying store products: {}", describe(error));
              }
              {
                Lock lock(self->mutex_);
                self->locked_decreaseQueryCounter();
              }
              if (completion) completion(error);
            });
      });
}

void ZBIAPManager::updateStoreProducts(const std::vector<ZBIAPStoreProductPtr>& products) {
  if (products.empty()) return;
  Lock lock(mutex_);
  std::map<std::string, ZBIAPStoreProductPtr> received;
  for (const ZBIAPStoreProductPtr& product : products) {
    if (product) received[product->productIdentifier()] = product;
  }

  ProductInfos attached;
  for (const ProductInfoPtr& dpi : dynamicProductInfos_.value_or(ProductInfos{})) {
    if (!dpi) continue;
    if (dpi->productIdentifier().empty()) {
      ZBIAP_LOG(logger_, kMissingIdentifierMessage, describe(dpi));
      continue;
    }
    auto it = received.find(dpi->productIdentifier());
    if (it != received.end()) dpi->setProduct(it->second);
    if (dpi->product()) attached.push_back(dpi);
  }

  if (!storeProductMap_) storeProductMap_.emplace();
  for (auto& [identifier, product] : received) (*storeProductMap_)[identifier] = product;

  if (zbiap::sameObjects(dynamicProductInfosWithStoreProducts_, attached)) {
    return;
  }
  dynamicProductInfosWithStoreProducts_ = std::move(attached);
  zbiap::NotificationCenter::defaultCenter().post(
      ZBIAPManagerDidUpdateDynamicProductInfosNotification, this);
  locked_updateReadyState();
}

void ZBIAPManager::refreshDynamicProductInfosWithCompletion(Completion completion) {
  std::shared_ptr<ZBIAPProductInfoFetcher> fetcher;
  {
    Lock lock(mutex_);
    fetcher = configuration_->fetcher();
    if (!isReady()) {
      // Released before the completion runs, on the caller's thread.
      fetcher = nullptr;
    } else {
      locked_increaseQueryCounter();
    }
  }
  if (!fetcher) {
    if (completion) completion(ZBIAPError::make(ZBIAPManagerErrorDomain, 0));
    return;
  }
  auto self = shared_from_this();
  fetcher->fetchWithSuccess(
      [self, completion](std::shared_ptr<ZBIAPProductInfoResponse> response) {
        runOnMainThread([self, completion, response] {
          self->updateDynamicProductInfosWithResponse(response);
          {
            Lock lock(self->mutex_);
            self->locked_decreaseQueryCounter();
          }
          if (completion) completion(nullptr);
        });
      },
      [self, completion](ZBIAPErrorPtr error) {
        runOnMainThread([self, completion, error] {
          {
            Lock lock(self->mutex_);
            self->locked_decreaseQueryCounter();
          }
          if (completion) completion(error);
        });
      });
}

void ZBIAPManager::storeDidUpdateInformations(ZBIAPStore& store) {
  // The change test runs on the store's thread, with the lock held only to read the fields;
  // a date or version that became nil is not a change by itself. After each locked write the
  // store is read again, and the test repeats until two reads agree: when two notices of one
  // store race, the one that read the older list may write last, and the next round puts the
  // store's current list back.
  std::vector<ZBIAPReceiptIAPPtr> purchases = store.inAppPurchases();
  std::optional<zbiap::Date> date = store.originalPurchaseDate();
  std::optional<std::string> version = store.originalPurchaseVersion();
  bool changedAny = false;
  for (;;) {
    bool changed;
    {
      Lock lock(mutex_);
      if (!zbiap::sameObjects(inAppPurchases_, purchases)) {
        changed = true;
      } else if (date && date != cachedOriginalPurchaseDate_) {
        changed = true;
      } else {
        changed = version && version != cachedOriginalPurchaseVersion_;
      }
    }
    if (!changed) break;
    {
      Lock lock(mutex_);
      inAppPurchases_ = purchases;
      cachedOriginalPurchaseDate_ = date;
      cachedOriginalPurchaseVersion_ = version;
    }
    changedAny = true;
    std::vector<ZBIAPReceiptIAPPtr> nextPurchases = store.inAppPurchases();
    std::optional<zbiap::Date> nextDate = store.originalPurchaseDate();
    std::optional<std::string> nextVersion = store.originalPurchaseVersion();
    if (zbiap::sameObjects(nextPurchases, purchases) && nextDate == date && nextVersion == version) {
      break;
    }
    purchases = std::move(nextPurchases);
    date = std::move(nextDate);
    version = std::move(nextVersion);
  }
  if (!changedAny) return;
  runOnMainThread([self = shared_from_this()] {
    zbiap::NotificationCenter::defaultCenter().post(ZBIAPManagerStoreDidUpdateNotification,
                                                    self.get());
  });
}

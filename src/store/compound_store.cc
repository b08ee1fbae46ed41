#include "zbiap/store/compound_store.h"

#include <algorithm>
#include <utility>

#include "foundation/object_lists.h"

namespace {

// One fanned-out call: its own lock, the number of answers so far and the joined result. The
// last answer calls the caller's completion with the lock still held.
template <typename Join>
struct FanOut {
  std::mutex mutex;
  size_t answers = 0;
  Join join;
};

}  // namespace

ZBIAPCompoundStoreResultPtr ZBIAPCompoundStoreResult::initWithStore(
    std::shared_ptr<ZBIAPStore> store, ZBIAPStoreRestoreResult result, ZBIAPErrorPtr error) {
  return ZBIAPCompoundStoreResultPtr(
      new ZBIAPCompoundStoreResult(std::move(store), result, std::move(error)));
}

std::shared_ptr<ZBIAPCompoundStore> ZBIAPCompoundStore::initWithStores(
    std::vector<std::shared_ptr<ZBIAPStore>> stores) {
  stores.erase(std::remove(stores.begin(), stores.end(), nullptr), stores.end());
  std::shared_ptr<ZBIAPCompoundStore> compound(new ZBIAPCompoundStore(std::move(stores)));
  std::weak_ptr<ZBIAPStoreDelegate> self = compound;
  for (const std::shared_ptr<ZBIAPStore>& store : compound->stores_) {
    store->setStoreDelegate(self);
    compound->private_recordPurchasesOf(*store);
  }
  return compound;
}

ZBIAPCompoundStore::ZBIAPCompoundStore(std::vector<std::shared_ptr<ZBIAPStore>> stores)
    : stores_(std::move(stores)) {}

// ---- Properties ------------------------------------------------------------------------------

std::shared_ptr<ZBIAPStoreDelegate> ZBIAPCompoundStore::storeDelegate() const {
  std::lock_guard lock(delegateMutex_);
  return storeDelegate_.lock();
}

void ZBIAPCompoundStore::setStoreDelegate(std::weak_ptr<ZBIAPStoreDelegate> delegate) {
  std::lock_guard lock(delegateMutex_);
  storeDelegate_ = std::move(delegate);
}

std::shared_ptr<ZBIAPManager> ZBIAPCompoundStore::manager() const {
  std::lock_guard lock(delegateMutex_);
  return manager_.lock();
}

void ZBIAPCompoundStore::setManager(std::weak_ptr<ZBIAPManager> manager) {
  {
    std::lock_guard lock(delegateMutex_);
    manager_ = manager;
  }
  for (const std::shared_ptr<ZBIAPStore>& store : stores_) store->setManager(manager);
}

std::optional<zbiap::Date> ZBIAPCompoundStore::originalPurchaseDate() const {
  if (stores_.empty()) return std::nullopt;
  return stores_.front()->originalPurchaseDate();
}

std::optional<std::string> ZBIAPCompoundStore::originalPurchaseVersion() const {
  if (stores_.empty()) return std::nullopt;
  return stores_.front()->originalPurchaseVersion();
}

std::vector<ZBIAPReceiptIAPPtr> ZBIAPCompoundStore::inAppPurchases() const {
  std::lock_guard lock(purchasesMutex_);
  return inAppPurchases_;
}

std::vector<ZBIAPReceiptIAPPtr> ZBIAPCompoundStore::private_combineIAPs() const {
  std::vector<ZBIAPReceiptIAPPtr> combined;
  for (const std::shared_ptr<ZBIAPStore>& store : stores_) {
    auto found = iapMap_.find(store.get());
    if (found == iapMap_.end()) continue;
    combined.insert(combined.end(), found->second.begin(), found->second.end());
  }
  return combined;
}

// ---- Selling ---------------------------------------------------------------------------------

bool ZBIAPCompoundStore::canPurchaseProduct(const ZBIAPStoreProductPtr& product) {
  return std::any_of(stores_.begin(), stores_.end(),
                     [&](const auto& store) { return store->canPurchaseProduct(product); });
}

void ZBIAPCompoundStore::purchaseProduct(const ZBIAPStoreProductPtr& product,
                                         SuccessCompletion completion) {
  for (const std::shared_ptr<ZBIAPStore>& store : stores_) {
    if (store->canPurchaseProduct(product)) {
      store->purchaseProduct(product, std::move(completion));
      return;
    }
  }
  if (completion) completion(false, zbiap::makeStoreError(ZBIAPStoreErrorInvalidArgument));
}

// ---- Fanned-out requests ---------------------------------------------------------------------

void ZBIAPCompoundStore::queryStoreCountryWithProductIdentifier(
    const std::string& productIdentifier, CountryCompletion completion) {
  struct Join {
    std::optional<std::string> country;
    ZBIAPErrorPtr error;
  };
  auto call = std::make_shared<FanOut<Join>>();
  const size_t count = stores_.size();
  const ZBIAPStore* first = count > 0 ? stores_.front().get() : nullptr;
  for (const std::shared_ptr<ZBIAPStore>& store : stores_) {
    const ZBIAPStore* answering = store.get();
    store->queryStoreCountryWithProductIdentifier(
        productIdentifier, [call, count, first, answering, completion](
                               std::optional<std::string> country, ZBIAPErrorPtr error) {
          std::lock_guard lock(call->mutex);
          ++call->answers;
          if (country && answering == first) call->join.country = std::move(country);
          if (error) call->join.error = std::move(error);
          if (call->answers != count || !completion) return;
          if (call->join.error) {
            completion(std::nullopt, call->join.error);
          } else {
            completion(call->join.country, nullptr);
          }
        });
  }
}

void ZBIAPCompoundStore::queryProducts(const std::vector<std::string>& productIdentifiers,
                                       ProductsCompletion completion) {
  struct Join {
    std::vector<ZBIAPStoreProductPtr> products;
    ZBIAPErrorPtr error;
  };
  auto call = std::make_shared<FanOut<Join>>();
  const size_t count = stores_.size();
  for (const std::shared_ptr<ZBIAPStore>& store : stores_) {
    store->queryProducts(
        productIdentifiers,
        [call, count, completion](std::vector<ZBIAPStoreProductPtr> products, ZBIAPErrorPtr error) {
          std::lock_guard lock(call->mutex);
          ++call->answers;
          call->join.products.insert(call->join.products.end(), products.begin(), products.end());
          if (error) call->join.error = std::move(error);
          if (call->answers != count || !completion) return;
          if (call->join.error) {
            completion({}, call->join.error);
          } else {
            completion(call->join.products, nullptr);
          }
        });
  }
}

void ZBIAPCompoundStore::restorePurchasesWithCompletion(RestoreCompletion completion) {
  struct Join {
    ZBIAPStoreRestoreResult result = ZBIAPStoreRestoreResultUnchanged;
    ZBIAPErrorPtr error;
  };
  auto call = std::make_shared<FanOut<Join>>();
  const size_t count = stores_.size();
  for (const std::shared_ptr<ZBIAPStore>& store : stores_) {
    store->restorePurchasesWithCompletion(
        [call, count, completion](ZBIAPStoreRestoreResult result, ZBIAPErrorPtr error) {
          std::lock_guard lock(call->mutex);
          ++call->answers;
          if (result == ZBIAPStoreRestoreResultFailed) {
            call->join.result = ZBIAPStoreRestoreResultFailed;
          } else if (result == ZBIAPStoreRestoreResultChanged &&
                     call->join.result != ZBIAPStoreRestoreResultFailed) {
            call->join.result = ZBIAPStoreRestoreResultChanged;
          }
          if (error) call->join.error = std::move(error);
          // The error, if any, is passed even when the joined result is not a failure.
          if (call->answers == count && completion) completion(call->join.result, call->join.error);
        });
  }
}

void ZBIAPCompoundStore::refreshReceiptWithCompletion(SuccessCompletion completion) {
  struct Join {
    bool success = true;
    ZBIAPErrorPtr error;
  };
  auto call = std::make_shared<FanOut<Join>>();
  const size_t count = stores_.size();
  for (const std::shared_ptr<ZBIAPStore>& store : stores_) {
    store->refreshReceiptWithCompletion(
        [call, count, completion](bool success, ZBIAPErrorPtr error) {
          std::lock_guard lock(call->mutex);
          ++call->answers;
          if (!success) call->join.success = false;
          if (error) call->join.error = std::move(error);
          if (call->answers == count && completion)
            completion(call->join.success, call->join.error);
        });
  }
}

void ZBIAPCompoundStore::restoreCompoundPurchasesWithCompletion(
    CompoundRestoreCompletion completion) {
  auto call = std::make_shared<FanOut<std::vector<ZBIAPCompoundStoreResultPtr>>>();
  const size_t count = stores_.size();
  for (const std::shared_ptr<ZBIAPStore>& store : stores_) {
    store->restorePurchasesWithCompletion(
        [call, count, completion, store](ZBIAPStoreRestoreResult result, ZBIAPErrorPtr error) {
          std::lock_guard lock(call->mutex);
          ++call->answers;
          call->join.push_back(ZBIAPCompoundStoreResult::initWithStore(store, result, error));
          if (call->answers == count && completion) completion(call->join);
        });
  }
}

// ---- Reports of the held stores --------------------------------------------------------------

void ZBIAPCompoundStore::store(ZBIAPStore& store, const std::optional<std::string>& countryCode) {
  std::lock_guard lock(lock_);
  if (countryCode) {
    countryCodeMap_[&store] = *countryCode;
  } else {
    countryCodeMap_.erase(&store);
  }
  if (countryCodeMap_.size() != stores_.size() || stores_.empty()) return;
  auto first = countryCodeMap_.find(stores_.front().get());
  if (first == countryCodeMap_.end()) return;
  // Told with the lock held: the country of every store is settled while the delegate hears it.
  if (std::shared_ptr<ZBIAPStoreDelegate> delegate = storeDelegate()) {
    delegate->store(*this, first->second);
  }
}

void ZBIAPCompoundStore::private_recordPurchasesOf(ZBIAPStore& store) {
  // The store is read outside the lock, so that no store's lock is ever taken inside the
  // compound's, and read again after each write until two reads agree: of two notices racing
  // on two threads, the one holding the older list may write last, and the next round puts
  // the store's current list back.
  std::vector<ZBIAPReceiptIAPPtr> purchases = store.inAppPurchases();
  for (;;) {
    {
      std::lock_guard lock(lock_);
      iapMap_[&store] = purchases;
      std::vector<ZBIAPReceiptIAPPtr> combined = private_combineIAPs();
      std::lock_guard property(purchasesMutex_);
      inAppPurchases_ = std::move(combined);
    }
    std::vector<ZBIAPReceiptIAPPtr> again = store.inAppPurchases();
    if (zbiap::sameObjects(again, purchases)) return;
    purchases = std::move(again);
  }
}

void ZBIAPCompoundStore::storeDidUpdateInformations(ZBIAPStore& store) {
  private_recordPurchasesOf(store);
  if (std::shared_ptr<ZBIAPStoreDelegate> delegate = storeDelegate()) {
    delegate->storeDidUpdateInformations(*this);
  }
}

#include "zbiap/store/compound_store.h"

#include <algorithm>
#include <functional>
#include <memory>
#include <mutex>
#include <utility>

#include "foundation/object_lists.h"

namespace {

// One fanned-out call: its own lock, the number of answers so far and the joined result. Each
// store's completion folds its answer into the join under the call's lock, on whatever thread
// the store answers; the last one then finishes the call, the lock still held.
template <typename Join>
class FanOut : public std::enable_shared_from_this<FanOut<Join>> {
 public:
  static std::shared_ptr<FanOut> start(size_t stores, std::function<void(Join&)> finish) {
    return std::shared_ptr<FanOut>(new FanOut(stores, std::move(finish)));
  }

  // A completion for one store: `fold(join, answer...)` with that store's answer.
  template <typename Fold>
  auto answer(Fold fold) {
    return [call = this->shared_from_this(), fold = std::move(fold)](auto... answer) {
      std::lock_guard lock(call->mutex_);
      fold(call->join_, std::move(answer)...);
      if (++call->answers_ == call->stores_) call->finish_(call->join_);
    };
  }

 private:
  FanOut(size_t stores, std::function<void(Join&)> finish)
      : stores_(stores), finish_(std::move(finish)) {}

  std::mutex mutex_;
  const size_t stores_;
  size_t answers_ = 0;
  Join join_;
  const std::function<void(Join&)> finish_;
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
  auto call = FanOut<Join>::start(stores_.size(), [completion](Join& join) {
    if (!completion) return;
    if (join.error) {
      completion(std::nullopt, join.error);
    } else {
      completion(join.country, nullptr);
    }
  });
  for (const std::shared_ptr<ZBIAPStore>& store : stores_) {
    const bool first = store == stores_.front();
    store->queryStoreCountryWithProductIdentifier(
        productIdentifier, call->answer([first](Join& join, std::optional<std::string> country,
                                                ZBIAPErrorPtr error) {
          if (country && first) join.country = std::move(country);
          if (error) join.error = std::move(error);
        }));
  }
}

void ZBIAPCompoundStore::queryProducts(const std::vector<std::string>& productIdentifiers,
                                       ProductsCompletion completion) {
  struct Join {
    std::vector<ZBIAPStoreProductPtr> products;
    ZBIAPErrorPtr error;
  };
  auto call = FanOut<Join>::start(stores_.size(), [completion](Join& join) {
    if (!completion) return;
    if (join.error) {
      completion({}, join.error);
    } else {
      completion(join.products, nullptr);
    }
  });
  for (const std::shared_ptr<ZBIAPStore>& store : stores_) {
    store->queryProducts(productIdentifiers,
                         call->answer([](Join& join, std::vector<ZBIAPStoreProductPtr> products,
                                         ZBIAPErrorPtr error) {
                           join.products.insert(join.products.end(), products.begin(),
                                                products.end());
                           if (error) join.error = std::move(error);
                         }));
  }
}

void ZBIAPCompoundStore::restorePurchasesWithCompletion(RestoreCompletion completion) {
  struct Join {
    ZBIAPStoreRestoreResult result = ZBIAPStoreRestoreResultUnchanged;
    ZBIAPErrorPtr error;
  };
  // The error, if any, is passed even when the joined result is not a failure.
  auto call = FanOut<Join>::start(stores_.size(), [completion](Join& join) {
    if (completion) completion(join.result, join.error);
  });
  for (const std::shared_ptr<ZBIAPStore>& store : stores_) {
    store->restorePurchasesWithCompletion(
        call->answer([](Join& join, ZBIAPStoreRestoreResult result, ZBIAPErrorPtr error) {
          if (result == ZBIAPStoreRestoreResultFailed) {
            join.result = ZBIAPStoreRestoreResultFailed;
          } else if (result == ZBIAPStoreRestoreResultChanged &&
                     join.result != ZBIAPStoreRestoreResultFailed) {
            join.result = ZBIAPStoreRestoreResultChanged;
          }
          if (error) join.error = std::move(error);
        }));
  }
}

void ZBIAPCompoundStore::refreshReceiptWithCompletion(SuccessCompletion completion) {
  struct Join {
    bool success = true;
    ZBIAPErrorPtr error;
  };
  auto call = FanOut<Join>::start(stores_.size(), [completion](Join& join) {
    if (completion) completion(join.success, join.error);
  });
  for (const std::shared_ptr<ZBIAPStore>& store : stores_) {
    store->refreshReceiptWithCompletion(
        call->answer([](Join& join, bool success, ZBIAPErrorPtr error) {
          if (!success) join.success = false;
          if (error) join.error = std::move(error);
        }));
  }
}

void ZBIAPCompoundStore::restoreCompoundPurchasesWithCompletion(
    CompoundRestoreCompletion completion) {
  using Join = std::vector<ZBIAPCompoundStoreResultPtr>;
  auto call = FanOut<Join>::start(stores_.size(), [completion](Join& join) {
    if (completion) completion(join);
  });
  for (const std::shared_ptr<ZBIAPStore>& store : stores_) {
    store->restorePurchasesWithCompletion(
        call->answer([store](Join& join, ZBIAPStoreRestoreResult result, ZBIAPErrorPtr error) {
          join.push_back(ZBIAPCompoundStoreResult::initWithStore(store, result, error));
        }));
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

// ZBIAPCompoundStore: several stores acting as one. Requests fan out to every held store and
// their answers are joined; purchases of all stores form one list (first store's first); the
// first store's country and original purchase data count, and the first store that can sell a
// product sells it.
//
// Contracts: the compound store owns its stores and is their store delegate from construction
// on. Completions and notices are not moved to another thread: a fanned completion runs once,
// on the thread of the last store to answer, after all have answered (never, when there are no
// stores or a store never answers). The country notice to the store delegate is sent with the
// compound store's lock held, so that delegate must not call back into the compound store from
// inside it.
#ifndef ZBIAP_STORE_COMPOUND_STORE_H_
#define ZBIAP_STORE_COMPOUND_STORE_H_

#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "zbiap/export.h"
#include "zbiap/foundation/error.h"
#include "zbiap/store/store.h"

class ZBIAPCompoundStoreResult;
using ZBIAPCompoundStoreResultPtr = std::shared_ptr<const ZBIAPCompoundStoreResult>;

// One held store's answer to a restore.
class ZBIAP_EXPORT ZBIAPCompoundStoreResult {
 public:
  static ZBIAPCompoundStoreResultPtr initWithStore(std::shared_ptr<ZBIAPStore> store,
                                                   ZBIAPStoreRestoreResult result,
                                                   ZBIAPErrorPtr error);
  ZBIAPCompoundStoreResult(const ZBIAPCompoundStoreResult&) = delete;
  ZBIAPCompoundStoreResult& operator=(const ZBIAPCompoundStoreResult&) = delete;

  const std::shared_ptr<ZBIAPStore>& store() const { return store_; }
  ZBIAPStoreRestoreResult result() const { return result_; }
  // Null when the store reported none.
  const ZBIAPErrorPtr& error() const { return error_; }

 private:
  ZBIAPCompoundStoreResult(std::shared_ptr<ZBIAPStore> store, ZBIAPStoreRestoreResult result,
                           ZBIAPErrorPtr error)
      : store_(std::move(store)), result_(result), error_(std::move(error)) {}

  const std::shared_ptr<ZBIAPStore> store_;
  const ZBIAPStoreRestoreResult result_;
  const ZBIAPErrorPtr error_;
};

class ZBIAP_EXPORT ZBIAPCompoundStore final
    : public ZBIAPStore,
      public ZBIAPStoreDelegate,
      public std::enable_shared_from_this<ZBIAPCompoundStore> {
 public:
  using CompoundRestoreCompletion =
      std::function<void(std::vector<ZBIAPCompoundStoreResultPtr> results)>;

  // Holds `stores` in this order (null entries are left out) and becomes their delegate; takes
  // the purchase lists they already have. Asks no store anything. Never null.
  static std::shared_ptr<ZBIAPCompoundStore> initWithStores(
      std::vector<std::shared_ptr<ZBIAPStore>> stores);

  ZBIAPCompoundStore(const ZBIAPCompoundStore&) = delete;
  ZBIAPCompoundStore& operator=(const ZBIAPCompoundStore&) = delete;

  const std::vector<std::shared_ptr<ZBIAPStore>>& stores() const { return stores_; }

  // Each store's own restore answer, in the order the answers arrived.
  void restoreCompoundPurchasesWithCompletion(CompoundRestoreCompletion completion);

  // ZBIAPStore.
  bool canPurchaseProduct(const ZBIAPStoreProductPtr& product) override;
  void queryStoreCountryWithProductIdentifier(const std::string& productIdentifier,
                                              CountryCompletion completion) override;
  void queryProducts(const std::vector<std::string>& productIdentifiers,
                     ProductsCompletion completion) override;
  void purchaseProduct(const ZBIAPStoreProductPtr& product, SuccessCompletion completion) override;
  void restorePurchasesWithCompletion(RestoreCompletion completion) override;
  void refreshReceiptWithCompletion(SuccessCompletion completion) override;
  std::shared_ptr<ZBIAPStoreDelegate> storeDelegate() const override;
  void setStoreDelegate(std::weak_ptr<ZBIAPStoreDelegate> delegate) override;
  std::shared_ptr<ZBIAPManager> manager() const override;
  // Passed on to every held store.
  void setManager(std::weak_ptr<ZBIAPManager> manager) override;
  // Those of the first store; nullopt when there is none.
  std::optional<zbiap::Date> originalPurchaseDate() const override;
  std::optional<std::string> originalPurchaseVersion() const override;
  // Every store's records, in store order, neither merged nor deduplicated.
  std::vector<ZBIAPReceiptIAPPtr> inAppPurchases() const override;

  // ZBIAPStoreDelegate, called by the held stores on any thread. The country is passed up,
  // as the first store's, once every store has reported one.
  void store(ZBIAPStore& store, const std::optional<std::string>& countryCode) override;
  void storeDidUpdateInformations(ZBIAPStore& store) override;

 private:
  explicit ZBIAPCompoundStore(std::vector<std::shared_ptr<ZBIAPStore>> stores);

  // The caller holds lock_.
  std::vector<ZBIAPReceiptIAPPtr> private_combineIAPs() const;
  // Keeps `store`'s purchases and the combined list; see the definition for the ordering.
  void private_recordPurchasesOf(ZBIAPStore& store);

  const std::vector<std::shared_ptr<ZBIAPStore>> stores_;

  mutable std::mutex delegateMutex_;
  std::weak_ptr<ZBIAPStoreDelegate> storeDelegate_;
  std::weak_ptr<ZBIAPManager> manager_;

  // "ZBIAP Compound Store": guards the two maps and the combined list while they are updated.
  // Stores are keyed by identity; `stores_` keeps them alive.
  mutable std::mutex lock_;
  std::map<const ZBIAPStore*, std::string> countryCodeMap_;
  std::map<const ZBIAPStore*, std::vector<ZBIAPReceiptIAPPtr>> iapMap_;
  // The combined list is an atomic property: reading it takes only its own short lock, never
  // lock_, because the delegate reads it from inside the country notice, which lock_ covers
  // (the manager's catalogue query sends the purchases along).
  mutable std::mutex purchasesMutex_;
  std::vector<ZBIAPReceiptIAPPtr> inAppPurchases_;
};

#endif  // ZBIAP_STORE_COMPOUND_STORE_H_

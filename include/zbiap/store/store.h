// ZBIAPStore: the interface through which the manager drives every source of purchases, and
// ZBIAPStoreDelegate / ZBIAPReceiptProvider, through which a store reports back.
//
// Completions may be null (a store checks before calling) and may run synchronously inside the
// call (immediate failures, cached answers) or later on whatever thread the store's platform
// reports on. Exactly one of result and error is meaningful: on failure the result is nullopt,
// empty, false or ZBIAPStoreRestoreResultFailed and the error is set. A store holds its
// delegate and manager weakly: it never keeps them alive.
#ifndef ZBIAP_STORE_STORE_H_
#define ZBIAP_STORE_STORE_H_

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "zbiap/export.h"
#include "zbiap/foundation/date.h"
#include "zbiap/foundation/error.h"
#include "zbiap/receipt/receipt_iap.h"
#include "zbiap/store/store_product.h"

class ZBIAPManager;
class ZBIAPStore;

// The error domain of all stores.
inline constexpr char ZBIAPStoreErrorDomain[] = "ZBIAPStoreErrorDomain";

enum ZBIAPStoreErrorCode : int64_t {
  // Not a product of this store, an empty identifier or list, identifiers unknown to the
  // store, or no store can sell the product. No user info.
  ZBIAPStoreErrorInvalidArgument = 1,
  // Purchases are switched off on the device, or the store does not sell.
  ZBIAPStoreErrorCannotMakePayments = 2,
  // The same request is already in flight.
  ZBIAPStoreErrorRequestInFlight = 3,
  // The user cancelled the payment.
  ZBIAPStoreErrorPaymentCancelled = 4,
  // The user is already subscribed to this product; the store's error is the underlying one.
  ZBIAPStoreErrorAlreadySubscribed = 5,
  // Any other error of the store platform or server, with its underlying error when there is.
  ZBIAPStoreErrorOther = 6,
};

// The outcome of a restore.
enum ZBIAPStoreRestoreResult : int64_t {
  ZBIAPStoreRestoreResultFailed = 0,     // the error says why
  ZBIAPStoreRestoreResultChanged = 1,    // done, and the purchase list changed
  ZBIAPStoreRestoreResultUnchanged = 2,  // done, nothing changed
};

class ZBIAP_EXPORT ZBIAPStoreDelegate : public ZBIAPReceiptProvider {
 public:
  // store:didDetermineCountryCode: the store learned its storefront country for the first time.
  // nullopt: the store no longer knows its country (a compound store then forgets that store's).
  virtual void store(ZBIAPStore& store, const std::optional<std::string>& countryCode) = 0;
  // The store's inAppPurchases, originalPurchaseDate or originalPurchaseVersion changed.
  virtual void storeDidUpdateInformations(ZBIAPStore& store) = 0;
};

class ZBIAP_EXPORT ZBIAPStore {
 public:
  using CountryCompletion =
      std::function<void(std::optional<std::string> countryCode, ZBIAPErrorPtr error)>;
  using ProductsCompletion =
      std::function<void(std::vector<ZBIAPStoreProductPtr> products, ZBIAPErrorPtr error)>;
  using SuccessCompletion = std::function<void(bool success, ZBIAPErrorPtr error)>;
  using RestoreCompletion =
      std::function<void(ZBIAPStoreRestoreResult result, ZBIAPErrorPtr error)>;

  virtual ~ZBIAPStore() = default;

  // Whether this store can sell `product`.
  virtual bool canPurchaseProduct(const ZBIAPStoreProductPtr& product) = 0;
  virtual void queryStoreCountryWithProductIdentifier(const std::string& productIdentifier,
                                                      CountryCompletion completion) = 0;
  virtual void queryProducts(const std::vector<std::string>& productIdentifiers,
                             ProductsCompletion completion) = 0;
  virtual void purchaseProduct(const ZBIAPStoreProductPtr& product,
                               SuccessCompletion completion) = 0;
  virtual void restorePurchasesWithCompletion(RestoreCompletion completion) = 0;
  virtual void refreshReceiptWithCompletion(SuccessCompletion completion) = 0;

  // Held weakly; null once the delegate is gone.
  virtual std::shared_ptr<ZBIAPStoreDelegate> storeDelegate() const = 0;
  virtual void setStoreDelegate(std::weak_ptr<ZBIAPStoreDelegate> delegate) = 0;
  virtual std::shared_ptr<ZBIAPManager> manager() const = 0;
  virtual void setManager(std::weak_ptr<ZBIAPManager> manager) = 0;

  // Date and app version of the app's first purchase; nullopt when unknown.
  virtual std::optional<zbiap::Date> originalPurchaseDate() const = 0;
  virtual std::optional<std::string> originalPurchaseVersion() const = 0;
  // The store's current purchase records (empty when none).
  virtual std::vector<ZBIAPReceiptIAPPtr> inAppPurchases() const = 0;
};

namespace zbiap {

// A ZBIAPStoreErrorDomain error with `code`, and `underlying` when given.
ZBIAP_EXPORT ZBIAPErrorPtr makeStoreError(ZBIAPStoreErrorCode code,
                                          ZBIAPErrorPtr underlying = nullptr);

}  // namespace zbiap

#endif  // ZBIAP_STORE_STORE_H_

// ZBIAPStoreApple: the store that sells through the App Store, written against the StoreKit seam
// only (products requests, the default payment queue, receipt refresh requests). Its purchase
// records come only from the App Store receipt file, read by ZBIAPReceiptParser and watched by
// ZBIAPFileMonitor: purchases, restores and refreshes end by rereading the receipt, and the
// delegate hears storeDidUpdateInformations() (never under the store's lock) when the records
// changed.
//
// Contracts: create() never returns null. The store holds its delegate and manager weakly and
// holds itself while StoreKit requests, purchases, a restore or a refresh are outstanding, so a
// host may drop it at any time. Immediate failures complete on the caller's thread; everything
// else completes on the thread StoreKit reports on (the main queue). The store's products are
// adapters of SKProduct; canPurchaseProduct() accepts those only.
#ifndef ZBIAP_STORE_STORE_APPLE_H_
#define ZBIAP_STORE_STORE_APPLE_H_

#include <filesystem>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "zbiap/export.h"
#include "zbiap/foundation/date.h"
#include "zbiap/foundation/error.h"
#include "zbiap/receipt/receipt_parser.h"
#include "zbiap/store/file_monitor.h"
#include "zbiap/store/store.h"
#include "zbiap/storekit/sk_payment_queue.h"
#include "zbiap/storekit/sk_request.h"

class ZBIAPLogger;

class ZBIAP_EXPORT ZBIAPStoreApple final : public ZBIAPStore,
                                           public SKProductsRequestDelegate,
                                           public SKPaymentTransactionObserver,
                                           public ZBIAPFileMonitorDelegate,
                                           public std::enable_shared_from_this<ZBIAPStoreApple> {
 public:
  // Reads the receipt once and starts observing the default payment queue.
  static std::shared_ptr<ZBIAPStoreApple> create();
  ~ZBIAPStoreApple() override;
  ZBIAPStoreApple(const ZBIAPStoreApple&) = delete;
  ZBIAPStoreApple& operator=(const ZBIAPStoreApple&) = delete;

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
  void setManager(std::weak_ptr<ZBIAPManager> manager) override;
  std::optional<zbiap::Date> originalPurchaseDate() const override;
  std::optional<std::string> originalPurchaseVersion() const override;
  std::vector<ZBIAPReceiptIAPPtr> inAppPurchases() const override;

  // SKProductsRequestDelegate (also for receipt refresh requests).
  void productsRequest(const std::shared_ptr<SKProductsRequest>& request,
                       const std::shared_ptr<const SKProductsResponse>& response) override;
  void requestDidFinish(const std::shared_ptr<SKRequest>& request) override;
  void request(const std::shared_ptr<SKRequest>& request, ZBIAPErrorPtr error) override;

  // SKPaymentTransactionObserver.
  void paymentQueue(SKPaymentQueue& queue,
                    const std::vector<SKPaymentTransactionPtr>& transactions) override;
  void paymentQueueRestoreCompletedTransactionsFinished(SKPaymentQueue& queue) override;
  void paymentQueue(SKPaymentQueue& queue, ZBIAPErrorPtr error) override;

  // ZBIAPFileMonitorDelegate: rereads the receipt unless the file is there and empty.
  void fileHasChanged(const std::filesystem::path& fileURL) override;

  // A StoreKit error as a store error: cancelled -> 4, already subscribed (3532) -> 5 with the
  // original as underlying error, anything else -> 6 (with the underlying error when given).
  static ZBIAPErrorPtr wrapError(const ZBIAPErrorPtr& error);
  // The StoreKit product behind one of this store's products; null for any other product.
  static SKProductPtr skProductOf(const ZBIAPStoreProductPtr& product);
  // The store's view of a StoreKit product.
  static ZBIAPStoreProductPtr storeProductFor(SKProductPtr product);

  // Outstanding self-references (one per products request, pending purchase, restore and
  // refresh). For tests and diagnostics.
  size_t retainCount() const;
  // The storefront country, empty until learned.
  std::string countryCode() const;

 private:
  struct Completions;
  ZBIAPStoreApple();

  void lock() const { recursiveLock_.lock(); }
  void unlock() const { recursiveLock_.unlock(); }
  void retainSelf();
  void releaseSelf();
  bool locked_readReceipt();
  void updateReceipt();
  void addProductsRequest(const std::shared_ptr<SKProductsRequest>& request);
  void removeProductsRequest(const std::shared_ptr<SKRequest>& request);
  std::optional<std::string> locked_deriveCountry(const SKProductsResponse& response);
  static ZBIAPErrorPtr error(ZBIAPStoreErrorCode code);

  std::weak_ptr<ZBIAPStoreDelegate> storeDelegate_;
  std::weak_ptr<ZBIAPManager> manager_;
  std::shared_ptr<ZBIAPLogger> logger_;
  mutable std::recursive_mutex recursiveLock_;  // "ZBIAPStoreApple Lock"
  std::vector<std::shared_ptr<SKProductsRequest>> pendingProductsRequest_;
  // An empty function is the marker of a purchase started without a completion.
  std::map<std::string, SuccessCompletion> pendingPurchaseRequests_;
  std::shared_ptr<SKReceiptRefreshRequest> pendingRefreshReceiptRequest_;
  RestoreCompletion pendingRestoreRequestCompletion_;
  SuccessCompletion pendingRefreshReceiptCompletion_;
  std::vector<ZBIAPReceiptIAPPtr> preRestoreInAppPurchases_;
  std::vector<std::shared_ptr<ZBIAPStoreApple>> retainingArray_;
  std::string countryCode_;
  std::shared_ptr<ZBIAPReceiptParser> receiptParser_;
  std::shared_ptr<ZBIAPFileMonitor> receiptMonitor_;
  std::optional<zbiap::Date> originalPurchaseDate_;
  std::optional<std::string> originalPurchaseVersion_;
  std::vector<ZBIAPReceiptIAPPtr> inAppPurchases_;
  // The queue observed since creation, from which the store removes itself at the end.
  std::shared_ptr<SKPaymentQueue> observedQueue_;
};

#endif  // ZBIAP_STORE_STORE_APPLE_H_

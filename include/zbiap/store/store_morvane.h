// ZBIAPStoreMorvane: a store whose purchases are held by the user's account on the vendor's
// account server rather than bought through the App Store. It neither sells nor lists products;
// a restore asks the server ("v1/users/products" under the base URL) which products the user
// holds, keeps them as purchase records and tells its store delegate when they change.
//
// Contracts: the host's ZBIAPStoreMorvaneDelegate supplies the request headers, may suppress
// queries, and keeps the last list across launches. Every continuation of a restore (header
// answer, response, parsing, list update, delegate notice, completion) runs on the platform's
// main queue; the country, product, purchase and refresh completions run synchronously on the
// caller's thread. Delegates are held weakly; a request in flight keeps the store alive.
#ifndef ZBIAP_STORE_STORE_MORVANE_H_
#define ZBIAP_STORE_STORE_MORVANE_H_

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <vector>

#include "zbiap/export.h"
#include "zbiap/foundation/error.h"
#include "zbiap/foundation/value.h"
#include "zbiap/store/store.h"

class ZBIAPLogger;
class ZBIAPStoreMorvane;

namespace zbiap {
class HttpClient;
}

// Header fields to add to a request, in order. A field whose name the request already has (the
// store's own "Accept", or an earlier field; names compare without case) adds its value to that
// field, joined with ", ", as HTTP lists values.
using ZBIAPStoreMorvaneHeaders = std::vector<std::pair<std::string, std::string>>;

// What the host application provides to the account store. Calls come from the thread that
// restores (usually the main thread); answers to the header request may come from any thread.
class ZBIAP_EXPORT ZBIAPStoreMorvaneDelegate {
 public:
  using HeadersCompletion =
      std::function<void(ZBIAPStoreMorvaneHeaders headers, ZBIAPErrorPtr error)>;

  virtual ~ZBIAPStoreMorvaneDelegate() = default;

  // store:additionalRequestHeadersIsRetrying:completion: the headers to add to the next request
  // (authentication, for instance). `isRetrying` is true when the previous request was refused
  // with status 401, so the delegate can renew what it sends. Call `completion` exactly once,
  // on any thread, with the headers (possibly none) or an error.
  virtual void store(ZBIAPStoreMorvane& store, bool isRetrying, HeadersCompletion completion) = 0;
  // Optional: false suppresses the query (the restore then reports "unchanged").
  virtual bool shouldQueryInAppPurchasesForStore(ZBIAPStoreMorvane& store) {
    (void)store;
    return true;
  }
  // store:saveInAppPurchases: keep this list of purchase dictionaries (their dictionary form,
  // dates as dates) for readInAppPurchasesForStore(). Called with the store's lock held, so
  // that saves arrive in the order the lists were taken: the store may be read from here, but
  // do not wait here for another thread that uses the store.
  virtual void store(ZBIAPStoreMorvane& store, const zbiap::Array& inAppPurchases) = 0;
  // The array last given to store(store, inAppPurchases), or nil when there is none. Called
  // without the store's lock; a list the store received meanwhile wins over the answer.
  virtual zbiap::Value readInAppPurchasesForStore(ZBIAPStoreMorvane& store) = 0;
};

class ZBIAP_EXPORT ZBIAPStoreMorvane final
    : public ZBIAPStore,
      public std::enable_shared_from_this<ZBIAPStoreMorvane> {
 public:
  // The path asked for under the base URL.
  static constexpr char kProductsPath[] = "v1/users/products";
  // The country this store always reports.
  static constexpr char kCountryCode[] = "DE";

  // A store that asks the account server under `baseURL` (its API root) through the
  // process-wide HTTP client. Never null.
  static std::shared_ptr<ZBIAPStoreMorvane> initWithBaseURL(std::string baseURL);
  // The same through `httpClient` (null: the process-wide client).
  static std::shared_ptr<ZBIAPStoreMorvane> initWithBaseURL(
      std::string baseURL, std::shared_ptr<zbiap::HttpClient> httpClient);

  ~ZBIAPStoreMorvane() override;
  ZBIAPStoreMorvane(const ZBIAPStoreMorvane&) = delete;
  ZBIAPStoreMorvane& operator=(const ZBIAPStoreMorvane&) = delete;

  // Held weakly. Setting a delegate while no purchases are held loads the list it kept.
  std::shared_ptr<ZBIAPStoreMorvaneDelegate> morvaneStoreDelegate() const;
  void setMorvaneStoreDelegate(std::weak_ptr<ZBIAPStoreMorvaneDelegate> delegate);

  // The server's "is_existing_customer" flag of the last answer; kept in memory only.
  bool isExistingCustomer() const;
  const std::string& baseURL() const { return baseURL_; }
  // The full URL of the products request.
  std::string productsURL() const;

  // Forgets the user's purchases (sign-out): empties the list and the flag, saves the empty
  // list when there was one, and tells the store delegate when anything changed. Runs on the
  // caller's thread.
  void discardInAppPurchases();

  // ZBIAPStore. Cannot sell; the country is always "DE"; a restore asks the account server.
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
  // Never known to this store: always nullopt.
  std::optional<zbiap::Date> originalPurchaseDate() const override;
  std::optional<std::string> originalPurchaseVersion() const override;
  std::vector<ZBIAPReceiptIAPPtr> inAppPurchases() const override;

 private:
  ZBIAPStoreMorvane(std::string baseURL, std::shared_ptr<zbiap::HttpClient> httpClient);

  void private_getIAPsWithCompletion(RestoreCompletion completion, bool isRetry);
  void private_getIAPsWithAddtionalHeaders(const ZBIAPStoreMorvaneHeaders& headers,
                                           RestoreCompletion completion, bool isRetry);
  void private_getIAPsWithData(std::string_view data, const RestoreCompletion& completion);
  // The caller holds lock_.
  void private_saveIAPs();
  // Takes the saved list unless the list changed since `generation` was read.
  void private_readIAPs(uint64_t generation);
  static ZBIAPErrorPtr private_wrapError(ZBIAPErrorPtr error);

  const std::string baseURL_;
  const std::shared_ptr<zbiap::HttpClient> urlSession_;
  const std::shared_ptr<ZBIAPLogger> logger_;

  // Guards the two delegates and the manager.
  mutable std::mutex delegateMutex_;
  std::weak_ptr<ZBIAPStoreDelegate> storeDelegate_;
  std::weak_ptr<ZBIAPManager> manager_;
  std::weak_ptr<ZBIAPStoreMorvaneDelegate> morvaneStoreDelegate_;

  // "ZBIAPStoreMorvane": guards the list and the flag while they are compared, replaced and
  // saved.
  mutable std::recursive_mutex lock_;
  // Null until the saved list is loaded or a query succeeds; null counts as empty.
  std::optional<std::vector<ZBIAPReceiptIAPPtr>> inAppPurchases_;
  bool isExistingCustomer_ = false;
  // Counts replacements of the list, so that a saved list read without the lock never
  // overwrites one that a restore or a discard put there meanwhile.
  uint64_t listGeneration_ = 0;
};

#endif  // ZBIAP_STORE_STORE_MORVANE_H_

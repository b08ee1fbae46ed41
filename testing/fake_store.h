// zbiap::testing::FakeStore: a scriptable ZBIAPStore for tests of what drives a store (the
// manager above all). Each kind of query answers at once, from another thread, or not until the
// test says so (possibly never), with a value or an error; every call is recorded.
//
// Thread-safe. Completions are never called with the fake's own lock held. Held completions
// keep whatever they captured alive until they are answered or dropped (dropPending()).
#ifndef ZBIAP_TESTING_FAKE_STORE_H_
#define ZBIAP_TESTING_FAKE_STORE_H_

#include <cstddef>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <unordered_map>
#include <vector>

#include "zbiap/foundation/date.h"
#include "zbiap/foundation/error.h"
#include "zbiap/store/store.h"

namespace zbiap::testing {

// How a scripted query is answered.
enum class Answer {
  kAtOnce,         // synchronously, inside the call
  kOnOtherThread,  // from a thread of its own, which the call joins before it returns
  kLater,          // held until the test answers it (or never)
};

class FakeStore final : public ZBIAPStore, public std::enable_shared_from_this<FakeStore> {
 public:
  static std::shared_ptr<FakeStore> create() { return std::shared_ptr<FakeStore>(new FakeStore); }
  // A plain product; `price` is a decimal text.
  static ZBIAPStoreProductPtr makeProduct(const std::string& identifier,
                                          const std::string& price = "0.99",
                                          const std::string& priceLocale = "en_US@currency=USD");

  FakeStore(const FakeStore&) = delete;
  FakeStore& operator=(const FakeStore&) = delete;

  // Country queries. Unscripted ones are held.
  void scriptCountry(Answer answer, std::optional<std::string> code, ZBIAPErrorPtr error = nullptr);
  size_t countryQueryCount() const;
  std::vector<std::string> countryQueryProducts() const;
  size_t pendingCountryQueries() const;
  // Answers every held country query with the given outcome.
  void answerCountryQueries(std::optional<std::string> code, ZBIAPErrorPtr error = nullptr);

  // Product queries are answered with the known products among those asked for, in the order
  // asked, and the scripted error (nullptr by default). Unscripted ones answer at once.
  void addProducts(const std::vector<ZBIAPStoreProductPtr>& products);
  // Forgets every known product.
  void clearProducts();
  void scriptProducts(Answer answer, ZBIAPErrorPtr error = nullptr);
  // The identifier lists asked for, one per query, each sorted.
  std::vector<std::vector<std::string>> productQueries() const;
  size_t pendingProductQueries() const;
  // Answers every held product query from the products and error as they are now.
  void answerProductQueries();

  // Drops every held completion unanswered.
  void dropPending();

  // Purchase data, and the delegate calls that report it.
  void setInAppPurchases(std::vector<ZBIAPReceiptIAPPtr> purchases);
  void setOriginalPurchaseDate(std::optional<zbiap::Date> date);
  void setOriginalPurchaseVersion(std::optional<std::string> version);
  // Calls the delegate's storeDidUpdateInformations() on the calling thread.
  void tellDelegateInformationsChanged();
  // Calls the delegate's store(store, code) on the calling thread.
  void tellDelegateCountry(const std::string& code);

  // ZBIAPStore. Purchases, restores and refreshes succeed at once.
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

 private:
  struct ProductQuery {
    std::vector<std::string> identifiers;
    ProductsCompletion completion;
  };

  FakeStore() = default;
  std::vector<ZBIAPStoreProductPtr> productsFor(const std::vector<std::string>& identifiers) const;

  mutable std::mutex mutex_;
  Answer countryAnswer_ = Answer::kLater;
  std::optional<std::string> countryCode_;
  ZBIAPErrorPtr countryError_;
  std::vector<std::string> countryQueries_;
  std::vector<CountryCompletion> pendingCountry_;

  Answer productsAnswer_ = Answer::kAtOnce;
  ZBIAPErrorPtr productsError_;
  // The known products by identifier, each list in the order added: a lookup per identifier
  // asked for keeps large catalogues linear.
  std::unordered_map<std::string, std::vector<ZBIAPStoreProductPtr>> products_;
  std::vector<std::vector<std::string>> productQueries_;
  std::vector<ProductQuery> pendingProducts_;

  std::vector<ZBIAPReceiptIAPPtr> purchases_;
  std::optional<zbiap::Date> originalPurchaseDate_;
  std::optional<std::string> originalPurchaseVersion_;
  std::weak_ptr<ZBIAPStoreDelegate> delegate_;
  std::weak_ptr<ZBIAPManager> manager_;
};

}  // namespace zbiap::testing

#endif  // ZBIAP_TESTING_FAKE_STORE_H_

#include "testing/fake_store.h"

#include <algorithm>
#include <thread>
#include <utility>

namespace zbiap::testing {
namespace {

// Runs `call` as `answer` asks; kLater is handled by the caller.
template <typename F>
void deliver(Answer answer, F&& call) {
  if (answer == Answer::kOnOtherThread) {
    std::thread thread(std::forward<F>(call));
    thread.join();
  } else {
    call();
  }
}

}  // namespace

ZBIAPStoreProductPtr FakeStore::makeProduct(const std::string& identifier, const std::string& price,
                                            const std::string& priceLocale) {
  StoreProductValues values;
  values.localizedTitle = identifier;
  values.localizedDescription = "Description of " + identifier;
  values.price = Decimal::fromString(price);
  values.priceLocale = priceLocale;
  values.productIdentifier = identifier;
  return makeStoreProduct(std::move(values));
}

void FakeStore::scriptCountry(Answer answer, std::optional<std::string> code, ZBIAPErrorPtr error) {
  std::lock_guard<std::mutex> lock(mutex_);
  countryAnswer_ = answer;
  countryCode_ = std::move(code);
  countryError_ = std::move(error);
}

size_t FakeStore::countryQueryCount() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return countryQueries_.size();
}

std::vector<std::string> FakeStore::countryQueryProducts() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return countryQueries_;
}

size_t FakeStore::pendingCountryQueries() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return pendingCountry_.size();
}

void FakeStore::answerCountryQueries(std::optional<std::string> code, ZBIAPErrorPtr error) {
  std::vector<CountryCompletion> pending;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    pending.swap(pendingCountry_);
  }
  for (auto& completion : pending) {
    if (completion) completion(code, error);
  }
}

void FakeStore::addProducts(const std::vector<ZBIAPStoreProductPtr>& products) {
  std::lock_guard<std::mutex> lock(mutex_);
  for (const ZBIAPStoreProductPtr& product : products) {
    products_[product->productIdentifier()].push_back(product);
  }
}

void FakeStore::clearProducts() {
  std::lock_guard<std::mutex> lock(mutex_);
  products_.clear();
}

void FakeStore::scriptProducts(Answer answer, ZBIAPErrorPtr error) {
  std::lock_guard<std::mutex> lock(mutex_);
  productsAnswer_ = answer;
  productsError_ = std::move(error);
}

std::vector<std::vector<std::string>> FakeStore::productQueries() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return productQueries_;
}

size_t FakeStore::pendingProductQueries() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return pendingProducts_.size();
}

std::vector<ZBIAPStoreProductPtr> FakeStore::productsFor(
    const std::vector<std::string>& identifiers) const {
  std::vector<ZBIAPStoreProductPtr> found;
  for (const auto& identifier : identifiers) {
    auto known = products_.find(identifier);
    if (known != products_.end())
      found.insert(found.end(), known->second.begin(), known->second.end());
  }
  return found;
}

void FakeStore::answerProductQueries() {
  std::vector<ProductQuery> pending;
  std::vector<std::vector<ZBIAPStoreProductPtr>> answers;
  ZBIAPErrorPtr error;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    pending.swap(pendingProducts_);
    for (const auto& query : pending) answers.push_back(productsFor(query.identifiers));
    error = productsError_;
  }
  for (size_t i = 0; i < pending.size(); ++i) {
    if (pending[i].completion) pending[i].completion(answers[i], error);
  }
}

void FakeStore::dropPending() {
  std::vector<CountryCompletion> country;
  std::vector<ProductQuery> products;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    country.swap(pendingCountry_);
    products.swap(pendingProducts_);
  }
  // Destroyed here, outside the lock: they may own the last reference to their caller.
}

void FakeStore::setInAppPurchases(std::vector<ZBIAPReceiptIAPPtr> purchases) {
  std::lock_guard<std::mutex> lock(mutex_);
  purchases_ = std::move(purchases);
}

void FakeStore::setOriginalPurchaseDate(std::optional<Date> date) {
  std::lock_guard<std::mutex> lock(mutex_);
  originalPurchaseDate_ = date;
}

void FakeStore::setOriginalPurchaseVersion(std::optional<std::string> version) {
  std::lock_guard<std::mutex> lock(mutex_);
  originalPurchaseVersion_ = std::move(version);
}

void FakeStore::tellDelegateInformationsChanged() {
  if (auto delegate = storeDelegate()) delegate->storeDidUpdateInformations(*this);
}

void FakeStore::tellDelegateCountry(const std::string& code) {
  if (auto delegate = storeDelegate()) delegate->store(*this, code);
}

bool FakeStore::canPurchaseProduct(const ZBIAPStoreProductPtr& product) {
  if (!product) return false;
  std::lock_guard<std::mutex> lock(mutex_);
  return !productsFor({product->productIdentifier()}).empty();
}

void FakeStore::queryStoreCountryWithProductIdentifier(const std::string& productIdentifier,
                                                       CountryCompletion completion) {
  Answer answer;
  std::optional<std::string> code;
  ZBIAPErrorPtr error;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    countryQueries_.push_back(productIdentifier);
    answer = countryAnswer_;
    code = countryCode_;
    error = countryError_;
    if (answer == Answer::kLater) {
      pendingCountry_.push_back(std::move(completion));
      return;
    }
  }
  if (!completion) return;
  deliver(answer, [&] { completion(code, error); });
}

void FakeStore::queryProducts(const std::vector<std::string>& productIdentifiers,
                              ProductsCompletion completion) {
  Answer answer;
  std::vector<ZBIAPStoreProductPtr> found;
  ZBIAPErrorPtr error;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    std::vector<std::string> sorted = productIdentifiers;
    std::sort(sorted.begin(), sorted.end());
    productQueries_.push_back(sorted);
    answer = productsAnswer_;
    if (answer == Answer::kLater) {
      pendingProducts_.push_back({productIdentifiers, std::move(completion)});
      return;
    }
    found = productsFor(productIdentifiers);
    error = productsError_;
  }
  if (!completion) return;
  deliver(answer, [&] { completion(found, error); });
}

void FakeStore::purchaseProduct(const ZBIAPStoreProductPtr& product, SuccessCompletion completion) {
  if (completion) completion(true, nullptr);
}

void FakeStore::restorePurchasesWithCompletion(RestoreCompletion completion) {
  if (completion) completion(ZBIAPStoreRestoreResultUnchanged, nullptr);
}

void FakeStore::refreshReceiptWithCompletion(SuccessCompletion completion) {
  if (completion) completion(true, nullptr);
}

std::shared_ptr<ZBIAPStoreDelegate> FakeStore::storeDelegate() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return delegate_.lock();
}

void FakeStore::setStoreDelegate(std::weak_ptr<ZBIAPStoreDelegate> delegate) {
  std::lock_guard<std::mutex> lock(mutex_);
  delegate_ = std::move(delegate);
}

std::shared_ptr<ZBIAPManager> FakeStore::manager() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return manager_.lock();
}

void FakeStore::setManager(std::weak_ptr<ZBIAPManager> manager) {
  std::lock_guard<std::mutex> lock(mutex_);
  manager_ = std::move(manager);
}

std::optional<Date> FakeStore::originalPurchaseDate() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return originalPurchaseDate_;
}

std::optional<std::string> FakeStore::originalPurchaseVersion() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return originalPurchaseVersion_;
}

std::vector<ZBIAPReceiptIAPPtr> FakeStore::inAppPurchases() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return purchases_;
}

}  // namespace zbiap::testing

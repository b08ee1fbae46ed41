#include "testing/fake_store.h"

#include <algorithm>
#include <thread>
#include <utility>

#include "zbiap/platform/platform.h"

namespace zbiap::testing {

std::string traceText(const ZBIAPErrorPtr& error) {
  return error ? error->domain() + "/" + std::to_string(error->code()) : "nil";
}

std::string traceList(const std::vector<std::string>& items) {
  std::string text;
  for (const std::string& item : items) text += (text.empty() ? "" : " ") + item;
  return "[" + text + "]";
}

bool replyAs(const Timing& when, std::function<void()> reply) {
  auto run = [thread = when.answer == Answer::kOnOtherThread](const std::function<void()>& call) {
    if (thread) {
      std::thread(call).join();
    } else {
      call();
    }
  };
  if (when.delay) {
    Platform::current().mainQueue().postAfter(*when.delay, [run, reply] { run(reply); });
  } else if (when.answer == Answer::kLater) {
    return false;
  } else {
    run(reply);
  }
  return true;
}

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

void FakeStore::queueCountry(std::vector<CountryReply> calls) {
  std::lock_guard<std::mutex> lock(mutex_);
  countryReplies_.push_back(std::move(calls));
}

void FakeStore::scriptCountry(Answer answer, std::optional<std::string> code, ZBIAPErrorPtr error) {
  std::lock_guard<std::mutex> lock(mutex_);
  countryDefault_ = {std::move(code), std::move(error), {answer, std::nullopt}};
}

void FakeStore::queueProducts(ProductsReply reply) {
  std::lock_guard<std::mutex> lock(mutex_);
  productsReplies_.push_back(std::move(reply));
}

void FakeStore::dropPending() {
  std::vector<std::function<void()>> held;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    held.swap(held_);
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

void FakeStore::tellDelegateCountry(const std::optional<std::string>& code) {
  if (auto delegate = storeDelegate()) delegate->store(*this, code);
}

bool FakeStore::canPurchaseProduct(const ZBIAPStoreProductPtr& product) {
  return product != nullptr;
}

void FakeStore::queryStoreCountryWithProductIdentifier(const std::string& productIdentifier,
                                                       CountryCompletion completion) {
  note("CALL", "queryStoreCountry " + productIdentifier);
  std::vector<CountryReply> calls;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (countryReplies_.empty()) {
      calls = {countryDefault_};
    } else {
      calls = std::move(countryReplies_.front());
      countryReplies_.pop_front();
    }
  }
  for (const CountryReply& call : calls) {
    auto reply = [self = shared_from_this(), completion, call] {
      self->note("ANSWER",
                 "country " + call.code.value_or("none") + " error=" + traceText(call.error));
      if (completion) completion(call.code, call.error);
    };
    if (!replyAs(call.when, reply)) {
      std::lock_guard<std::mutex> lock(mutex_);
      held_.push_back(std::move(reply));
    }
  }
}

void FakeStore::queryProducts(const std::vector<std::string>& productIdentifiers,
                              ProductsCompletion completion) {
  std::vector<std::string> asked = productIdentifiers;
  std::sort(asked.begin(), asked.end());
  note("CALL", "queryProducts " + traceList(asked));
  ProductsReply scripted;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (!productsReplies_.empty()) {
      scripted = std::move(productsReplies_.front());
      productsReplies_.pop_front();
    }
  }
  std::vector<ZBIAPStoreProductPtr> products;
  if (scripted.products) {
    products = *scripted.products;
  } else {
    for (const std::string& identifier : productIdentifiers) {
      products.push_back(makeProduct(identifier));
    }
  }
  auto reply = [self = shared_from_this(), completion, products, error = scripted.error] {
    std::vector<std::string> identifiers;
    for (const auto& product : products) identifiers.push_back(product->productIdentifier());
    std::sort(identifiers.begin(), identifiers.end());
    self->note("ANSWER", "products " + traceList(identifiers) + " error=" + traceText(error));
    if (completion) completion(products, error);
  };
  if (!replyAs(scripted.when, reply)) {
    std::lock_guard<std::mutex> lock(mutex_);
    held_.push_back(std::move(reply));
  }
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
  {
    std::lock_guard<std::mutex> lock(mutex_);
    delegate_ = std::move(delegate);
  }
  if (onDelegateSet) onDelegateSet();
}

std::shared_ptr<ZBIAPManager> FakeStore::manager() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return manager_.lock();
}

void FakeStore::setManager(std::weak_ptr<ZBIAPManager> manager) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    manager_ = std::move(manager);
  }
  if (onManagerSet) onManagerSet();
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
  note("CALL", "inAppPurchases");
  std::vector<ZBIAPReceiptIAPPtr> purchases;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    purchases = purchases_;
  }
  if (onPurchasesRead) std::exchange(onPurchasesRead, nullptr)();
  return purchases;
}

}  // namespace zbiap::testing

#include "zbiap/catalog/product_info.h"

#include <fmt/format.h>

#include <functional>
#include <mutex>
#include <utility>

#include "catalog/currency_format.h"
#include "catalog/record_reader.h"

namespace {

// The properties that follow `product`, computed from one product so that they agree.
struct Derived {
  std::optional<zbiap::Decimal> price;
  std::optional<std::string> localizedPrice;
  std::optional<std::string> localizedOldPrice;
};

// Objects are equal when both are absent or both present and equal by value.
template <typename T>
bool sameOptional(const std::shared_ptr<T>& a, const std::shared_ptr<T>& b) {
  if (a == b) return true;
  if (a == nullptr || b == nullptr) return false;
  return *a == *b;
}

}  // namespace

struct ZBIAPProductInfoV1::Observers {
  zbiap::ObserverList<ZBIAPStoreProductPtr> product;
  zbiap::ObserverList<std::optional<zbiap::Decimal>> price;
  zbiap::ObserverList<std::optional<std::string>> localizedPrice;
  zbiap::ObserverList<std::optional<std::string>> localizedOldPrice;
};

ZBIAPProductInfoV1::ZBIAPProductInfoV1(Key) {}

ZBIAPProductInfoV1::~ZBIAPProductInfoV1() = default;

std::shared_ptr<ZBIAPProductInfoV1> ZBIAPProductInfoV1::initWithDictionary(const zbiap::Value& dictionary) {
  zbiap::CatalogLanguage language;
  return zbiap::RecordReader::readProductInfo(dictionary, language);
}

std::shared_ptr<ZBIAPProductInfoV1> ZBIAPProductInfoV1::initWithDictionary(const zbiap::Value& dictionary,
                                                               zbiap::CatalogLanguage& language) {
  return zbiap::RecordReader::readProductInfo(dictionary, language);
}

zbiap::ProductFeaturePtr ZBIAPProductInfoV1::metadataForFeatureIdentifier(
    std::string_view identifier) const {
  std::shared_ptr<const zbiap::ProductFeatureSet> features = featureMetadata();
  if (features == nullptr) return nullptr;
  for (const zbiap::ProductFeaturePtr& feature : *features) {
    if (feature->identifier() == identifier) return feature;
  }
  return nullptr;
}

const std::string& ZBIAPProductInfoV1::productIdentifier() const {
  // Always a string once the reader has accepted the DPI.
  static const std::string kEmpty;
  const std::string* text = productIdentifier_.asString();
  return text != nullptr ? *text : kEmpty;
}

ZBIAPStoreProductPtr ZBIAPProductInfoV1::product() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return product_;
}

namespace {

Derived deriveFrom(const ZBIAPStoreProductPtr& product,
                   const std::optional<zbiap::Decimal>& oldPrice) {
  Derived derived;
  if (product == nullptr) return derived;
  derived.price = product->price();
  const std::string locale = product->priceLocale();
  derived.localizedPrice = zbiap::formatCurrency(*derived.price, locale);
  if (oldPrice) derived.localizedOldPrice = zbiap::formatCurrency(*oldPrice, locale);
  return derived;
}

}  // namespace

void ZBIAPProductInfoV1::setProduct(ZBIAPStoreProductPtr product) {
  ZBIAPStoreProductPtr old;
  Observers* observers = nullptr;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    old = std::exchange(product_, product);
    observers = observers_.get();
  }
  // Nobody has ever observed this DPI: skip formatting prices nobody hears of.
  if (observers == nullptr) return;
  const Derived before = deriveFrom(old, oldPrice_);
  const Derived after = deriveFrom(product, oldPrice_);
  observers->product.notify(old, product);
  observers->price.notify(before.price, after.price);
  observers->localizedPrice.notify(before.localizedPrice, after.localizedPrice);
  observers->localizedOldPrice.notify(before.localizedOldPrice, after.localizedOldPrice);
}

std::shared_ptr<const zbiap::ValueSet> ZBIAPProductInfoV1::featureSet() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return featureSet_;
}

void ZBIAPProductInfoV1::setFeatureSet(std::shared_ptr<const zbiap::ValueSet> featureSet) {
  std::lock_guard<std::mutex> lock(mutex_);
  featureSet_.swap(featureSet);
}

std::shared_ptr<const zbiap::ProductFeatureSet> ZBIAPProductInfoV1::featureMetadata() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return featureMetadata_;
}

void ZBIAPProductInfoV1::setFeatureMetadata(
    std::shared_ptr<const zbiap::ProductFeatureSet> featureMetadata) {
  std::lock_guard<std::mutex> lock(mutex_);
  featureMetadata_.swap(featureMetadata);
}

zbiap::Value ZBIAPProductInfoV1::metadata() const {
  std::lock_guard<std::mutex> lock(mutex_);
  return metadata_;
}

void ZBIAPProductInfoV1::setMetadata(zbiap::Value metadata) {
  zbiap::Value old;  // Released outside the lock.
  std::lock_guard<std::mutex> lock(mutex_);
  old = std::exchange(metadata_, std::move(metadata));
}

std::optional<zbiap::Decimal> ZBIAPProductInfoV1::price() const {
  ZBIAPStoreProductPtr attached = product();
  if (attached == nullptr) return std::nullopt;
  return attached->price();
}

std::optional<std::string> ZBIAPProductInfoV1::localizedPrice() const {
  ZBIAPStoreProductPtr attached = product();
  if (attached == nullptr) return std::nullopt;
  return zbiap::formatCurrency(attached->price(), attached->priceLocale());
}

std::optional<std::string> ZBIAPProductInfoV1::localizedOldPrice() const {
  ZBIAPStoreProductPtr attached = product();
  if (attached == nullptr || !oldPrice_) return std::nullopt;
  return zbiap::formatCurrency(*oldPrice_, attached->priceLocale());
}

ZBIAPProductInfoV1::Observers& ZBIAPProductInfoV1::observers() {
  std::lock_guard<std::mutex> lock(mutex_);
  if (observers_ == nullptr) observers_ = std::make_unique<Observers>();
  return *observers_;
}

zbiap::ObserverList<ZBIAPStoreProductPtr>& ZBIAPProductInfoV1::productObservers() {
  return observers().product;
}

zbiap::ObserverList<std::optional<zbiap::Decimal>>& ZBIAPProductInfoV1::priceObservers() {
  return observers().price;
}

zbiap::ObserverList<std::optional<std::string>>& ZBIAPProductInfoV1::localizedPriceObservers() {
  return observers().localizedPrice;
}

zbiap::ObserverList<std::optional<std::string>>& ZBIAPProductInfoV1::localizedOldPriceObservers() {
  return observers().localizedOldPrice;
}

bool ZBIAPProductInfoV1::isEqual(const ZBIAPProductInfo& other) const {
  if (this == &other) return true;
  const auto* o = dynamic_cast<const ZBIAPProductInfoV1*>(&other);
  if (o == nullptr) return false;
  // In this order, stopping at the first difference. The product is a store's object: the same
  // object or none on both sides.
  return productIdentifier_ == o->productIdentifier_ && inactive_ == o->inactive_ &&
         defaultVisible_ == o->defaultVisible_ &&
         ignoreSubscriptionGroupForNewCustomers_ == o->ignoreSubscriptionGroupForNewCustomers_ &&
         product() == o->product() && localizedTitle_ == o->localizedTitle_ &&
         localizedSubtitle_ == o->localizedSubtitle_ &&
         localizedDescription_ == o->localizedDescription_ &&
         localizedHeader_ == o->localizedHeader_ && iconText_ == o->iconText_ &&
         titleColor_ == o->titleColor_ && backgroundColor_ == o->backgroundColor_ &&
         oldPrice_ == o->oldPrice_ && hasPreBuyDialog_ == o->hasPreBuyDialog_ &&
         localizedPreBuyDialogTitle_ == o->localizedPreBuyDialogTitle_ &&
         localizedPreBuyDialogMessage_ == o->localizedPreBuyDialogMessage_ &&
         localizedPreBuyDialogActionTitle_ == o->localizedPreBuyDialogActionTitle_ &&
         requiresAccount_ == o->requiresAccount_ && featureGroupID_ == o->featureGroupID_ &&
         sameOptional(featureMetadata(), o->featureMetadata()) && metadata() == o->metadata();
}

size_t ZBIAPProductInfoV1::hash() const { return std::hash<std::string>()(productIdentifier()); }

std::string ZBIAPProductInfoV1::description() const {
  std::string price;
  if (product() != nullptr) {
    std::optional<std::string> text = localizedPrice();
    // Formatted rather than concatenated: g++ 12 at -O3 gives a false -Wrestrict on the inlined
    // `" " + std::string`.
    price = fmt::format(" {}", text ? std::string_view(*text) : std::string_view("(null)"));
  }
  std::string group;
  if (const std::string* id = subscriptionGroupID()) group = fmt::format(" Group ID: {}", *id);
  const std::string* title = localizedTitle();
  return fmt::format("<ZBIAPProductInfoV1:{} '{}'{}{}{}{}{} - {}>", static_cast<const void*>(this),
                     productIdentifier(), inactive_ ? " (inactive)" : " (ACTIVE)",
                     requiresAccount_ ? " (requires account)" : "", price,
                     ignoreSubscriptionGroupForNewCustomers_ ? " (ignores nil sub group)" : "",
                     group, title != nullptr ? *title : std::string("(null)"));
}

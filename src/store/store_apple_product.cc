// The App Store store's products: ZBIAPStoreProduct and ZBIAPStoreProductDiscount views of
// StoreKit's products and discounts, which add nothing but the conformance.
#include <utility>

#include "zbiap/store/store_apple.h"

namespace {

ZBIAPStoreProductSubscriptionPeriod periodOf(const SKProductSubscriptionPeriod& period) {
  return ZBIAPStoreProductSubscriptionPeriod(
      period.numberOfUnits,
      static_cast<ZBIAPStoreProductSubscriptionPeriod::Unit>(static_cast<uint64_t>(period.unit)));
}

class AppleStoreProductDiscount final : public ZBIAPStoreProductDiscount {
 public:
  explicit AppleStoreProductDiscount(SKProductDiscountPtr discount)
      : discount_(std::move(discount)) {}
  zbiap::Decimal price() const override { return discount_->price; }
  std::string priceLocale() const override { return discount_->priceLocale; }
  std::string identifier() const override { return discount_->identifier; }
  ZBIAPStoreProductSubscriptionPeriod subscriptionPeriod() const override {
    return periodOf(discount_->subscriptionPeriod);
  }
  uint64_t numberOfPeriods() const override { return discount_->numberOfPeriods; }
  uint64_t paymentMode() const override { return discount_->paymentMode; }
  uint64_t type() const override { return discount_->type; }

 private:
  const SKProductDiscountPtr discount_;
};

ZBIAPStoreProductDiscountPtr discountOf(const SKProductDiscountPtr& discount) {
  return discount ? std::make_shared<const AppleStoreProductDiscount>(discount) : nullptr;
}

class AppleStoreProduct final : public ZBIAPStoreProduct {
 public:
  explicit AppleStoreProduct(SKProductPtr product) : product_(std::move(product)) {}
  std::string localizedDescription() const override { return product_->localizedDescription(); }
  std::string localizedTitle() const override { return product_->localizedTitle(); }
  zbiap::Decimal price() const override { return product_->price(); }
  std::string priceLocale() const override { return product_->priceLocale(); }
  std::string productIdentifier() const override { return product_->productIdentifier(); }
  std::optional<std::string> subscriptionGroupIdentifier() const override {
    return product_->subscriptionGroupIdentifier();
  }
  std::optional<ZBIAPStoreProductSubscriptionPeriod> subscriptionPeriod() const override {
    if (!product_->subscriptionPeriod()) return std::nullopt;
    return periodOf(*product_->subscriptionPeriod());
  }
  ZBIAPStoreProductDiscountPtr introductoryPrice() const override {
    return discountOf(product_->introductoryPrice());
  }
  std::vector<ZBIAPStoreProductDiscountPtr> discounts() const override {
    std::vector<ZBIAPStoreProductDiscountPtr> out;
    for (const auto& discount : product_->discounts()) out.push_back(discountOf(discount));
    return out;
  }
  const SKProductPtr& skProduct() const { return product_; }

 private:
  const SKProductPtr product_;
};

}  // namespace

SKProductPtr ZBIAPStoreApple::skProductOf(const ZBIAPStoreProductPtr& product) {
  const auto* apple = dynamic_cast<const AppleStoreProduct*>(product.get());
  return apple ? apple->skProduct() : nullptr;
}

ZBIAPStoreProductPtr ZBIAPStoreApple::storeProductFor(SKProductPtr product) {
  return product ? std::make_shared<const AppleStoreProduct>(std::move(product)) : nullptr;
}

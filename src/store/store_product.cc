#include "zbiap/store/store_product.h"

#include <fmt/format.h>
#include <unicode/locid.h>

#include <utility>

namespace {

char unitLetter(ZBIAPStoreProductSubscriptionPeriod::Unit unit, bool upper) {
  switch (unit) {
    case ZBIAPStoreProductSubscriptionPeriod::Unit::kDay:
      return upper ? 'D' : 'd';
    case ZBIAPStoreProductSubscriptionPeriod::Unit::kWeek:
      return upper ? 'W' : 'w';
    case ZBIAPStoreProductSubscriptionPeriod::Unit::kMonth:
      return upper ? 'M' : 'm';
    case ZBIAPStoreProductSubscriptionPeriod::Unit::kYear:
      return upper ? 'Y' : 'y';
  }
  return '?';
}

class PlainDiscount final : public ZBIAPStoreProductDiscount {
 public:
  explicit PlainDiscount(zbiap::StoreProductDiscountValues values) : v_(std::move(values)) {}
  zbiap::Decimal price() const override { return v_.price; }
  std::string priceLocale() const override { return v_.priceLocale; }
  std::string identifier() const override { return v_.identifier; }
  ZBIAPStoreProductSubscriptionPeriod subscriptionPeriod() const override {
    return v_.subscriptionPeriod;
  }
  uint64_t numberOfPeriods() const override { return v_.numberOfPeriods; }
  uint64_t paymentMode() const override { return v_.paymentMode; }
  uint64_t type() const override { return v_.type; }

 private:
  const zbiap::StoreProductDiscountValues v_;
};

class PlainProduct final : public ZBIAPStoreProduct {
 public:
  explicit PlainProduct(zbiap::StoreProductValues values) : v_(std::move(values)) {}
  std::string localizedDescription() const override { return v_.localizedDescription; }
  std::string localizedTitle() const override { return v_.localizedTitle; }
  zbiap::Decimal price() const override { return v_.price; }
  std::string priceLocale() const override { return v_.priceLocale; }
  std::string productIdentifier() const override { return v_.productIdentifier; }
  std::optional<std::string> subscriptionGroupIdentifier() const override {
    return v_.subscriptionGroupIdentifier;
  }
  std::optional<ZBIAPStoreProductSubscriptionPeriod> subscriptionPeriod() const override {
    return v_.subscriptionPeriod;
  }
  ZBIAPStoreProductDiscountPtr introductoryPrice() const override { return v_.introductoryPrice; }
  std::vector<ZBIAPStoreProductDiscountPtr> discounts() const override { return v_.discounts; }

 private:
  const zbiap::StoreProductValues v_;
};

}  // namespace

std::string ZBIAPStoreProductSubscriptionPeriod::durationString() const {
  return fmt::format("{}{}", numberOfUnits_, unitLetter(unit_, false));
}

std::string ZBIAPStoreProductSubscriptionPeriod::description() const {
  return fmt::format("P{}{}", numberOfUnits_, unitLetter(unit_, true));
}

std::string ZBIAPStoreProduct::priceLocaleCountryCode() const {
  return zbiap::countryCodeOfLocale(priceLocale());
}

namespace zbiap {

std::string countryCodeOfLocale(const std::string& localeIdentifier) {
  if (localeIdentifier.empty()) return {};
  icu::Locale locale = icu::Locale::createFromName(localeIdentifier.c_str());
  if (locale.isBogus()) return {};
  return locale.getCountry();
}

ZBIAPStoreProductDiscountPtr makeStoreProductDiscount(StoreProductDiscountValues values) {
  return std::make_shared<PlainDiscount>(std::move(values));
}

ZBIAPStoreProductPtr makeStoreProduct(StoreProductValues values) {
  return std::make_shared<PlainProduct>(std::move(values));
}

}  // namespace zbiap

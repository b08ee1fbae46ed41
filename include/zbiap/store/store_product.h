// ZBIAPStoreProduct and ZBIAPStoreProductDiscount: how the library sees a product a store
// sells and its discounts (abstract: a store binding or a test double implements them), and
// ZBIAPStoreProductSubscriptionPeriod, a count of day/week/month/year units.
//
// Products and discounts are immutable views, shared as shared_ptr<const ...> and safe to read
// from any thread. makeStoreProduct()/makeStoreProductDiscount() build plain ones from values.
#ifndef ZBIAP_STORE_STORE_PRODUCT_H_
#define ZBIAP_STORE_STORE_PRODUCT_H_

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "zbiap/export.h"
#include "zbiap/foundation/decimal.h"

class ZBIAP_EXPORT ZBIAPStoreProductSubscriptionPeriod {
 public:
  // The values of StoreKit's period units.
  enum class Unit : uint64_t { kDay = 0, kWeek = 1, kMonth = 2, kYear = 3 };

  constexpr ZBIAPStoreProductSubscriptionPeriod() = default;
  constexpr ZBIAPStoreProductSubscriptionPeriod(uint64_t numberOfUnits, Unit unit)
      : numberOfUnits_(numberOfUnits), unit_(unit) {}

  constexpr uint64_t numberOfUnits() const { return numberOfUnits_; }
  constexpr Unit unit() const { return unit_; }

  // The catalogue's duration text: the count and the unit letter "d", "w", "m" or "y" ("1m").
  std::string durationString() const;
  // ISO 8601 form: "P1M", "P2W".
  std::string description() const;

  friend constexpr bool operator==(const ZBIAPStoreProductSubscriptionPeriod&,
                                   const ZBIAPStoreProductSubscriptionPeriod&) = default;

 private:
  uint64_t numberOfUnits_ = 0;
  Unit unit_ = Unit::kDay;
};

class ZBIAP_EXPORT ZBIAPStoreProductDiscount {
 public:
  // StoreKit's payment modes and discount types.
  static constexpr uint64_t kPaymentModePayAsYouGo = 0;
  static constexpr uint64_t kPaymentModePayUpFront = 1;
  static constexpr uint64_t kPaymentModeFreeTrial = 2;
  static constexpr uint64_t kTypeIntroductory = 0;
  static constexpr uint64_t kTypeSubscription = 1;

  virtual ~ZBIAPStoreProductDiscount() = default;

  virtual zbiap::Decimal price() const = 0;
  // A locale identifier with the currency, as "en_US@currency=USD".
  virtual std::string priceLocale() const = 0;
  virtual std::string identifier() const = 0;
  virtual ZBIAPStoreProductSubscriptionPeriod subscriptionPeriod() const = 0;
  virtual uint64_t numberOfPeriods() const = 0;
  virtual uint64_t paymentMode() const = 0;
  virtual uint64_t type() const = 0;
};

using ZBIAPStoreProductDiscountPtr = std::shared_ptr<const ZBIAPStoreProductDiscount>;

class ZBIAP_EXPORT ZBIAPStoreProduct {
 public:
  virtual ~ZBIAPStoreProduct() = default;

  virtual std::string localizedDescription() const = 0;
  virtual std::string localizedTitle() const = 0;
  virtual zbiap::Decimal price() const = 0;
  // A locale identifier with the currency, as "en_US@currency=USD"; its country is the
  // storefront's.
  virtual std::string priceLocale() const = 0;
  virtual std::string productIdentifier() const = 0;
  virtual std::optional<std::string> subscriptionGroupIdentifier() const = 0;
  virtual std::optional<ZBIAPStoreProductSubscriptionPeriod> subscriptionPeriod() const = 0;
  // May be null.
  virtual ZBIAPStoreProductDiscountPtr introductoryPrice() const = 0;
  virtual std::vector<ZBIAPStoreProductDiscountPtr> discounts() const = 0;

  // The country code of priceLocale() ("US"), empty when it names none.
  std::string priceLocaleCountryCode() const;
};

using ZBIAPStoreProductPtr = std::shared_ptr<const ZBIAPStoreProduct>;

namespace zbiap {

// The country code of a locale identifier ("en_US@currency=USD" -> "US"); empty for none.
ZBIAP_EXPORT std::string countryCodeOfLocale(const std::string& localeIdentifier);

// Values of a plain product or discount.
struct ZBIAP_EXPORT StoreProductDiscountValues {
  Decimal price;
  std::string priceLocale;
  std::string identifier;
  ZBIAPStoreProductSubscriptionPeriod subscriptionPeriod;
  uint64_t numberOfPeriods = 0;
  uint64_t paymentMode = 0;
  uint64_t type = 0;
};

struct ZBIAP_EXPORT StoreProductValues {
  std::string localizedDescription;
  std::string localizedTitle;
  Decimal price;
  std::string priceLocale;
  std::string productIdentifier;
  std::optional<std::string> subscriptionGroupIdentifier;
  std::optional<ZBIAPStoreProductSubscriptionPeriod> subscriptionPeriod;
  ZBIAPStoreProductDiscountPtr introductoryPrice;
  std::vector<ZBIAPStoreProductDiscountPtr> discounts;
};

ZBIAP_EXPORT ZBIAPStoreProductDiscountPtr
makeStoreProductDiscount(StoreProductDiscountValues values);
ZBIAP_EXPORT ZBIAPStoreProductPtr makeStoreProduct(StoreProductValues values);

}  // namespace zbiap

#endif  // ZBIAP_STORE_STORE_PRODUCT_H_

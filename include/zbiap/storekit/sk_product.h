// SKProduct, SKProductDiscount and SKProductSubscriptionPeriod: the StoreKit seam's product
// data, immutable values shared as shared_ptr<const ...> and safe to read from any thread.
// A binding (the local simulator, or real StoreKit) builds them from SKProductValues.
#ifndef ZBIAP_STOREKIT_SK_PRODUCT_H_
#define ZBIAP_STOREKIT_SK_PRODUCT_H_

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <vector>

#include "zbiap/export.h"
#include "zbiap/foundation/decimal.h"

enum class SKProductPeriodUnit : uint64_t { kDay = 0, kWeek = 1, kMonth = 2, kYear = 3 };

struct ZBIAP_EXPORT SKProductSubscriptionPeriod {
  uint64_t numberOfUnits = 0;
  SKProductPeriodUnit unit = SKProductPeriodUnit::kDay;
  friend bool operator==(const SKProductSubscriptionPeriod&,
                         const SKProductSubscriptionPeriod&) = default;
};

enum SKProductDiscountPaymentMode : uint64_t {
  SKProductDiscountPaymentModePayAsYouGo = 0,
  SKProductDiscountPaymentModePayUpFront = 1,
  SKProductDiscountPaymentModeFreeTrial = 2,
};

enum SKProductDiscountType : uint64_t {
  SKProductDiscountTypeIntroductory = 0,
  SKProductDiscountTypeSubscription = 1,
};

struct ZBIAP_EXPORT SKProductDiscount {
  zbiap::Decimal price;
  std::string priceLocale;  // "en_US@currency=USD"
  std::string identifier;   // empty for an introductory offer
  SKProductSubscriptionPeriod subscriptionPeriod;
  uint64_t numberOfPeriods = 0;
  uint64_t paymentMode = SKProductDiscountPaymentModePayAsYouGo;
  uint64_t type = SKProductDiscountTypeIntroductory;
};

using SKProductDiscountPtr = std::shared_ptr<const SKProductDiscount>;

struct ZBIAP_EXPORT SKProductValues {
  std::string localizedDescription;
  std::string localizedTitle;
  zbiap::Decimal price;
  std::string priceLocale;  // language and storefront country, with the currency
  std::string productIdentifier;
  std::optional<std::string> subscriptionGroupIdentifier;
  std::optional<SKProductSubscriptionPeriod> subscriptionPeriod;
  SKProductDiscountPtr introductoryPrice;
  std::vector<SKProductDiscountPtr> discounts;
  bool isFamilyShareable = false;
};

class ZBIAP_EXPORT SKProduct {
 public:
  explicit SKProduct(SKProductValues values) : v_(std::move(values)) {}
  SKProduct(const SKProduct&) = delete;
  SKProduct& operator=(const SKProduct&) = delete;

  const std::string& localizedDescription() const { return v_.localizedDescription; }
  const std::string& localizedTitle() const { return v_.localizedTitle; }
  const zbiap::Decimal& price() const { return v_.price; }
  const std::string& priceLocale() const { return v_.priceLocale; }
  const std::string& productIdentifier() const { return v_.productIdentifier; }
  const std::optional<std::string>& subscriptionGroupIdentifier() const {
    return v_.subscriptionGroupIdentifier;
  }
  const std::optional<SKProductSubscriptionPeriod>& subscriptionPeriod() const {
    return v_.subscriptionPeriod;
  }
  const SKProductDiscountPtr& introductoryPrice() const { return v_.introductoryPrice; }
  const std::vector<SKProductDiscountPtr>& discounts() const { return v_.discounts; }
  bool isFamilyShareable() const { return v_.isFamilyShareable; }

  // "<SKProduct: 0x...>"
  std::string description() const;

 private:
  const SKProductValues v_;
};

using SKProductPtr = std::shared_ptr<const SKProduct>;

#endif  // ZBIAP_STOREKIT_SK_PRODUCT_H_

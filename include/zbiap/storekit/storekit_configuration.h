// zbiap::StoreKitConfiguration: the contents of an Xcode StoreKit configuration file
// (.storekit, JSON) as the local StoreKit simulator uses them: products (consumable,
// non-consumable, non-renewing and auto-renewable subscriptions with their groups, periods and
// offers), their localizations, and the test settings (storefront, locale, failing and
// ask-to-buy switches, time rate). Keys the reader does not take are named in ignoredFields when
// they set something, so that a user learns which parts of a file the simulator leaves out. A
// plain value.
#ifndef ZBIAP_STOREKIT_STOREKIT_CONFIGURATION_H_
#define ZBIAP_STOREKIT_STOREKIT_CONFIGURATION_H_

#include <cstdint>
#include <filesystem>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "zbiap/export.h"
#include "zbiap/foundation/decimal.h"
#include "zbiap/storekit/sk_product.h"

namespace zbiap {

struct ZBIAP_EXPORT StoreKitConfiguration {
  enum class ProductType { kConsumable, kNonConsumable, kNonRenewingSubscription, kAutoRenewable };

  struct Localization {
    std::string locale;  // "en_US"
    std::string displayName;
    std::string description;
  };

  struct Offer {
    std::string identifier;  // "offerID" of a promotional offer; empty otherwise
    uint64_t paymentMode = SKProductDiscountPaymentModeFreeTrial;
    SKProductSubscriptionPeriod subscriptionPeriod;
    uint64_t numberOfPeriods = 1;
    Decimal displayPrice = Decimal::fromInt(0);  // always 0 for a free trial
  };

  struct Product {
    std::string productID;
    std::string referenceName;
    ProductType type = ProductType::kNonConsumable;
    Decimal displayPrice;
    bool familyShareable = false;
    std::vector<Localization> localizations;
    // Auto-renewable subscriptions only.
    std::optional<std::string> subscriptionGroupID;
    std::optional<SKProductSubscriptionPeriod> recurringSubscriptionPeriod;
    // The file's "introductoryOffer", or the first of its "introductoryOffers".
    std::optional<Offer> introductoryOffer;
    std::vector<Offer> promotionalOffers;
  };

  std::vector<Product> products;
  std::string storefront = "USA";  // ISO 3166-1 alpha-3
  std::string locale = "en_US";
  bool failTransactionsEnabled = false;
  bool askToBuyEnabled = false;
  // How fast subscription time passes: 0 real time, 1 one second is one day, 2 one second is
  // one hour, 3 one minute is one day, 4 one minute is one hour; other values run in real time.
  int64_t timeRate = 0;
  // Fields of the file that set something the simulator does not use, each named once by where
  // it is ("settings._storeKitErrors", "subscriptions[].groupNumber"), sorted. Fields that only
  // describe the file (identifiers, version, sync dates) are not named.
  std::vector<std::string> ignoredFields;

  // What a user should know about the file before using it, one line each: the ignored fields,
  // a time rate the simulator does not know. Empty for a file it honours in full.
  std::vector<std::string> warnings() const;

  // Parses the JSON text of a .storekit file. On a malformed file (not JSON, a product
  // without an identifier, an unreadable price or period) gives nullopt and a one-line reason.
  static std::optional<StoreKitConfiguration> fromJSON(std::string_view text,
                                                       std::string* error = nullptr);
  static std::optional<StoreKitConfiguration> fromFile(const std::filesystem::path& path,
                                                       std::string* error = nullptr);

  const Product* productWithID(std::string_view productID) const;
};

// How many seconds of subscription time pass in one real second at `timeRate`; nullopt for a
// rate the simulator does not know, which then runs in real time.
ZBIAP_EXPORT std::optional<int64_t> subscriptionSpeedUp(int64_t timeRate);

// An ISO 8601 period of one unit ("P1M", "P3D", "P2W", "P1Y"); nullopt for anything else.
ZBIAP_EXPORT std::optional<SKProductSubscriptionPeriod> parseSubscriptionPeriod(
    std::string_view text);

}  // namespace zbiap

#endif  // ZBIAP_STOREKIT_STOREKIT_CONFIGURATION_H_

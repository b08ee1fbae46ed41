#include "zbiap/storekit/storekit_configuration.h"

#include <fstream>
#include <sstream>
#include <utility>

#include "zbiap/foundation/json.h"
#include "zbiap/foundation/value.h"

namespace zbiap {
namespace {

using Product = StoreKitConfiguration::Product;
using Offer = StoreKitConfiguration::Offer;

class Reader {
 public:
  explicit Reader(std::string* error) : error_(error) {}

  bool fail(std::string reason) {
    if (error_ && ok_) *error_ = std::move(reason);
    ok_ = false;
    return false;
  }
  bool ok() const { return ok_; }

  static std::string text(const Value& value) {
    const std::string* s = value.asString();
    return s ? *s : std::string();
  }
  static bool flag(const Value& value) { return value.boolValue().value_or(false); }

  // A price: the decimal text of "displayPrice" (a JSON number is taken too).
  bool price(const Value& value, const std::string& where, Decimal* out) {
    if (value.isNil()) {
      *out = Decimal::fromInt(0);
      return true;
    }
    Decimal d = value.isString() ? Decimal::fromString(*value.asString())
                                 : value.decimalValue().value_or(Decimal::notANumber());
    if (d.isNaN() || d.isNegative()) return fail(where + ": unreadable displayPrice");
    *out = d;
    return true;
  }

  std::vector<StoreKitConfiguration::Localization> localizations(const Value& value) {
    std::vector<StoreKitConfiguration::Localization> out;
    if (const Array* items = value.asArray()) {
      for (const Value& item : *items) {
        if (!item.isDictionary()) continue;
        out.push_back({text(item["locale"]), text(item["displayName"]), text(item["description"])});
      }
    }
    return out;
  }

  std::optional<Offer> offer(const Value& value, const std::string& where) {
    if (!value.isDictionary()) return std::nullopt;
    Offer offer;
    offer.identifier = text(value["offerID"]);
    const std::string mode = text(value["paymentMode"]);
    if (mode == "payAsYouGo") {
      offer.paymentMode = SKProductDiscountPaymentModePayAsYouGo;
    } else if (mode == "payUpFront") {
      offer.paymentMode = SKProductDiscountPaymentModePayUpFront;
    } else if (mode == "free" || mode.empty()) {
      offer.paymentMode = SKProductDiscountPaymentModeFreeTrial;
    } else {
      fail(where + ": unknown paymentMode '" + mode + "'");
      return std::nullopt;
    }
    auto period = parseSubscriptionPeriod(text(value["subscriptionPeriod"]));
    if (!period) {
      fail(where + ": unreadable offer subscriptionPeriod");
      return std::nullopt;
    }
    offer.subscriptionPeriod = *period;
    int64_t periods = value["numberOfPeriods"].int64Value().value_or(1);
    if (periods < 1) {
      fail(where + ": numberOfPeriods must be at least 1");
      return std::nullopt;
    }
    offer.numberOfPeriods = static_cast<uint64_t>(periods);
    if (!price(value["displayPrice"], where, &offer.displayPrice)) return std::nullopt;
    return offer;
  }

  // One entry of "products", "nonRenewingSubscriptions" or a group's "subscriptions".
  std::optional<Product> product(const Value& value, const std::string& where,
                                 const std::optional<std::string>& groupID) {
    if (!value.isDictionary()) {
      fail(where + ": not an object");
      return std::nullopt;
    }
    Product product;
    product.productID = text(value["productID"]);
    if (product.productID.empty()) {
      fail(where + ": missing productID");
      return std::nullopt;
    }
    const std::string at = where + " (" + product.productID + ")";
    product.referenceName = text(value["referenceName"]);
    const std::string type = text(value["type"]);
    if (type == "Consumable") {
      product.type = StoreKitConfiguration::ProductType::kConsumable;
    } else if (type == "NonConsumable") {
      product.type = StoreKitConfiguration::ProductType::kNonConsumable;
    } else if (type == "NonRenewingSubscription") {
      product.type = StoreKitConfiguration::ProductType::kNonRenewingSubscription;
    } else if (type == "RecurringSubscription" || groupID) {
      product.type = StoreKitConfiguration::ProductType::kAutoRenewable;
    } else {
      fail(at + ": unknown type '" + type + "'");
      return std::nullopt;
    }
    if (!price(value["displayPrice"], at, &product.displayPrice)) return std::nullopt;
    product.familyShareable = flag(value["familyShareable"]);
    product.localizations = localizations(value["localizations"]);
    if (product.type == StoreKitConfiguration::ProductType::kAutoRenewable) {
      std::string group = text(value["subscriptionGroupID"]);
      product.subscriptionGroupID = group.empty() ? groupID : std::optional<std::string>(group);
      auto period = parseSubscriptionPeriod(text(value["recurringSubscriptionPeriod"]));
      if (!period) {
        fail(at + ": unreadable recurringSubscriptionPeriod");
        return std::nullopt;
      }
      product.recurringSubscriptionPeriod = period;
      if (!value["introductoryOffer"].isNil() && !value["introductoryOffer"].isNull()) {
        product.introductoryOffer = offer(value["introductoryOffer"], at);
        if (!ok()) return std::nullopt;
      }
      if (const Array* offers = value["adHocOffers"].asArray()) {
        for (const Value& item : *offers) {
          auto promotional = offer(item, at);
          if (!ok()) return std::nullopt;
          if (promotional) product.promotionalOffers.push_back(std::move(*promotional));
        }
      }
    }
    return product;
  }

 private:
  std::string* error_;
  bool ok_ = true;
};

}  // namespace

std::optional<SKProductSubscriptionPeriod> parseSubscriptionPeriod(std::string_view text) {
  if (text.size() < 3 || text.front() != 'P') return std::nullopt;
  uint64_t count = 0;
  size_t i = 1;
  for (; i < text.size() && text[i] >= '0' && text[i] <= '9'; ++i) {
    count = count * 10 + static_cast<uint64_t>(text[i] - '0');
    if (count > 1000) return std::nullopt;
  }
  if (i == 1 || i + 1 != text.size() || count == 0) return std::nullopt;
  switch (text[i]) {
    case 'D':
      return SKProductSubscriptionPeriod{count, SKProductPeriodUnit::kDay};
    case 'W':
      return SKProductSubscriptionPeriod{count, SKProductPeriodUnit::kWeek};
    case 'M':
      return SKProductSubscriptionPeriod{count, SKProductPeriodUnit::kMonth};
    case 'Y':
      return SKProductSubscriptionPeriod{count, SKProductPeriodUnit::kYear};
    default:
      return std::nullopt;
  }
}

std::optional<StoreKitConfiguration> StoreKitConfiguration::fromJSON(std::string_view text,
                                                                     std::string* error) {
  std::string parseError;
  std::optional<Value> root = parseJSON(text, &parseError);
  if (!root || !root->isDictionary()) {
    if (error)
      *error = root ? "not a StoreKit configuration: the top level is not an object"
                    : "not JSON: " + parseError;
    return std::nullopt;
  }
  Reader reader(error);
  StoreKitConfiguration configuration;
  auto addAll = [&](const Value& list, const std::string& where,
                    const std::optional<std::string>& groupID) {
    const Array* items = list.asArray();
    if (!items) return;
    for (size_t i = 0; i < items->size() && reader.ok(); ++i) {
      auto product = reader.product((*items)[i], where + "[" + std::to_string(i) + "]", groupID);
      if (!product) return;
      if (configuration.productWithID(product->productID)) {
        reader.fail(where + ": duplicate productID " + product->productID);
        return;
      }
      configuration.products.push_back(std::move(*product));
    }
  };
  addAll((*root)["products"], "products", std::nullopt);
  addAll((*root)["nonRenewingSubscriptions"], "nonRenewingSubscriptions", std::nullopt);
  if (const Array* groups = (*root)["subscriptionGroups"].asArray()) {
    for (size_t g = 0; g < groups->size() && reader.ok(); ++g) {
      const Value& group = (*groups)[g];
      std::string id = Reader::text(group["id"]);
      if (id.empty()) id = Reader::text(group["name"]);
      addAll(group["subscriptions"], "subscriptionGroups[" + std::to_string(g) + "]", id);
    }
  }
  if (!reader.ok()) return std::nullopt;

  const Value& settings = (*root)["settings"];
  if (const std::string* storefront = settings["_storefront"].asString()) {
    configuration.storefront = *storefront;
  }
  if (const std::string* locale = settings["_locale"].asString()) configuration.locale = *locale;
  configuration.failTransactionsEnabled = Reader::flag(settings["_failTransactionsEnabled"]);
  configuration.askToBuyEnabled = Reader::flag(settings["_askToBuyEnabled"]);
  configuration.timeRate = settings["_timeRate"].int64Value().value_or(0);
  return configuration;
}

std::optional<StoreKitConfiguration> StoreKitConfiguration::fromFile(
    const std::filesystem::path& path, std::string* error) {
  std::ifstream in(path, std::ios::binary);
  if (!in) {
    if (error) *error = "cannot read " + path.string();
    return std::nullopt;
  }
  std::ostringstream text;
  text << in.rdbuf();
  return fromJSON(text.str(), error);
}

const StoreKitConfiguration::Product* StoreKitConfiguration::productWithID(
    std::string_view productID) const {
  for (const Product& product : products) {
    if (product.productID == productID) return &product;
  }
  return nullptr;
}

}  // namespace zbiap

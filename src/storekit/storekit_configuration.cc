#include "zbiap/storekit/storekit_configuration.h"

#include <algorithm>
#include <fstream>
#include <initializer_list>
#include <set>
#include <sstream>
#include <utility>

#include "zbiap/foundation/json.h"
#include "zbiap/foundation/value.h"

namespace zbiap {
namespace {

using Product = StoreKitConfiguration::Product;
using Offer = StoreKitConfiguration::Offer;

// Keys that describe the file or link its records to the developer's account, and set nothing a
// store does: read, and silently left alone.
constexpr std::string_view kBookkeeping[] = {
    "identifier",
    "internalID",
    "referenceName",
    "version",
    "_applicationInternalID",
    "_developerTeamID",
    "_lastSynchronizedDate",
};

template <typename Keys>
bool listed(const Keys& keys, std::string_view key) {
  return std::ranges::find(keys, key) != std::ranges::end(keys);
}

// Whether a value sets something: not null, false, zero or empty, and for an entry with an
// "enabled" switch, switched on. A localization's locale alone sets nothing.
bool setsSomething(const Value& value) {
  if (const std::string* text = value.asString()) return !text->empty();
  if (value.isNumber()) return value.boolValue().value_or(false);
  if (const Array* items = value.asArray()) {
    return std::any_of(items->begin(), items->end(), setsSomething);
  }
  if (const Dictionary* members = value.asDictionary()) {
    if (const Value* enabled = members->find("enabled")) return setsSomething(*enabled);
    return std::any_of(members->begin(), members->end(), [](const Dictionary::Entry& member) {
      return member.first != "locale" && setsSomething(member.second);
    });
  }
  return false;
}

class Reader {
 public:
  explicit Reader(std::string* error) : error_(error) {}

  // Notes the keys of `object` that set something the reader does not take (`used`), as
  // `where` + key: "settings._storeKitErrors".
  void noteIgnored(const Value& object, const std::string& where,
                   std::initializer_list<std::string_view> used) {
    const Dictionary* members = object.asDictionary();
    if (members == nullptr) return;
    for (const auto& [key, value] : *members) {
      if (!listed(used, key) && !listed(kBookkeeping, key) && setsSomething(value)) {
        ignored_.insert(where + key);
      }
    }
  }
  std::vector<std::string> ignored() const { return {ignored_.begin(), ignored_.end()}; }

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
        noteIgnored(item, "localizations[].", {"locale", "displayName", "description"});
        out.push_back({text(item["locale"]), text(item["displayName"]), text(item["description"])});
      }
    }
    return out;
  }

  // An introductory or promotional offer; `kind` names its list in ignored fields.
  std::optional<Offer> offer(const Value& value, const std::string& where,
                             const std::string& kind) {
    if (!value.isDictionary()) return std::nullopt;
    noteIgnored(
        value, kind + ".",
        {"offerID", "paymentMode", "subscriptionPeriod", "numberOfPeriods", "displayPrice"});
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
    // A free trial costs nothing, whatever price the file kept from before it was one.
    if (offer.paymentMode == SKProductDiscountPaymentModeFreeTrial) {
      offer.displayPrice = Decimal::fromInt(0);
    }
    return offer;
  }

  // The offers of `value`, one offer object or a list of them, appended to `out`; false when
  // one is malformed.
  bool offers(const Value& value, const std::string& where, const std::string& kind,
              std::vector<Offer>* out) {
    const Array* list = value.asArray();
    const Array single = value.isDictionary() ? Array{value} : Array{};
    for (const Value& item : list ? *list : single) {
      std::optional<Offer> read = offer(item, where, kind);
      if (!ok()) return false;
      if (read) out->push_back(std::move(*read));
    }
    return true;
  }

  // One entry of "products", "nonRenewingSubscriptions" or a group's "subscriptions", which
  // `kind` names.
  std::optional<Product> product(const Value& value, const std::string& where,
                                 const std::string& kind,
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
    if (product.type != StoreKitConfiguration::ProductType::kAutoRenewable) {
      noteIgnored(value, kind + ".",
                  {"productID", "type", "displayPrice", "familyShareable", "localizations"});
      return product;
    }
    noteIgnored(value, kind + ".",
                {"productID", "type", "displayPrice", "familyShareable", "localizations",
                 "subscriptionGroupID", "recurringSubscriptionPeriod", "introductoryOffer",
                 "introductoryOffers", "adHocOffers"});
    std::string group = text(value["subscriptionGroupID"]);
    product.subscriptionGroupID = group.empty() ? groupID : std::optional<std::string>(group);
    auto period = parseSubscriptionPeriod(text(value["recurringSubscriptionPeriod"]));
    if (!period) {
      fail(at + ": unreadable recurringSubscriptionPeriod");
      return std::nullopt;
    }
    product.recurringSubscriptionPeriod = period;
    // Older files hold one "introductoryOffer" object, newer ones an "introductoryOffers" list.
    std::vector<Offer> introductory;
    if (!offers(value["introductoryOffer"], at, "introductoryOffer", &introductory) ||
        !offers(value["introductoryOffers"], at, "introductoryOffers[]", &introductory) ||
        !offers(value["adHocOffers"], at, "adHocOffers[]", &product.promotionalOffers)) {
      return std::nullopt;
    }
    if (!introductory.empty()) product.introductoryOffer = introductory.front();
    if (introductory.size() > 1) ignored_.insert("introductoryOffers[] after the first");
    return product;
  }

 private:
  std::string* error_;
  bool ok_ = true;
  std::set<std::string> ignored_;
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
  auto addAll = [&](const Value& list, const std::string& where, const std::string& kind,
                    const std::optional<std::string>& groupID) {
    const Array* items = list.asArray();
    if (!items) return;
    for (size_t i = 0; i < items->size() && reader.ok(); ++i) {
      auto product =
          reader.product((*items)[i], where + "[" + std::to_string(i) + "]", kind, groupID);
      if (!product) return;
      if (configuration.productWithID(product->productID)) {
        reader.fail(where + ": duplicate productID " + product->productID);
        return;
      }
      configuration.products.push_back(std::move(*product));
    }
  };
  reader.noteIgnored(*root, "",
                     {"products", "nonRenewingSubscriptions", "subscriptionGroups", "settings"});
  addAll((*root)["products"], "products", "products[]", std::nullopt);
  addAll((*root)["nonRenewingSubscriptions"], "nonRenewingSubscriptions",
         "nonRenewingSubscriptions[]", std::nullopt);
  if (const Array* groups = (*root)["subscriptionGroups"].asArray()) {
    for (size_t g = 0; g < groups->size() && reader.ok(); ++g) {
      const Value& group = (*groups)[g];
      reader.noteIgnored(group, "subscriptionGroups[].", {"id", "name", "subscriptions"});
      std::string id = Reader::text(group["id"]);
      if (id.empty()) id = Reader::text(group["name"]);
      addAll(group["subscriptions"], "subscriptionGroups[" + std::to_string(g) + "]",
             "subscriptions[]", id);
    }
  }
  if (!reader.ok()) return std::nullopt;

  const Value& settings = (*root)["settings"];
  reader.noteIgnored(
      settings, "settings.",
      {"_storefront", "_locale", "_failTransactionsEnabled", "_askToBuyEnabled", "_timeRate"});
  configuration.ignoredFields = reader.ignored();
  if (const std::string* storefront = settings["_storefront"].asString()) {
    configuration.storefront = *storefront;
  }
  if (const std::string* locale = settings["_locale"].asString()) configuration.locale = *locale;
  configuration.failTransactionsEnabled = Reader::flag(settings["_failTransactionsEnabled"]);
  configuration.askToBuyEnabled = Reader::flag(settings["_askToBuyEnabled"]);
  configuration.timeRate = settings["_timeRate"].int64Value().value_or(0);
  return configuration;
}

std::vector<std::string> StoreKitConfiguration::warnings() const {
  std::vector<std::string> lines;
  if (!ignoredFields.empty()) {
    std::string names;
    for (const std::string& name : ignoredFields) names += (names.empty() ? "" : ", ") + name;
    lines.push_back("the StoreKit simulator ignores these fields of the configuration: " + names);
  }
  if (!subscriptionSpeedUp(timeRate)) {
    lines.push_back("the StoreKit simulator does not know _timeRate " + std::to_string(timeRate) +
                    " (0 to 4); subscriptions renew in real time");
  }
  return lines;
}

std::optional<int64_t> subscriptionSpeedUp(int64_t timeRate) {
  switch (timeRate) {
    case 0:
      return 1;
    case 1:
      return 86400;  // one second is one day
    case 2:
      return 3600;  // one second is one hour
    case 3:
      return 1440;  // one minute is one day
    case 4:
      return 60;  // one minute is one hour
    default:
      return std::nullopt;
  }
}

std::optional<StoreKitConfiguration> StoreKitConfiguration::fromFile(
    const std::filesystem::path& path, std::string* error) {
  // Only a regular file: opening a FIFO would wait for a writer, a directory cannot be read.
  std::error_code ignored;
  std::ifstream in;
  if (std::filesystem::is_regular_file(path, ignored)) in.open(path, std::ios::binary);
  if (!in.is_open()) {
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

// Product infos and features: reading them from their JSON objects (requirement levels, the
// inactive rule, the messages, what each field accepts, the language choice, colours), then
// equality, descriptions, and the prices of the attached store product with their observers.
#include "zbiap/catalog/product_info.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <cstring>
#include <string>
#include <vector>

#include "catalog/hex_color.h"
#include "testing/fake_store.h"
#include "testing/test_platform.h"
#include "zbiap/catalog/product_feature.h"
#include "zbiap/foundation/json.h"
#include "zbiap/store/store_product.h"

namespace zbiap {
namespace {

Value json(std::string_view text) { return parseJSON(text).value(); }

// The fields a record has, in a line; empty ones are left out. "-" for no record.
std::string fields(const std::shared_ptr<ZBIAPProductInfoV1>& dpi) {
  if (!dpi) return "-";
  std::string out = dpi->productIdentifier() + (dpi->active() ? "" : " inactive");
  auto add = [&out](const char* name, const std::string* text) {
    if (text) out += std::string(" ") + name + "=" + *text;
  };
  add("title", dpi->localizedTitle());
  add("subtitle", dpi->localizedSubtitle());
  add("description", dpi->localizedDescription());
  add("header", dpi->localizedHeader());
  add("trial", dpi->localizedFreeTrialTitle());
  add("icon", dpi->iconText());
  add("group", dpi->subscriptionGroupID());
  add("featureGroupID", dpi->featureGroupID());
  if (!dpi->sortKey().isNil()) out += " sort=" + dpi->sortKey().description();
  if (dpi->oldPrice()) out += " old=" + dpi->oldPrice()->toString();
  if (dpi->titleColor()) out += " titleColor=" + dpi->titleColor()->hexString();
  if (dpi->backgroundColor()) out += " background=" + dpi->backgroundColor()->hexString();
  if (dpi->defaultVisible()) out += " visible";
  if (dpi->requiresAccount()) out += " account";
  if (dpi->ignoreSubscriptionGroupForNewCustomers()) out += " newCustomers";
  if (!dpi->featureGroup().isNil()) out += " featureGroup";
  if (!dpi->metadata().isNil()) out += " metadata";
  if (dpi->featureSet()) out += " features=" + std::to_string(dpi->featureSet()->size());
  if (dpi->featureMetadata()) {
    out += " featureMetadata=" + std::to_string(dpi->featureMetadata()->size());
  }
  return out;
}

class ProductInfoTest : public ::testing::Test {
 protected:
  // The messages logged since the last call, short: "missing:title", "feature failed:identifier".
  std::string messages() {
    std::string out;
    for (std::string line : platform_.logLines()) {
      for (const auto& [from, to] : {std::pair{"Dynamic IAP Feature: ", "feature "},
                                     {"Dynamic IAP: ", ""},
                                     {"Required key '", "missing:"},
                                     {"Parsing the required key '", "failed:"}}) {
        if (size_t at = line.find(from); at != std::string::npos) {
          line.replace(at, std::strlen(from), to);
        }
      }
      out += (out.empty() ? "" : " ") + line.substr(0, line.find('\''));
    }
    platform_.clearLog();
    return out;
  }
  // The fields of an inactive product "a" with `extra` keys, less "a inactive".
  std::string read(const std::string& extra) {
    std::string all = fields(ZBIAPProductInfoV1::initWithDictionary(
        json(R"({"identifier":"a","inactive":true)" + extra + "}")));
    return all == "-" ? all : all.substr(std::min<size_t>(all.size(), 11));
  }

  testing::TestPlatform platform_;
};

struct Row {
  std::string json;
  const char* read;
  const char* messages = "";
};

TEST_F(ProductInfoTest, RequirementLevelsAndMessages) {
  const Row rows[] = {
      {R"({"identifier":"pro","inactive":false,"title":"Pro","sort_key":3,"unknown":[1,2]})",
       "pro title=Pro sort=3", ""},
      // Inactive excuses missing collected keys, never malformed ones; a key of the same length
      // is another key.
      {R"({"identifier":"old","inactive":true})", "old inactive", ""},
      {R"({"identifier":"old","inactive":false,"titlf":"T"})", "-",
       "missing:title missing:sort_key"},
      {R"({"identifier":"x","inactive":1,"title":null})", "-", "failed:title"},
      {R"({"identifier":"x","inactive":1,"title":"t","sort_key":null})", "-", "failed:sort_key"},
      {R"({"identifier":"x","inactive":1,"sort_key":"5"})", "-", "failed:sort_key"},
      // Immediate keys stop the reader at the first fault, in the table's order; so does a
      // malformed title, before the missing sort key would be reported.
      {R"({"title":[],"sort_key":1})", "-", "missing:identifier"},
      {R"({"identifier":["a"],"inactive":false})", "-", "failed:identifier"},
      {R"({"identifier":"a"})", "-", "missing:inactive"},
      {R"({"identifier":"a","inactive":"true","title":"t","sort_key":1})", "-", "failed:inactive"},
      {R"({"identifier":null,"inactive":false,"title":"t","sort_key":1})", "-",
       "failed:identifier"},
      {R"({"identifier":"a","inactive":null,"title":"t","sort_key":1})", "-", "failed:inactive"},
      {R"({"identifier":"a","inactive":false,"title":{"fr":"seul"}})", "-", "failed:title"},
      // Strings take numbers as their text; a boolean is a number.
      {R"({"identifier":42,"inactive":false,"title":"t","sort_key":1})", "42 title=t sort=1", ""},
      {R"({"identifier":true,"inactive":0,"title":"t","sort_key":true})", "1 title=t sort=1", ""},
      {R"({"identifier":9.99,"inactive":false,"title":"t","sort_key":1})", "9.99 title=t sort=1",
       ""},
      {"null", "-", ""},
      {"[{}]", "-", ""},
      {R"("pro")", "-", ""},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(fields(ZBIAPProductInfoV1::initWithDictionary(json(row.json))), row.read) << row.json;
    EXPECT_EQ(messages(), row.messages) << row.json;
  }
  const Row features[] = {
      {R"({"identifier":"sync","extra":1})", "sync", ""},
      {R"({"identifier":{}})", "-", "feature failed:identifier"},
      {R"({"identifier":null})", "-", "feature failed:identifier"},
      {R"({"metadata":{}})", "-", "feature missing:identifier"},
      {"42", "-", ""},
  };
  for (const Row& row : features) {
    auto feature = ZBIAPProductFeatureV1::initWithDictionary(json(row.json));
    EXPECT_EQ(feature ? feature->identifier() : "-", row.read) << row.json;
    EXPECT_EQ(messages(), row.messages) << row.json;
  }
}

TEST_F(ProductInfoTest, OptionalFieldsIgnoreWhatTheyCannotRead) {
  const Row rows[] = {
      {R"(,"title":"T","subtitle":null,"description":7,"metadata":[],"feature_group":"g",)"
       R"("features":{},"features_metadata":"x","old_price":[1],"title_color":5,)"
       R"("default_visible":"yes","requires_account":null,"feature_group_id":{"x":1})",
       "title=T"},
      {R"(,"default_visible":1,"requires_account":true,"new_customers_visible":2,"iap_group":7,)"
       R"("icon_text":"I","free_trial_title":"F","metadata":{"a":1},"feature_group":{"g":1})",
       "trial=F icon=I group=7 visible account newCustomers featureGroup metadata"},
      // Old prices are exact decimals; text that is no number is not-a-number.
      {R"(,"old_price":"9.99")", "old=9.99"},
      {R"(,"old_price":0.1)", "old=0.1"},
      {R"(,"old_price":"12345678901234567890.5")", "old=12345678901234567890.5"},
      {R"(,"old_price":"nine")", "old=NaN"},
      {R"(,"old_price":true)", "old=1"},
      {R"(,"old_price":null)", ""},
      // "sync" once; 1, true and 1.0 are one number; the text "1" is not; equal objects once.
      {R"(,"features":["sync","sync",1,true,"1",1.0,{"k":[1]},{"k":[1]}])", "features=4", ""},
      // The set keeps the features that read; the rejected one reports itself.
      {R"(,"features_metadata":[{"identifier":"sync","metadata":{"limit":3}},42,)"
       R"({"metadata":{}},"x",{"identifier":7,"metadata":"ignored"}])",
       "featureMetadata=2", "feature missing:identifier"},
      {R"(,"features_metadata":[1,[]])", "featureMetadata=0"},
      {R"(,"background_color":"#1a2B3c","title_color":"fff")",
       "titleColor=#ffffff background=#1a2b3c"},
  };
  for (const Row& row : rows) {
    EXPECT_EQ(read(row.json), row.read) << row.json;
    EXPECT_EQ(messages(), row.messages) << row.json;
  }
  // clang-format off
  const std::pair<const char*, const char*> colours[] = {
      {"#1a2B3c", "#1a2b3c"}, {"1a2B3c", "#1a2b3c"}, {"#abc", "#aabbcc"}, {"ABC", "#aabbcc"},
      {"#fzz", "#ff0000"}, {"#1a2B3", ""}, {"1a2B3c4", ""}, {"#1g2b3c", ""}, {"zab", ""}, {"", ""},
      {"#", ""}, {"##ab", ""}, {"#12345678", ""},
      // As the C library converts: strtoul skips blanks and takes a sign, each pair must be
      // read whole; lengths count UTF-16 units, so "#fé" + "é" is four and reads as red, and an
      // astral character is two units.
      {" f0000", "#0f0000"}, {"0x0000", ""}, {"f 0000", ""}, {"#f\xc3\xa9\xc3\xa9", "#ff0000"},
      {"\xc3\xa9" "ab", ""}, {"ab\xc3\xa9" "def", ""}, {"a\xf0\x9f\x98\x80", "#aa0000"}};
  // clang-format on
  for (const auto& [text, hex] : colours) {
    EXPECT_EQ(read(std::string(R"(,"background_color":")") + text + "\""),
              *hex ? std::string("background=") + hex : "")
        << text;
  }
  EXPECT_EQ(colorFromHexString("\xff\xfe\xfd"), std::nullopt);
  auto dpi = ZBIAPProductInfoV1::initWithDictionary(
      json(R"({"identifier":"a","features_metadata":[{"identifier":"sync","metadata":{"limit":3}},)"
           R"({"identifier":7,"metadata":"ignored"}],"inactive":true})"));
  EXPECT_EQ(dpi->metadataForFeatureIdentifier("sync")->metadata(), json(R"({"limit":3})"));
  EXPECT_TRUE(dpi->metadataForFeatureIdentifier("7")->metadata().isNil());
  EXPECT_EQ(dpi->metadataForFeatureIdentifier("export"), nullptr);
  // The very dictionary, unknown keys included, is kept rather than copied.
  const Value dictionary = json(R"({"identifier":"sync","extra":1})");
  auto feature = ZBIAPProductFeatureV1::initWithDictionary(dictionary);
  EXPECT_EQ(feature->dictionaryRepresentation().asDictionary(), dictionary.asDictionary());
  EXPECT_EQ(ZBIAPProductInfoV1::initWithDictionary(dpi->dictionaryRepresentation())
                ->dictionaryRepresentation()
                .asDictionary(),
            dpi->dictionaryRepresentation().asDictionary());
}

TEST_F(ProductInfoTest, TextsInTheFirstPreferredLanguageElseGerman) {
  constexpr char kFrenchAndGerman[] = R"({"fr":"Bonjour","de":"Hallo"})";
  // A plain text is taken whatever the language; an entry that is not a text counts as absent;
  // a required title without a match is a fault, an optional text stays empty.
  const struct {
    std::vector<std::string> languages;
    std::string extra;
    const char* read;
  } rows[] = {
      {{"fr-FR", "en-US"}, kFrenchAndGerman, "title=Bonjour"},
      {{"en-GB", "fr-FR"}, kFrenchAndGerman, "title=Hallo"},
      {{}, kFrenchAndGerman, "title=Hallo"},
      {{"ja"}, R"("Plain")", "title=Plain"},
      {{"fr"}, R"({"fr":7,"de":"Hallo"})", "title=Hallo"},
      {{"f"}, R"({"f":"Eff","de":"Hallo"})", "title=Eff"},
      {{"fr-FR"}, R"({"en":"Hello"})", "-"},
      {{"fr-FR"}, R"({})", "-"},
      {{"fr-FR"}, R"(["Hello"])", "-"},
      {{"en"}, R"("T","subtitle":{"fr":"Salut"},"header":{"de":"Kopf"})", "title=T header=Kopf"},
  };
  for (const auto& row : rows) {
    platform_.setPreferredLanguages(row.languages);
    EXPECT_EQ(read(R"(,"title":)" + row.extra), row.read) << row.extra;
    EXPECT_EQ(messages(), std::string(row.read) == "-" ? "failed:title" : "") << row.extra;
  }
  // An override is used whole, whatever the user's languages.
  platform_.setEnv("ZBIAP_OVERRIDE_LOCALE", "fr");
  EXPECT_EQ(read(R"(,"title":{"fr-CA":"Allo","fr":"Bonjour"})"), "title=Bonjour");
  platform_.setEnv("ZBIAP_OVERRIDE_LOCALE", "fr-CA");
  EXPECT_EQ(read(R"(,"title":{"fr-CA":"Allo","fr":"Bonjour"})"), "title=Allo");
  // One language choice serves a whole catalogue.
  CatalogLanguage french("fr");
  EXPECT_EQ(fields(ZBIAPProductInfoV1::initWithDictionary(
                json(R"({"identifier":"a","inactive":true,"title":{"fr":"Bonjour","de":"H"},)"
                     R"("subtitle":{"fr":"Salut","de":"Hallo"}})"),
                french)),
            "a inactive title=Bonjour subtitle=Salut");
}

constexpr char kBase[] =
    R"("identifier":"pro","inactive":false,"title":{"en":"Pro","de":"Profi"},"sort_key":1,)"
    R"("subtitle":"All","background_color":"#123456","old_price":"9.99","metadata":{"a":1},)"
    R"("features":["sync"],"feature_group":{"g":1},"iap_group":"g1","free_trial_title":"Try")";

std::shared_ptr<ZBIAPProductInfoV1> make(const std::string& extra = "") {
  return ZBIAPProductInfoV1::initWithDictionary(json(std::string("{") + kBase + extra + "}"));
}

ZBIAPStoreProductPtr product(const char* price, const char* locale) {
  return testing::FakeStore::makeProduct("pro", price, locale);
}

TEST_F(ProductInfoTest, EqualityLeavesSomeFieldsOut) {
  auto base = make();
  EXPECT_TRUE(base->isEqual(*make()));
  EXPECT_EQ(std::hash<ZBIAPProductInfoV1>()(*base), std::hash<std::string>()("pro"));
  // Left out of equality; numbers compare by value, so 9.990 is the same old price as "9.99".
  for (const char* extra :
       {R"(,"sort_key":99)", R"(,"iap_group":"other")", R"(,"free_trial_title":"Other")",
        R"(,"free_trial_description":"Other")", R"(,"feature_group":{"g":2})",
        R"(,"features":["export"])", R"(,"unknown":true)", R"(,"old_price":9.990)"}) {
    EXPECT_TRUE(base->isEqual(*make(extra))) << extra;
  }
  for (const char* extra : {R"(,"identifier":"pro2")",
                            R"(,"inactive":true)",
                            R"(,"default_visible":1)",
                            R"(,"new_customers_visible":true)",
                            R"(,"title":"Other")",
                            R"(,"subtitle":"Other")",
                            R"(,"description":"D")",
                            R"(,"header":"H")",
                            R"(,"icon_text":"I")",
                            R"(,"title_color":"fff")",
                            R"(,"background_color":"#123457")",
                            R"(,"old_price":9.98)",
                            R"(,"old_price":"x")",
                            R"(,"pre_buy_title":"P")",
                            R"(,"pre_buy_message":"P")",
                            R"(,"pre_buy_action_title":"P")",
                            R"(,"requires_account":true)",
                            R"(,"feature_group_id":"f")",
                            R"(,"metadata":{"a":2})",
                            R"(,"metadata":null)"}) {
    EXPECT_FALSE(base->isEqual(*make(extra))) << extra;
    EXPECT_FALSE(*base == *make(extra)) << extra;
  }
}

TEST_F(ProductInfoTest, ObjectsTakePartByIdentity) {
  // The store product: the same object or none on both sides.
  auto a = make(), b = make();
  ZBIAPStoreProductPtr usd = product("1.99", "en_US@currency=USD");
  a->setProduct(usd);
  EXPECT_FALSE(a->isEqual(*b));
  b->setProduct(usd);
  EXPECT_TRUE(a->isEqual(*b));
  b->setProduct(product("1.99", "en_US@currency=USD"));
  EXPECT_FALSE(a->isEqual(*b));

  // Features compare by value but hash by identity, so separately built feature sets never
  // compare equal, nor do the product infos holding them, until they share one.
  const Value dictionary = json(R"({"identifier":"sync","metadata":{"limit":3}})");
  auto f1 = ZBIAPProductFeatureV1::initWithDictionary(dictionary);
  auto f2 = ZBIAPProductFeatureV1::initWithDictionary(dictionary);
  EXPECT_TRUE(f1->isEqual(*f2));
  EXPECT_NE(f1->hash(), f2->hash());
  EXPECT_EQ((ProductFeatureSet{f1, f2}).size(), 2u);
  f2->setMetadata(Value());
  EXPECT_FALSE(f1->isEqual(*f2));
  const std::string features = R"(,"features_metadata":[{"identifier":"sync"}])";
  auto c = make(features), d = make(features);
  EXPECT_FALSE(c->isEqual(*d));
  d->setFeatureMetadata(c->featureMetadata());
  EXPECT_TRUE(c->isEqual(*d));
}

TEST_F(ProductInfoTest, Descriptions) {
  auto flagged = make(R"(,"inactive":true,"requires_account":1,"new_customers_visible":1)");
  flagged->setProduct(product("9.99", "de_DE@currency=EUR"));
  EXPECT_EQ(flagged->description(),
            fmt::format("<ZBIAPProductInfoV1:{} 'pro' (inactive) (requires account) 9,99\u00a0€"
                        " (ignores nil sub group) Group ID: g1 - Pro>",
                        static_cast<const void*>(flagged.get())));
  auto bare = ZBIAPProductInfoV1::initWithDictionary(json(R"({"identifier":"x","inactive":true})"));
  EXPECT_EQ(bare->description(), fmt::format("<ZBIAPProductInfoV1:{} 'x' (inactive) - (null)>",
                                             static_cast<const void*>(bare.get())));
  auto feature = ZBIAPProductFeatureV1::initWithDictionary(json(R"({"identifier":"sync"})"));
  EXPECT_EQ(feature->description(), fmt::format("<ZBIAPProductFeatureV1:{} 'sync' - (null)>",
                                                static_cast<const void*>(feature.get())));
}

TEST_F(ProductInfoTest, PricesInThePriceLocale) {
  // ICU's own spacing: no-break spaces around the symbol, narrow ones as Swiss group separators;
  // half-even rounding to the currency's digits.
  const struct {
    const char* locale;
    const char* price;
    const char* oldPrice;
    const char* expectedPrice;
    const char* expectedOldPrice;
  } rows[] = {
      {"de_DE@currency=EUR", "9.99", R"("1234.5")", "9,99\u00a0€", "1.234,50\u00a0€"},
      {"en_US@currency=USD", "9.99", R"("1234.5")", "$9.99", "$1,234.50"},
      {"ja_JP@currency=JPY", "9.99", R"("1234")", "￥10", "￥1,234"},
      {"fr_CH@currency=CHF", "9.99", R"("1234.5")", "9.99\u00a0CHF", "1\u202f234.50\u00a0CHF"},
      {"en_US@currency=USD", "0.005", R"("free")", "$0.00", "$NaN"},
      {"en_US@currency=USD", "1", "null", "$1.00", nullptr},
  };
  for (const auto& row : rows) {
    auto dpi = make(std::string(R"(,"old_price":)") + row.oldPrice);
    EXPECT_FALSE(dpi->price() || dpi->localizedPrice() || dpi->localizedOldPrice());
    dpi->setProduct(product(row.price, row.locale));
    EXPECT_EQ(dpi->price()->toString(), row.price);
    EXPECT_EQ(dpi->localizedPrice(), row.expectedPrice) << row.locale;
    EXPECT_EQ(dpi->localizedOldPrice(), row.expectedOldPrice
                                            ? std::optional<std::string>(row.expectedOldPrice)
                                            : std::nullopt)
        << row.locale;
  }
}

TEST_F(ProductInfoTest, ObserversHearEverySetOfTheProduct) {
  auto dpi = make(R"(,"old_price":20)");
  std::vector<std::string> heard;
  struct Text {
    std::string operator()(const ZBIAPStoreProductPtr& p) const { return p ? "set" : "nil"; }
    std::string operator()(const std::optional<Decimal>& d) const {
      return d ? d->toString() : "nil";
    }
    std::string operator()(const std::optional<std::string>& s) const { return s.value_or("nil"); }
  };
  auto listen = [&heard](auto& observers, std::string name) {
    return observers.observe([&heard, name](const auto& from, const auto& to) {
      heard.push_back(name + " " + Text()(from) + "->" + Text()(to));
    });
  };
  ObserverToken productToken = listen(dpi->productObservers(), "product");
  ObserverToken priceToken = listen(dpi->priceObservers(), "price");
  ObserverToken localizedToken = listen(dpi->localizedPriceObservers(), "localizedPrice");
  ObserverToken oldToken = listen(dpi->localizedOldPriceObservers(), "localizedOldPrice");

  ZBIAPStoreProductPtr usd = product("9.99", "en_US@currency=USD");
  dpi->setProduct(usd);
  // Setting the same product again still tells the observers.
  dpi->setProduct(usd);
  priceToken.reset();
  oldToken.reset();
  dpi->setProduct(nullptr);
  EXPECT_EQ(heard, (std::vector<std::string>{
                       "product nil->set", "price nil->9.99", "localizedPrice nil->$9.99",
                       "localizedOldPrice nil->$20.00", "product set->set", "price 9.99->9.99",
                       "localizedPrice $9.99->$9.99", "localizedOldPrice $20.00->$20.00",
                       "product set->nil", "localizedPrice $9.99->nil"}));
}

}  // namespace
}  // namespace zbiap

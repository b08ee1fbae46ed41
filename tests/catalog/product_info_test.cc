// Product infos and features once read: equality, hashing, descriptions, and the prices of the
// attached store product with the observers told when it is set.
#include "zbiap/catalog/product_info.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "testing/fake_store.h"
#include "testing/test_platform.h"
#include "zbiap/catalog/product_feature.h"
#include "zbiap/foundation/json.h"
#include "zbiap/store/store_product.h"

namespace zbiap {
namespace {

constexpr char kBase[] =
    R"("identifier":"pro","inactive":false,"title":{"en":"Pro","de":"Profi"},"sort_key":1,)"
    R"("subtitle":"All","background_color":"#123456","old_price":"9.99","metadata":{"a":1},)"
    R"("features":["sync"],"feature_group":{"g":1},"iap_group":"g1","free_trial_title":"Try")";

Value json(std::string_view text) { return parseJSON(text).value(); }

std::shared_ptr<ZBIAPProductInfoV1> make(const std::string& extra = "") {
  return ZBIAPProductInfoV1::initWithDictionary(json(std::string("{") + kBase + extra + "}"));
}

ZBIAPStoreProductPtr product(const char* price, const char* locale) {
  return testing::FakeStore::makeProduct("pro", price, locale);
}

class ProductInfoTest : public ::testing::Test {
  testing::TestPlatform platform_;
};

TEST_F(ProductInfoTest, EqualityLeavesSomeFieldsOut) {
  auto base = make();
  EXPECT_TRUE(base->isEqual(*make()));
  EXPECT_EQ(std::hash<ZBIAPProductInfoV1>()(*base), std::hash<std::string>()("pro"));
  const std::pair<const char*, bool> rows[] = {
      {R"(,"sort_key":99)", true},
      {R"(,"iap_group":"other")", true},
      {R"(,"free_trial_title":"Other")", true},
      {R"(,"free_trial_description":"Other")", true},
      {R"(,"feature_group":{"g":2})", true},
      {R"(,"features":["export"])", true},
      {R"(,"unknown":true)", true},
      // Numbers compare by value: 9.99 as text or as number is the same old price.
      {R"(,"old_price":9.990)", true},
      {R"(,"identifier":"pro2")", false},
      {R"(,"inactive":true)", false},
      {R"(,"default_visible":1)", false},
      {R"(,"new_customers_visible":true)", false},
      {R"(,"title":"Other")", false},
      {R"(,"subtitle":"Other")", false},
      {R"(,"description":"D")", false},
      {R"(,"header":"H")", false},
      {R"(,"icon_text":"I")", false},
      {R"(,"title_color":"fff")", false},
      {R"(,"background_color":"#123457")", false},
      {R"(,"old_price":9.98)", false},
      {R"(,"old_price":"x")", false},
      {R"(,"pre_buy_title":"P")", false},
      {R"(,"pre_buy_message":"P")", false},
      {R"(,"pre_buy_action_title":"P")", false},
      {R"(,"requires_account":true)", false},
      {R"(,"feature_group_id":"f")", false},
      {R"(,"metadata":{"a":2})", false},
      {R"(,"metadata":null)", false},
  };
  for (const auto& [extra, equal] : rows) {
    auto other = make(extra);
    EXPECT_EQ(base->isEqual(*other), equal) << extra;
    EXPECT_EQ(*base == *other, equal) << extra;
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
  auto dpi = make();
  EXPECT_EQ(dpi->description(),
            fmt::format("<ZBIAPProductInfoV1:{} 'pro' (ACTIVE) Group ID: g1 - Pro>",
                        static_cast<const void*>(dpi.get())));
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
  auto text = [](const auto& value) {
    if constexpr (std::is_same_v<std::decay_t<decltype(value)>, std::optional<Decimal>>) {
      return value ? value->toString() : std::string("nil");
    } else {
      return value.value_or("nil");
    }
  };
  auto listen = [&](auto& observers, std::string name) {
    return observers.observe([&heard, name, text](const auto& from, const auto& to) {
      heard.push_back(name + " " + text(from) + "->" + text(to));
    });
  };
  ObserverToken productToken = dpi->productObservers().observe([&](const ZBIAPStoreProductPtr& from,
                                                                   const ZBIAPStoreProductPtr& to) {
    heard.push_back(std::string("product ") + (from ? "set" : "nil") + "->" + (to ? "set" : "nil"));
  });
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

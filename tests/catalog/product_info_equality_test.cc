// Equality, hashing and description of DPIs and features.
#include <fmt/format.h>
#include <gtest/gtest.h>

#include <string>

#include "testing/fake_store.h"
#include "tests/catalog/record_test_fixture.h"
#include "zbiap/catalog/product_feature.h"
#include "zbiap/catalog/product_info.h"
#include "zbiap/store/store_product.h"

namespace zbiap {
namespace {

constexpr char kBase[] =
    R"("identifier":"pro","inactive":false,"title":{"en":"Pro","de":"Profi"},"sort_key":1,)"
    R"("subtitle":"All","background_color":"#123456","old_price":"9.99","metadata":{"a":1},)"
    R"("features":["sync"],"feature_group":{"g":1},"iap_group":"g1","free_trial_title":"Try")";

class ProductInfoEqualityTest : public testing::RecordTest {
 protected:
  std::shared_ptr<ZBIAPProductInfoV1> make(const std::string& extra = "") {
    auto dpi = ZBIAPProductInfoV1::initWithDictionary(json(std::string("{") + kBase + extra + "}"));
    EXPECT_NE(dpi, nullptr) << extra;
    return dpi;
  }
};

TEST_F(ProductInfoEqualityTest, SameDictionaryGivesEqualDPIs) {
  auto a = make(), b = make();
  EXPECT_TRUE(a->isEqual(*b));
  EXPECT_EQ(*a, *b);
  EXPECT_EQ(a->hash(), b->hash());
  EXPECT_EQ(std::hash<ZBIAPProductInfoV1>()(*a), std::hash<std::string>()("pro"));
  // Rebuilding from the kept dictionary gives an equal DPI.
  EXPECT_EQ(*ZBIAPProductInfoV1::initWithDictionary(a->dictionaryRepresentation()), *a);
}

TEST_F(ProductInfoEqualityTest, FieldsLeftOutOfEquality) {
  auto base = make();
  for (const char* extra :
       {R"(,"sort_key":99)", R"(,"iap_group":"other")", R"(,"free_trial_title":"Other")",
        R"(,"free_trial_description":"Other")", R"(,"feature_group":{"g":2})",
        R"(,"features":["export"])", R"(,"unknown":true)"}) {
    auto other = make(extra);
    EXPECT_TRUE(base->isEqual(*other)) << extra;
    EXPECT_EQ(base->hash(), other->hash()) << extra;
  }
}

TEST_F(ProductInfoEqualityTest, FieldsThatCount) {
  auto base = make();
  // clang-format off
  for (const char* extra : {
           R"(,"identifier":"pro2")", R"(,"inactive":true)", R"(,"default_visible":1)",
           R"(,"new_customers_visible":true)", R"(,"title":"Other")", R"(,"subtitle":"Other")",
           R"(,"description":"D")", R"(,"header":"H")", R"(,"icon_text":"I")",
           R"(,"title_color":"fff")", R"(,"background_color":"#123457")", R"(,"old_price":9.98)",
           R"(,"old_price":"x")", R"(,"pre_buy_title":"P")", R"(,"pre_buy_message":"P")",
           R"(,"pre_buy_action_title":"P")", R"(,"requires_account":true)",
           R"(,"feature_group_id":"f")", R"(,"metadata":{"a":2})", R"(,"metadata":null)"}) {
    // clang-format on
    EXPECT_FALSE(base->isEqual(*make(extra))) << extra;
  }
  // Numbers compare by value: 9.99 as text or as number is the same old price.
  EXPECT_TRUE(base->isEqual(*make(R"(,"old_price":9.990)")));
}

TEST_F(ProductInfoEqualityTest, ProductTakesPartByIdentity) {
  auto a = make(), b = make();
  ZBIAPStoreProductPtr product =
      testing::FakeStore::makeProduct("pro", "1.99", "en_US@currency=USD");
  a->setProduct(product);
  EXPECT_FALSE(a->isEqual(*b));
  b->setProduct(product);
  EXPECT_TRUE(a->isEqual(*b));
  b->setProduct(testing::FakeStore::makeProduct("pro", "1.99", "en_US@currency=USD"));
  EXPECT_FALSE(a->isEqual(*b));
}

TEST_F(ProductInfoEqualityTest, FeaturesHashByIdentityAndCompareByValue) {
  const Value dictionary = json(R"({"identifier":"sync","metadata":{"limit":3}})");
  auto f1 = ZBIAPProductFeatureV1::initWithDictionary(dictionary);
  auto f2 = ZBIAPProductFeatureV1::initWithDictionary(dictionary);
  EXPECT_TRUE(f1->isEqual(*f2));
  EXPECT_NE(f1->hash(), f2->hash());
  f2->setMetadata(Value());
  EXPECT_FALSE(f1->isEqual(*f2));

  // Separately built feature sets never compare equal, so neither do the DPIs holding them.
  const std::string features = R"(,"features_metadata":[{"identifier":"sync"}])";
  auto a = make(features), b = make(features);
  EXPECT_FALSE(a->isEqual(*b));
  EXPECT_TRUE(a->isEqual(*make()) == false);
  // Sharing one set makes them equal again.
  b->setFeatureMetadata(a->featureMetadata());
  EXPECT_TRUE(a->isEqual(*b));
  // A set may hold features equal by value.
  ProductFeatureSet set{f1, ZBIAPProductFeatureV1::initWithDictionary(dictionary)};
  EXPECT_EQ(set.size(), 2u);
}

TEST_F(ProductInfoEqualityTest, Descriptions) {
  auto dpi = make();
  EXPECT_EQ(dpi->description(),
            fmt::format("<ZBIAPProductInfoV1:{} 'pro' (ACTIVE) Group ID: g1 - Pro>",
                        static_cast<const void*>(dpi.get())));
  auto flagged = make(R"(,"inactive":true,"requires_account":1,"new_customers_visible":1)");
  flagged->setProduct(testing::FakeStore::makeProduct("pro", "9.99", "de_DE@currency=EUR"));
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

}  // namespace
}  // namespace zbiap

// Reading DPIs and features from their JSON objects: requirement levels, the inactive rule,
// the messages, and what each parse function accepts.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <string>

#include "tests/catalog/record_test_fixture.h"
#include "zbiap/catalog/product_feature.h"
#include "zbiap/catalog/product_info.h"

namespace zbiap {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

std::string missing(const std::string& key) {
  return "Dynamic IAP: Required key '" + key + "' is missing!";
}
std::string failed(const std::string& key) {
  return "Dynamic IAP: Parsing the required key '" + key + "' failed!";
}

class ProductInfoReaderTest : public testing::RecordTest {
 protected:
  std::shared_ptr<ZBIAPProductInfoV1> read(std::string_view text) {
    return ZBIAPProductInfoV1::initWithDictionary(json(text));
  }
};

TEST_F(ProductInfoReaderTest, MinimalActiveProductHasEveryOptionalFieldEmpty) {
  const Value dictionary = json(R"({"identifier":"pro","inactive":false,"title":"Pro",)"
                                R"("sort_key":3,"unknown":[1,2]})");
  auto dpi = ZBIAPProductInfoV1::initWithDictionary(dictionary);
  ASSERT_NE(dpi, nullptr);
  EXPECT_THAT(log(), IsEmpty());
  EXPECT_EQ(dpi->productIdentifier(), "pro");
  EXPECT_TRUE(dpi->active());
  EXPECT_EQ(*dpi->localizedTitle(), "Pro");
  EXPECT_EQ(dpi->sortKey(), Value(3));
  EXPECT_FALSE(dpi->defaultVisible() || dpi->requiresAccount() || dpi->hasPreBuyDialog() ||
               dpi->ignoreSubscriptionGroupForNewCustomers() || dpi->localizedSubtitle() ||
               dpi->localizedDescription() || dpi->localizedFreeTrialTitle() || dpi->iconText() ||
               dpi->subscriptionGroupID() || dpi->titleColor() || dpi->backgroundColor() ||
               dpi->oldPrice() || dpi->featureSet() || dpi->featureMetadata() || dpi->product());
  EXPECT_TRUE(dpi->featureGroup().isNil() && dpi->metadata().isNil());
  // The very dictionary, unknown keys included, shared rather than copied.
  EXPECT_EQ(dpi->dictionaryRepresentation().asDictionary(), dictionary.asDictionary());
}

TEST_F(ProductInfoReaderTest, InactiveExcusesMissingCollectedKeysOnly) {
  auto inactive = read(R"({"identifier":"old","inactive":true})");
  ASSERT_NE(inactive, nullptr);
  EXPECT_FALSE(inactive->active());
  EXPECT_EQ(inactive->localizedTitle(), nullptr);
  EXPECT_TRUE(inactive->sortKey().isNil());
  EXPECT_THAT(log(), IsEmpty());

  EXPECT_EQ(read(R"({"identifier":"old","inactive":false})"), nullptr);
  EXPECT_THAT(log(), ElementsAre(missing("title"), missing("sort_key")));

  // A present but malformed collected key rejects even an inactive product.
  platform().clearLog();
  EXPECT_EQ(read(R"({"identifier":"x","inactive":1,"title":null})"), nullptr);
  EXPECT_EQ(read(R"({"identifier":"x","inactive":1,"title":"t","sort_key":null})"), nullptr);
  EXPECT_EQ(read(R"({"identifier":"x","inactive":1,"sort_key":"5"})"), nullptr);
  EXPECT_THAT(log(), ElementsAre(failed("title"), failed("sort_key"), failed("sort_key")));
}

TEST_F(ProductInfoReaderTest, ImmediateKeysStopTheReaderAtTheFirstFault) {
  // The identifier row comes before "inactive" and "title": only its message is written.
  EXPECT_EQ(read(R"({"title":[],"sort_key":1})"), nullptr);
  EXPECT_EQ(read(R"({"identifier":["a"],"inactive":false})"), nullptr);
  EXPECT_EQ(read(R"({"identifier":"a"})"), nullptr);
  EXPECT_EQ(read(R"({"identifier":"a","inactive":"true","title":"t","sort_key":1})"), nullptr);
  EXPECT_EQ(read(R"({"identifier":null,"inactive":false,"title":"t","sort_key":1})"), nullptr);
  EXPECT_EQ(read(R"({"identifier":"a","inactive":null,"title":"t","sort_key":1})"), nullptr);
  // A malformed title is reported at once, before the missing sort key would be.
  EXPECT_EQ(read(R"({"identifier":"a","inactive":false,"title":{"fr":"seul"}})"), nullptr);
  EXPECT_THAT(log(), ElementsAre(missing("identifier"), failed("identifier"), missing("inactive"),
                                 failed("inactive"), failed("identifier"), failed("inactive"),
                                 failed("title")));
}

TEST_F(ProductInfoReaderTest, NonDictionariesGiveNullWithoutAMessage) {
  for (const char* text : {"null", "[]", "[{}]", "\"pro\"", "42", "true"}) {
    EXPECT_EQ(read(text), nullptr) << text;
    EXPECT_EQ(ZBIAPProductFeatureV1::initWithDictionary(json(text)), nullptr) << text;
  }
  EXPECT_EQ(ZBIAPProductInfoV1::initWithDictionary(Value()), nullptr);
  EXPECT_THAT(log(), IsEmpty());
}

TEST_F(ProductInfoReaderTest, StringsAcceptNumbersAsTheirText) {
  const char* kRest = R"(,"inactive":false,"title":"t","sort_key":1})";
  EXPECT_EQ(read(std::string(R"({"identifier":42)") + kRest)->productIdentifier(), "42");
  EXPECT_EQ(read(std::string(R"({"identifier":true)") + kRest)->productIdentifier(), "1");
  EXPECT_EQ(read(std::string(R"({"identifier":9.99)") + kRest)->productIdentifier(), "9.99");
  auto dpi = read(R"({"identifier":"a","inactive":0,"title":"t","sort_key":true,)"
                  R"("iap_group":7,"feature_group_id":{"x":1}})");
  ASSERT_NE(dpi, nullptr);
  EXPECT_EQ(*dpi->subscriptionGroupID(), "7");
  EXPECT_EQ(dpi->featureGroupID(), nullptr);
  // A boolean is a number.
  EXPECT_EQ(dpi->sortKey(), Value(1));
  EXPECT_THAT(log(), IsEmpty());
}

TEST_F(ProductInfoReaderTest, OptionalFieldsIgnoreNullAndWrongShapesSilently) {
  auto dpi = read(R"({"identifier":"a","inactive":false,"title":"t","sort_key":1,)"
                  R"("subtitle":null,"description":7,"metadata":[],"feature_group":"g",)"
                  R"("features":{},"features_metadata":"x","old_price":[1],"title_color":5,)"
                  R"("default_visible":"yes","requires_account":null,)"
                  R"("new_customers_visible":2})");
  ASSERT_NE(dpi, nullptr);
  EXPECT_EQ(dpi->localizedSubtitle(), nullptr);
  EXPECT_EQ(dpi->localizedDescription(), nullptr);
  EXPECT_TRUE(dpi->metadata().isNil());
  EXPECT_TRUE(dpi->featureGroup().isNil());
  EXPECT_EQ(dpi->featureSet(), nullptr);
  EXPECT_EQ(dpi->featureMetadata(), nullptr);
  EXPECT_FALSE(dpi->oldPrice() || dpi->titleColor());
  EXPECT_FALSE(dpi->defaultVisible() || dpi->requiresAccount());
  EXPECT_TRUE(dpi->ignoreSubscriptionGroupForNewCustomers());
  EXPECT_THAT(log(), IsEmpty());
}

TEST_F(ProductInfoReaderTest, OldPriceIsAnExactDecimal) {
  auto oldPrice = [&](const std::string& value) {
    auto dpi = read(R"({"identifier":"a","inactive":true,"old_price":)" + value + "}");
    EXPECT_NE(dpi, nullptr) << value;
    return dpi ? dpi->oldPrice() : std::nullopt;
  };
  EXPECT_EQ(oldPrice(R"("9.99")")->toString(), "9.99");
  EXPECT_EQ(oldPrice("9.99")->toString(), "9.99");
  EXPECT_EQ(oldPrice("0.1")->toString(), "0.1");
  EXPECT_EQ(oldPrice(R"("12345678901234567890.5")")->toString(), "12345678901234567890.5");
  EXPECT_TRUE(oldPrice(R"("nine")")->isNaN());
  EXPECT_EQ(*oldPrice("true"), Decimal::fromInt(1));
  EXPECT_EQ(oldPrice("[9.99]"), std::nullopt);
  EXPECT_EQ(oldPrice("null"), std::nullopt);
}

TEST_F(ProductInfoReaderTest, FeatureSetsFollowFoundationEquality) {
  auto dpi = read(R"({"identifier":"a","inactive":true,)"
                  R"("features":["sync","sync",1,true,"1",1.0,{"k":[1]},{"k":[1]}]})");
  ASSERT_NE(dpi, nullptr);
  // "sync" once; 1, true and 1.0 are one number; the text "1" is not a number; equal objects.
  EXPECT_EQ(dpi->featureSet()->size(), 4u);
  EXPECT_EQ(dpi->featureSet()->count(Value("1")), 1u);
  EXPECT_EQ(dpi->featureSet()->count(Value(true)), 1u);
}

TEST_F(ProductInfoReaderTest, FeatureMetadataKeepsTheFeaturesThatRead) {
  auto dpi = read(R"({"identifier":"a","inactive":true,"features_metadata":[)"
                  R"({"identifier":"sync","metadata":{"limit":3}},42,{"metadata":{}},"x",)"
                  R"({"identifier":7,"metadata":"ignored"}]})");
  ASSERT_NE(dpi, nullptr);
  ASSERT_EQ(dpi->featureMetadata()->size(), 2u);
  auto sync = dpi->metadataForFeatureIdentifier("sync");
  ASSERT_NE(sync, nullptr);
  EXPECT_EQ(sync->metadata(), json(R"({"limit":3})"));
  auto seven = dpi->metadataForFeatureIdentifier("7");
  ASSERT_NE(seven, nullptr);
  EXPECT_TRUE(seven->metadata().isNil());
  EXPECT_EQ(dpi->metadataForFeatureIdentifier("export"), nullptr);
  // The set adds no message of its own; the rejected feature reports itself.
  EXPECT_THAT(log(), ElementsAre("Dynamic IAP Feature: Required key 'identifier' is missing!"));

  auto empty = read(R"({"identifier":"a","inactive":true,"features_metadata":[1,[],{}]})");
  ASSERT_NE(empty, nullptr);
  ASSERT_NE(empty->featureMetadata(), nullptr);
  EXPECT_TRUE(empty->featureMetadata()->empty());
}

TEST_F(ProductInfoReaderTest, FeatureReaderMessages) {
  EXPECT_EQ(ZBIAPProductFeatureV1::initWithDictionary(json(R"({"identifier":{}})")), nullptr);
  EXPECT_EQ(ZBIAPProductFeatureV1::initWithDictionary(json(R"({"identifier":null})")), nullptr);
  EXPECT_THAT(log(), ElementsAre("Dynamic IAP Feature: Parsing the required key 'identifier' "
                                 "failed!",
                                 "Dynamic IAP Feature: Parsing the required key 'identifier' "
                                 "failed!"));
  const Value dictionary = json(R"({"identifier":"sync","extra":1})");
  auto feature = ZBIAPProductFeatureV1::initWithDictionary(dictionary);
  ASSERT_NE(feature, nullptr);
  EXPECT_EQ(feature->identifier(), "sync");
  EXPECT_EQ(feature->dictionaryRepresentation().asDictionary(), dictionary.asDictionary());
  feature->setMetadata(json(R"({"a":1})"));
  EXPECT_EQ(feature->metadata(), json(R"({"a":1})"));
}

}  // namespace
}  // namespace zbiap

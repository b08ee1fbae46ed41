// The saved catalogue: written on every change, read back by the next launch, and bad saved data
// handled without loss or crash.
#include <gtest/gtest.h>

#include "tests/manager/manager_fixture.h"
#include "zbiap/foundation/json.h"

namespace zbiap::testing {
namespace {

using PersistenceTest = ManagerTest;

Data bytes(std::string_view text) { return Data(text.begin(), text.end()); }

TEST_F(PersistenceTest, CatalogueAndFeaturesSurviveANewLaunch) {
  const std::vector<Dictionary> products = {productDictionary("a", "A"),
                                            productDictionary("b", "B", true)};
  const Dictionary feature{{"identifier", Value("f1")},
                           {"metadata", Value(Dictionary{{"k", Value("v")}})}};
  fetcher_->setBundle(FakeFetcher::succeed(makeResponse(products, "Header", {}, {feature})));
  makeManager();
  commit();
  ASSERT_EQ(manager_->state(), ZBIAPManagerStateReadyProductInfos);
  const ZBIAPManager::ProductInfos before = manager_->dynamicProductInfos();

  relaunch();

  EXPECT_EQ(fetcher_->bundleFetchCount(), 0u);
  EXPECT_EQ(manager_->state(), ZBIAPManagerStateConfiguring);
  const ZBIAPManager::ProductInfos after = manager_->dynamicProductInfos();
  ASSERT_EQ(after.size(), before.size());
  for (size_t i = 0; i < after.size(); ++i) {
    EXPECT_TRUE(after[i]->isEqual(*before[i])) << after[i]->description();
    EXPECT_NE(after[i], before[i]);
  }
  const std::optional<ZBIAPManager::FeatureSet> features = manager_->baselineFeatureMetadata();
  ASSERT_TRUE(features);
  ASSERT_EQ(features->size(), 1u);
  const ProductFeaturePtr restored = *features->begin();
  EXPECT_EQ(restored->identifier(), "f1");
  EXPECT_EQ(restored->metadata(), Value(Dictionary{{"k", Value("v")}}));
  // The header, the country and store products are not kept.
  EXPECT_EQ(manager_->htmlStoreHeader(), std::nullopt);
  EXPECT_EQ(manager_->appStoreCountry(), std::nullopt);
}

TEST_F(PersistenceTest, MissingOrForeignSavedDataFallsBackToTheBundle) {
  struct Case {
    std::optional<std::string> productsData;  // nullopt: absent
    std::optional<std::string> featuresData;  // nullopt: absent
    bool productsAsString;                    // stored as a string, not data
    const char* message;
  };
  const std::vector<Case> cases = {
      {std::nullopt, "[]", false, "Failed to load Dynamic Product Infos!"},
      {"[]", "[]", true, "Failed to load Dynamic Product Infos!"},
      // Product data present but the features missing: the products are dropped too.
      {toJSON(Value(Array{Value(productDictionary("a"))})), std::nullopt, false,
       "Failed to load baseline features!"},
  };
  for (const Case& c : cases) {
    SCOPED_TRACE(c.message);
    TearDown();
    SetUp();
    UserDefaults& defaults = platform_->userDefaults();
    if (c.productsData) {
      if (c.productsAsString) {
        defaults.setString("ZBIAPProductInfos", *c.productsData);
      } else {
        defaults.setData("ZBIAPProductInfos", bytes(*c.productsData));
      }
    }
    if (c.featuresData) defaults.setData("ZBIAPBaselineFeatureMetadata", bytes(*c.featuresData));
    makeManager();
    commit();
    EXPECT_EQ(logCount(c.message), 1u);
    EXPECT_EQ(fetcher_->bundleFetchCount(), 1u);
    EXPECT_TRUE(manager_->dynamicProductInfos().empty());
    EXPECT_EQ(manager_->state(), ZBIAPManagerStateConfiguring);
  }
}

TEST_F(PersistenceTest, UnreadableSavedDataGivesWhatCanBeReadAndNoBundleLoad) {
  const std::string good = toJSON(Value(productDictionary("good")));
  struct Case {
    std::string products;
    std::string features;
    size_t expectedProducts;
  };
  const std::vector<Case> cases = {
      {"", "", 0},
      {"not json {", "\xff\xfe\x00", 0},
      {"{\"identifier\": \"a\"}", "42", 0},
      {"[1, \"x\", null, {}, [], {\"identifier\": 7}, " + good + "]",
       "[{\"identifier\": \"f\"}, {\"metadata\": {}}, 3]", 1},
      {std::string(100000, '['), std::string(100000, '['), 0},
  };
  for (size_t i = 0; i < cases.size(); ++i) {
    SCOPED_TRACE(i);
    TearDown();
    SetUp();
    UserDefaults& defaults = platform_->userDefaults();
    ASSERT_TRUE(defaults.setData("ZBIAPProductInfos", bytes(cases[i].products)));
    ASSERT_TRUE(defaults.setData("ZBIAPBaselineFeatureMetadata", bytes(cases[i].features)));
    store_->scriptCountry(Answer::kAtOnce, "DE");
    makeManager();
    commit();
    // The restore counts as done: the bundle is not read.
    EXPECT_EQ(fetcher_->bundleFetchCount(), 0u);
    EXPECT_EQ(manager_->dynamicProductInfos().size(), cases[i].expectedProducts);
    ASSERT_TRUE(manager_->baselineFeatureMetadata());
    EXPECT_EQ(manager_->baselineFeatureMetadata()->size(), cases[i].expectedProducts);
    fetcher_->answerPending(FakeFetcher::fail(nullptr));
    EXPECT_EQ(manager_->state(), cases[i].expectedProducts ? ZBIAPManagerStateReadyProductInfos
                                                           : ZBIAPManagerStateReadyNoProductInfos);
    EXPECT_EQ(manager_->queryCounter(), 0);
  }
}

}  // namespace
}  // namespace zbiap::testing

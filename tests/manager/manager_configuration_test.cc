#include <gtest/gtest.h>

#include "tests/manager/manager_fixture.h"

namespace zbiap::testing {
namespace {

using ConfigurationTest = ManagerTest;

TEST_F(ConfigurationTest, RefusesMissingPartsInOrderWithTheirMessages) {
  struct Case {
    std::shared_ptr<ZBIAPStore> store;
    std::string product;
    std::string fallback;
    std::shared_ptr<ZBIAPProductInfoFetcher> fetcher;
    std::string message;
  };
  const std::vector<Case> cases = {
      // Everything missing: the store is named first.
      {nullptr, "", "", nullptr, "[ZBIAPManagerConfiguration] No store provided!"},
      {store_, "", "", nullptr,
       "[ZBIAPManagerConfiguration] No app store country product identifier provided!"},
      {store_, "p", "", nullptr, "[ZBIAPManagerConfiguration] No fallback country code provided!"},
      {store_, "p", "US", nullptr, "[ZBIAPManagerConfiguration] No product info fetcher provided!"},
  };
  for (const Case& c : cases) {
    const size_t before = platform_->logLines().size();
    EXPECT_EQ(ZBIAPManagerConfiguration::create(c.store, c.product, c.fallback, c.fetcher),
              nullptr);
    const std::vector<std::string> lines = platform_->logLines();
    ASSERT_EQ(lines.size(), before + 1) << c.message;
    EXPECT_EQ(lines.back(), c.message);
  }
}

TEST_F(ConfigurationTest, KeepsStoreProductAndFetcherButNeverTheFallbackCode) {
  EXPECT_EQ(configuration_->store(), store_);
  EXPECT_EQ(configuration_->fetcher(), fetcher_);
  EXPECT_EQ(configuration_->appStoreCountryProduct(), kCountryProduct);
  EXPECT_EQ(configuration_->appStoreFallbackCountryCode(), std::nullopt);
}

TEST_F(ConfigurationTest, ManagerRefusesNullConfigurationAndStartsUntouched) {
  EXPECT_EQ(ZBIAPManager::create(nullptr), nullptr);
  EXPECT_EQ(platform_->logLines().back(), "No valid configuration provided to ZBIAPManager!");

  auto manager = makeManager();
  ASSERT_NE(manager, nullptr);
  EXPECT_EQ(manager->state(), ZBIAPManagerStateNotConfigured);
  EXPECT_EQ(manager->queryCounter(), 0);
  EXPECT_FALSE(manager->isReady());
  EXPECT_FALSE(manager->isQuerying());
  EXPECT_EQ(manager->appStoreCountry(), std::nullopt);
  EXPECT_EQ(manager->htmlStoreHeader(), std::nullopt);
  EXPECT_EQ(manager->baselineFeatureMetadata(), std::nullopt);
  // Construction touches neither the store nor the fetcher.
  EXPECT_EQ(store_->storeDelegate(), nullptr);
  EXPECT_EQ(store_->countryQueryCount(), 0u);
  EXPECT_EQ(fetcher_->fetchCount() + fetcher_->bundleFetchCount(), 0u);
  EXPECT_TRUE(fetcher_->owner().expired());
}

}  // namespace
}  // namespace zbiap::testing

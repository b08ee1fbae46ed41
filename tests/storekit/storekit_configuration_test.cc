#include "zbiap/storekit/storekit_configuration.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <string>

namespace {

using zbiap::Decimal;
using zbiap::StoreKitConfiguration;
using ProductType = StoreKitConfiguration::ProductType;

std::filesystem::path examplePath() {
  return std::filesystem::path(ZBIAP_SOURCE_DIR) / "examples" / "Example.storekit";
}

TEST(StoreKitConfigurationTest, ReadsTheShippedExample) {
  std::string error;
  auto configuration = StoreKitConfiguration::fromFile(examplePath(), &error);
  ASSERT_TRUE(configuration) << error;
  ASSERT_EQ(configuration->products.size(), 4u);
  EXPECT_EQ(configuration->storefront, "USA");
  EXPECT_EQ(configuration->locale, "en_US");
  EXPECT_EQ(configuration->timeRate, 0);
  EXPECT_FALSE(configuration->askToBuyEnabled);

  const auto* coins = configuration->productWithID("com.example.app.coins100");
  ASSERT_NE(coins, nullptr);
  EXPECT_EQ(coins->type, ProductType::kConsumable);
  EXPECT_EQ(coins->displayPrice, Decimal::fromString("0.99"));
  ASSERT_EQ(coins->localizations.size(), 3u);
  EXPECT_EQ(coins->localizations[1].locale, "de_DE");
  EXPECT_EQ(coins->localizations[1].displayName, "100 Münzen");

  const auto* lifetime = configuration->productWithID("com.example.app.lifetime");
  ASSERT_NE(lifetime, nullptr);
  EXPECT_EQ(lifetime->type, ProductType::kNonConsumable);
  EXPECT_TRUE(lifetime->familyShareable);
  EXPECT_FALSE(lifetime->subscriptionGroupID);

  const auto* monthly = configuration->productWithID("com.example.app.pro.monthly");
  const auto* yearly = configuration->productWithID("com.example.app.pro.yearly");
  ASSERT_TRUE(monthly && yearly);
  EXPECT_EQ(monthly->type, ProductType::kAutoRenewable);
  EXPECT_EQ(monthly->subscriptionGroupID, "21000001");
  EXPECT_EQ(yearly->subscriptionGroupID, monthly->subscriptionGroupID);
  EXPECT_EQ(monthly->recurringSubscriptionPeriod,
            (SKProductSubscriptionPeriod{1, SKProductPeriodUnit::kMonth}));
  EXPECT_EQ(yearly->recurringSubscriptionPeriod,
            (SKProductSubscriptionPeriod{1, SKProductPeriodUnit::kYear}));
  ASSERT_TRUE(monthly->introductoryOffer);
  EXPECT_EQ(monthly->introductoryOffer->paymentMode, SKProductDiscountPaymentModeFreeTrial);
  EXPECT_EQ(monthly->introductoryOffer->subscriptionPeriod,
            (SKProductSubscriptionPeriod{1, SKProductPeriodUnit::kWeek}));
  EXPECT_EQ(monthly->introductoryOffer->numberOfPeriods, 1u);
  EXPECT_FALSE(yearly->introductoryOffer);
}

TEST(StoreKitConfigurationTest, ReadsSettingsOffersAndIgnoresUnknownKeys) {
  auto configuration = StoreKitConfiguration::fromJSON(R"({
    "futureKey": {"anything": [1, 2]},
    "nonRenewingSubscriptions": [
      {"productID": "season", "type": "NonRenewingSubscription", "displayPrice": "4.5"}],
    "subscriptionGroups": [{"id": "g", "subscriptions": [
      {"productID": "weekly", "recurringSubscriptionPeriod": "P2W", "displayPrice": "1",
       "introductoryOffer": {"paymentMode": "payAsYouGo", "subscriptionPeriod": "P1W",
                             "numberOfPeriods": 3, "displayPrice": "0.49"},
       "adHocOffers": [{"offerID": "winback", "paymentMode": "payUpFront",
                        "subscriptionPeriod": "P1M", "displayPrice": "0.99"}]}]}],
    "settings": {"_storefront": "DEU", "_locale": "de_DE", "_timeRate": 1,
                 "_askToBuyEnabled": true, "_failTransactionsEnabled": true}})");
  ASSERT_TRUE(configuration);
  EXPECT_EQ(configuration->storefront, "DEU");
  EXPECT_EQ(configuration->locale, "de_DE");
  EXPECT_EQ(configuration->timeRate, 1);
  EXPECT_TRUE(configuration->askToBuyEnabled);
  EXPECT_TRUE(configuration->failTransactionsEnabled);
  ASSERT_EQ(configuration->products.size(), 2u);
  EXPECT_EQ(configuration->products[0].type, ProductType::kNonRenewingSubscription);
  const auto& weekly = configuration->products[1];
  EXPECT_EQ(weekly.type, ProductType::kAutoRenewable) << "a group's member without a type";
  EXPECT_EQ(weekly.subscriptionGroupID, "g");
  ASSERT_TRUE(weekly.introductoryOffer);
  EXPECT_EQ(weekly.introductoryOffer->paymentMode, SKProductDiscountPaymentModePayAsYouGo);
  EXPECT_EQ(weekly.introductoryOffer->numberOfPeriods, 3u);
  EXPECT_EQ(weekly.introductoryOffer->displayPrice, Decimal::fromString("0.49"));
  ASSERT_EQ(weekly.promotionalOffers.size(), 1u);
  EXPECT_EQ(weekly.promotionalOffers[0].identifier, "winback");
}

TEST(StoreKitConfigurationTest, RejectsMalformedFilesWithAReason) {
  const char* bad[] = {
      "",
      "[]",
      "{\"products\": [{\"productID\": \"a\", \"type\": \"Consumable\"",
      R"({"products": [{"type": "Consumable", "displayPrice": "1"}]})",
      R"({"products": [{"productID": "a", "type": "Gadget"}]})",
      R"({"products": [{"productID": "a", "type": "Consumable", "displayPrice": "abc"}]})",
      R"({"products": [{"productID": "a", "type": "Consumable", "displayPrice": "-1"}]})",
      R"({"products": [{"productID": "a", "type": "Consumable"},
                       {"productID": "a", "type": "NonConsumable"}]})",
      R"({"subscriptionGroups": [{"id": "g", "subscriptions": [
          {"productID": "s", "recurringSubscriptionPeriod": "P1X"}]}]})",
      R"({"subscriptionGroups": [{"id": "g", "subscriptions": [
          {"productID": "s", "recurringSubscriptionPeriod": "P1M",
           "introductoryOffer": {"paymentMode": "gift", "subscriptionPeriod": "P1W"}}]}]})",
  };
  for (const char* text : bad) {
    std::string error;
    EXPECT_FALSE(StoreKitConfiguration::fromJSON(text, &error)) << text;
    EXPECT_FALSE(error.empty()) << text;
  }
  std::string error;
  EXPECT_FALSE(StoreKitConfiguration::fromFile("/nonexistent/Example.storekit", &error));
  EXPECT_FALSE(error.empty());
}

TEST(StoreKitConfigurationTest, ParsesPeriodsOfOneUnit) {
  EXPECT_EQ(zbiap::parseSubscriptionPeriod("P3D"),
            (SKProductSubscriptionPeriod{3, SKProductPeriodUnit::kDay}));
  EXPECT_EQ(zbiap::parseSubscriptionPeriod("P6M"),
            (SKProductSubscriptionPeriod{6, SKProductPeriodUnit::kMonth}));
  for (const char* text : {"", "P", "PM", "P0M", "P1", "1M", "P1M1D", "P1m", "P99999999999D"}) {
    EXPECT_FALSE(zbiap::parseSubscriptionPeriod(text)) << text;
  }
}

}  // namespace

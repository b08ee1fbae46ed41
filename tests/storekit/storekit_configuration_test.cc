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

// The products' fields are read back through the simulator's and the App Store store's tests.
TEST(StoreKitConfigurationTest, ReadsTheShippedExample) {
  std::string error;
  auto configuration = StoreKitConfiguration::fromFile(examplePath(), &error);
  ASSERT_TRUE(configuration) << error;
  EXPECT_EQ(configuration->products.size(), 4u);
  EXPECT_EQ(configuration->storefront + " " + configuration->locale, "USA en_US");
  EXPECT_EQ(configuration->timeRate, 0);
  EXPECT_FALSE(configuration->askToBuyEnabled);
  EXPECT_TRUE(configuration->productWithID("com.example.app.lifetime")->familyShareable);
  // Empty lists, switched-off settings, bookkeeping and a single introductory offer are not
  // worth a word.
  EXPECT_EQ(configuration->ignoredFields, std::vector<std::string>{"subscriptions[].groupNumber"});
}

TEST(StoreKitConfigurationTest, ReadsSettingsOffersAndNamesIgnoredFields) {
  auto configuration = StoreKitConfiguration::fromJSON(R"({
    "futureKey": {"anything": [1, 2]}, "identifier": "AB12", "version": {"major": 5},
    "nonRenewingSubscriptions": [
      {"productID": "season", "type": "NonRenewingSubscription", "displayPrice": "4.5"}],
    "subscriptionGroups": [{"id": "g", "subscriptions": [
      {"productID": "weekly", "recurringSubscriptionPeriod": "P2W", "displayPrice": "1",
       "internalID": "7", "codeOffers": [], "winbackOffers": [{"offerID": "w"}],
       "introductoryOffer": {"paymentMode": "payAsYouGo", "subscriptionPeriod": "P1W",
                             "numberOfPeriods": 3, "displayPrice": "0.49"},
       "adHocOffers": [{"offerID": "winback", "paymentMode": "payUpFront",
                        "subscriptionPeriod": "P1M", "displayPrice": "0.99"}]},
      {"productID": "trial", "recurringSubscriptionPeriod": "P1M", "introductoryOffers": [
        {"paymentMode": "free", "subscriptionPeriod": "P3D", "displayPrice": "2.99"},
        {"paymentMode": "payUpFront", "subscriptionPeriod": "P1M", "displayPrice": "1"}]}]}],
    "settings": {"_storefront": "DEU", "_locale": "de_DE", "_timeRate": 9,
                 "_askToBuyEnabled": true, "_failTransactionsEnabled": true,
                 "_disableDialogs": false, "_storeKitErrors": [
                   {"enabled": false, "name": "Load Products"},
                   {"enabled": true, "name": "Purchase"}]}})");
  ASSERT_TRUE(configuration);
  EXPECT_EQ(configuration->storefront, "DEU");
  EXPECT_EQ(configuration->locale, "de_DE");
  EXPECT_EQ(configuration->timeRate, 9);
  EXPECT_TRUE(configuration->askToBuyEnabled);
  EXPECT_TRUE(configuration->failTransactionsEnabled);
  EXPECT_EQ(
      configuration->ignoredFields,
      (std::vector<std::string>{"futureKey", "introductoryOffers[] after the first",
                                "settings._storeKitErrors", "subscriptions[].winbackOffers"}));
  const std::vector<std::string> warnings = configuration->warnings();
  ASSERT_EQ(warnings.size(), 2u);
  EXPECT_NE(warnings[0].find("futureKey, introductoryOffers"), std::string::npos) << warnings[0];
  EXPECT_NE(warnings[1].find("_timeRate 9"), std::string::npos) << warnings[1];
  ASSERT_EQ(configuration->products.size(), 3u);
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
  // A free trial is free, whatever price the file kept.
  const auto& trial = configuration->products[2].introductoryOffer;
  ASSERT_TRUE(trial);
  EXPECT_EQ(trial->paymentMode, SKProductDiscountPaymentModeFreeTrial);
  EXPECT_EQ(trial->subscriptionPeriod, (SKProductSubscriptionPeriod{3, SKProductPeriodUnit::kDay}));
  EXPECT_EQ(trial->displayPrice, Decimal::fromInt(0));
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
           "introductoryOffers": [{"paymentMode": "gift", "subscriptionPeriod": "P1W"}]}]}]})",
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
  EXPECT_EQ(zbiap::parseSubscriptionPeriod("P6M"),
            (SKProductSubscriptionPeriod{6, SKProductPeriodUnit::kMonth}));
  for (const char* text : {"", "P", "PM", "P0M", "P1", "1M", "P1M1D", "P1m", "P99999999999D"}) {
    EXPECT_FALSE(zbiap::parseSubscriptionPeriod(text)) << text;
  }
}

}  // namespace

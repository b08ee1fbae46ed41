#include <gtest/gtest.h>

#include "zbiap/receipt/receipt_iap.h"
#include "zbiap/store/store.h"
#include "zbiap/store/store_product.h"

namespace {

using Period = ZBIAPStoreProductSubscriptionPeriod;

TEST(StoreInterfaceTest, StoreErrorCarriesItsUnderlyingError) {
  auto underlying = ZBIAPError::make("SKErrorDomain", 3532);
  auto error = zbiap::makeStoreError(ZBIAPStoreErrorAlreadySubscribed, underlying);
  EXPECT_EQ(error->domain(), "ZBIAPStoreErrorDomain");
  EXPECT_EQ(error->code(), 5);
  EXPECT_EQ(error->underlyingError(), underlying);
  auto plain = zbiap::makeStoreError(ZBIAPStoreErrorPaymentCancelled);
  EXPECT_EQ(plain->code(), 4);
  EXPECT_EQ(plain->underlyingError(), nullptr);
  EXPECT_TRUE(plain->userInfo().empty());
}

TEST(StoreInterfaceTest, SubscriptionPeriodTexts) {
  EXPECT_EQ(Period(1, Period::Unit::kMonth).durationString(), "1m");
  EXPECT_EQ(Period(2, Period::Unit::kWeek).durationString(), "2w");
  EXPECT_EQ(Period(1, Period::Unit::kYear).description(), "P1Y");
  EXPECT_EQ(Period(3, Period::Unit::kDay).description(), "P3D");
  EXPECT_EQ(Period(1, Period::Unit::kMonth), Period(1, Period::Unit::kMonth));
  EXPECT_NE(Period(1, Period::Unit::kMonth), Period(1, Period::Unit::kYear));
  EXPECT_NE(Period(1, Period::Unit::kMonth), Period(2, Period::Unit::kMonth));
}

TEST(StoreInterfaceTest, PlainProductAndDiscount) {
  auto trial = zbiap::makeStoreProductDiscount({
      .price = zbiap::Decimal(),
      .priceLocale = "de_DE@currency=EUR",
      .identifier = "trial",
      .subscriptionPeriod = Period(1, Period::Unit::kWeek),
      .numberOfPeriods = 1,
      .paymentMode = ZBIAPStoreProductDiscount::kPaymentModeFreeTrial,
      .type = ZBIAPStoreProductDiscount::kTypeIntroductory,
  });
  auto product = zbiap::makeStoreProduct({
      .localizedDescription = "All features",
      .localizedTitle = "Pro",
      .price = zbiap::Decimal::fromString("9.99"),
      .priceLocale = "de_DE@currency=EUR",
      .productIdentifier = "com.example.pro.monthly",
      .subscriptionGroupIdentifier = "group",
      .subscriptionPeriod = Period(1, Period::Unit::kMonth),
      .introductoryPrice = trial,
      .discounts = {trial},
  });
  EXPECT_EQ(product->productIdentifier(), "com.example.pro.monthly");
  EXPECT_EQ(product->price(), zbiap::Decimal::fromString("9.99"));
  EXPECT_EQ(product->subscriptionPeriod(), Period(1, Period::Unit::kMonth));
  EXPECT_EQ(product->introductoryPrice(), trial);
  EXPECT_EQ(product->introductoryPrice()->paymentMode(), 2u);
  EXPECT_EQ(product->discounts().size(), 1u);
  EXPECT_EQ(product->priceLocaleCountryCode(), "DE");
}

TEST(StoreInterfaceTest, CountryOfLocale) {
  EXPECT_EQ(zbiap::countryCodeOfLocale("en_US@currency=USD"), "US");
  EXPECT_EQ(zbiap::countryCodeOfLocale("ja_JP@currency=JPY"), "JP");
  EXPECT_EQ(zbiap::countryCodeOfLocale("zh_Hant_TW@currency=TWD"), "TW");
  EXPECT_EQ(zbiap::countryCodeOfLocale("fr"), "");
  EXPECT_EQ(zbiap::countryCodeOfLocale(""), "");
  EXPECT_EQ(zbiap::countryCodeOfLocale("@@@___"), "");
}

}  // namespace

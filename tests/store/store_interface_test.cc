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

TEST(StoreInterfaceTest, CountryOfLocale) {
  EXPECT_EQ(zbiap::countryCodeOfLocale("en_US@currency=USD"), "US");
  EXPECT_EQ(zbiap::countryCodeOfLocale("ja_JP@currency=JPY"), "JP");
  EXPECT_EQ(zbiap::countryCodeOfLocale("zh_Hant_TW@currency=TWD"), "TW");
  EXPECT_EQ(zbiap::countryCodeOfLocale("fr"), "");
  EXPECT_EQ(zbiap::countryCodeOfLocale(""), "");
  EXPECT_EQ(zbiap::countryCodeOfLocale("@@@___"), "");
}

}  // namespace

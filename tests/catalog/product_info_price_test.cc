// Prices: the store product's price, the currency texts in its price locale, and the observers
// told when the product is set.
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <optional>
#include <string>
#include <vector>

#include "testing/fake_store.h"
#include "tests/catalog/record_test_fixture.h"
#include "zbiap/catalog/product_info.h"
#include "zbiap/store/store_product.h"

namespace zbiap {
namespace {

using ::testing::ElementsAre;

ZBIAPStoreProductPtr product(const char* price, const char* locale) {
  return testing::FakeStore::makeProduct("pro", price, locale);
}

class ProductInfoPriceTest : public testing::RecordTest {
 protected:
  std::shared_ptr<ZBIAPProductInfoV1> make(const std::string& oldPrice) {
    auto dpi = ZBIAPProductInfoV1::initWithDictionary(
        json(R"({"identifier":"pro","inactive":true,"old_price":)" + oldPrice + "}"));
    EXPECT_NE(dpi, nullptr);
    return dpi;
  }
};

TEST_F(ProductInfoPriceTest, CurrencyTextsInThePriceLocale) {
  struct Case {
    const char* locale;
    const char* price;
    const char* oldPrice;
    const char* expectedPrice;
    const char* expectedOldPrice;
  };
  // ICU's own spacing: no-break spaces around the symbol, narrow ones as Swiss group separators.
  const Case cases[] = {
      {"de_DE@currency=EUR", "9.99", "1234.5", "9,99\u00a0€", "1.234,50\u00a0€"},
      {"en_US@currency=USD", "9.99", "1234.5", "$9.99", "$1,234.50"},
      {"ja_JP@currency=JPY", "9.99", "1234", "￥10", "￥1,234"},
      {"fr_CH@currency=CHF", "9.99", "1234.5", "9.99\u00a0CHF", "1\u202f234.50\u00a0CHF"},
  };
  for (const Case& c : cases) {
    auto dpi = make(std::string("\"") + c.oldPrice + "\"");
    dpi->setProduct(product(c.price, c.locale));
    EXPECT_EQ(dpi->price()->toString(), c.price);
    EXPECT_EQ(dpi->localizedPrice(), c.expectedPrice) << c.locale;
    EXPECT_EQ(dpi->localizedOldPrice(), c.expectedOldPrice) << c.locale;
  }
}

TEST_F(ProductInfoPriceTest, OldPriceEdges) {
  auto alone = make(R"("12.99")");
  EXPECT_FALSE(alone->price() || alone->localizedPrice() || alone->localizedOldPrice());
  auto none = ZBIAPProductInfoV1::initWithDictionary(json(R"({"identifier":"pro","inactive":true})"));
  none->setProduct(product("1", "en_US@currency=USD"));
  EXPECT_EQ(none->localizedPrice(), "$1.00");
  EXPECT_EQ(none->localizedOldPrice(), std::nullopt);
  auto notANumber = make(R"("free")");
  notANumber->setProduct(product("0.005", "en_US@currency=USD"));
  EXPECT_EQ(notANumber->localizedOldPrice(), "$NaN");
  // Half-even rounding to the currency's digits.
  EXPECT_EQ(notANumber->localizedPrice(), "$0.00");
}

TEST_F(ProductInfoPriceTest, ObserversHearEverySetOfTheProduct) {
  auto dpi = make("20");
  std::vector<std::string> heard;
  auto text = [](const std::optional<std::string>& s) { return s.value_or("nil"); };
  ObserverToken productToken = dpi->productObservers().observe([&](const ZBIAPStoreProductPtr& from,
                                                                   const ZBIAPStoreProductPtr& to) {
    heard.push_back(std::string("product ") + (from ? "set" : "nil") + "->" + (to ? "set" : "nil"));
  });
  ObserverToken priceToken = dpi->priceObservers().observe(
      [&](const std::optional<Decimal>& from, const std::optional<Decimal>& to) {
        heard.push_back("price " + (from ? from->toString() : "nil") + "->" +
                        (to ? to->toString() : "nil"));
      });
  ObserverToken localizedToken = dpi->localizedPriceObservers().observe(
      [&](const std::optional<std::string>& from, const std::optional<std::string>& to) {
        heard.push_back("localizedPrice " + text(from) + "->" + text(to));
      });
  ObserverToken oldToken = dpi->localizedOldPriceObservers().observe(
      [&](const std::optional<std::string>& from, const std::optional<std::string>& to) {
        heard.push_back("localizedOldPrice " + text(from) + "->" + text(to));
      });

  ZBIAPStoreProductPtr usd = product("9.99", "en_US@currency=USD");
  dpi->setProduct(usd);
  EXPECT_THAT(heard, ElementsAre("product nil->set", "price nil->9.99", "localizedPrice nil->$9.99",
                                 "localizedOldPrice nil->$20.00"));
  // Setting the same product again still tells the observers.
  heard.clear();
  dpi->setProduct(usd);
  EXPECT_EQ(heard.size(), 4u);
  EXPECT_EQ(heard[1], "price 9.99->9.99");

  heard.clear();
  priceToken.reset();
  oldToken.reset();
  dpi->setProduct(nullptr);
  EXPECT_THAT(heard, ElementsAre("product set->nil", "localizedPrice $9.99->nil"));
}

}  // namespace
}  // namespace zbiap

#include "zbiap/receipt/receipt_iap.h"

#include <gtest/gtest.h>

#include <regex>
#include <string>

#include "testing/test_platform.h"

namespace {

using zbiap::Date;
using zbiap::Dictionary;
using zbiap::Value;
using Lines = std::vector<std::string>;

const Date kPurchase = Date::fromMicrosSince1970(1709634030LL * 1000000);
const Date kOriginal = kPurchase - std::chrono::hours(24 * 30);
const Date kExpires = kPurchase + std::chrono::hours(24 * 31);

const Dictionary kFull{
    {"ProductID", "com.example.pro"},
    {"Quantity", 1},
    {"TransactionID", "1000000123"},
    {"OrigTransactionID", "1000000100"},
    {"PurchaseDate", kPurchase},
    {"OrigPurchaseDate", kOriginal},
    {"SubscripExpDate", kExpires},
    {"CancelDate", kExpires},
    {"WebOrderLineItemID", int64_t{1000000042}},
};
const Dictionary kRequired{
    {"ProductID", "com.example.coins"}, {"TransactionID", "77"}, {"PurchaseDate", kPurchase}};

class ReceiptIAPTest : public ::testing::Test {
 protected:
  zbiap::testing::TestPlatform platform_;
};

TEST_F(ReceiptIAPTest, DictionaryRoundTripsAndUpgradableComesFromTheFlag) {
  auto iap = ZBIAPReceiptIAP::initWithDictionaryRepresentation(kFull, true);
  ASSERT_NE(iap, nullptr);
  EXPECT_TRUE(iap->upgradable());
  EXPECT_EQ(iap->dictionaryRepresentation(), kFull);
  auto back =
      ZBIAPReceiptIAP::initWithDictionaryRepresentation(iap->dictionaryRepresentation(), false);
  EXPECT_FALSE(back->upgradable());
  EXPECT_NE(*back, *iap);
  EXPECT_TRUE(platform_.logLines().empty());
  // With the required fields only, the record still writes quantity and order item as 0.
  Dictionary written = kRequired;
  written.set("Quantity", 0);
  written.set("WebOrderLineItemID", 0);
  EXPECT_EQ(ZBIAPReceiptIAP::initWithDictionaryRepresentation(kRequired, false)
                ->dictionaryRepresentation(),
            written);
  EXPECT_EQ(ZBIAPReceiptIAP::initWithDictionaryRepresentation(Value("not a dictionary"), false),
            nullptr);
}

TEST_F(ReceiptIAPTest, FieldsOfTheWrongTypeRejectOrAreDropped) {
  const std::string missing =
      "Missing required field for In-App Purchase or field has a wrong type: ";
  // A nil value removes the key; the log line is the last one written.
  const struct {
    const char* key;
    Value value;
    bool accepted;
    std::string log;
  } rows[] = {
      {"Quantity", Value("2"), false, "Quantity is not a number!"},
      {"Quantity", Value::null(), false, "Quantity is not a number!"},
      {"Quantity", Value(2.9), true, ""},  // numbers of any kind count, truncated
      {"WebOrderLineItemID", Value("1000000042"), true, "Web Order Line Item ID is not a number!"},
      {"ProductID", Value(), false, missing},
      {"ProductID", Value(42), false, missing},
      {"TransactionID", Value(int64_t{1000000123}), false, missing},
      {"PurchaseDate", Value("2024-03-05T10:20:30Z"), false, missing},
      {"PurchaseDate", Value::null(), false, missing},
      {"SubscripExpDate", Value("2024-04-05"), false,
       "Wrong type for Supscription Expiration Date: '2024-04-05'"},
      {"OrigTransactionID", Value(12), true,
       "Wrong type for Original Transaction Identifier: '12'"},
      {"OrigPurchaseDate", Value("yesterday"), true,
       "Wrong type for Original Purchase Date: 'yesterday'"},
      {"CancelDate", Value("today"), true, "Wrong type for Cancellation Date: 'today'"},
  };
  for (const auto& row : rows) {
    SCOPED_TRACE(row.key);
    platform_.clearLog();
    Dictionary dictionary = kRequired;
    if (row.value.isNil()) {
      dictionary.remove(row.key);
    } else {
      dictionary.set(row.key, row.value);
    }
    auto iap = ZBIAPReceiptIAP::initWithDictionaryRepresentation(dictionary, false);
    EXPECT_EQ(iap != nullptr, row.accepted);
    const std::string expected =
        row.log == missing ? missing + Value(dictionary).description() : row.log;
    EXPECT_EQ(platform_.logLines(), expected.empty() ? Lines{} : Lines{expected});
    // What is dropped is not written back; a fractional quantity is truncated.
    if (iap) {
      EXPECT_EQ(iap->dictionaryRepresentation().size(), 5u);
    }
    if (iap && row.key == std::string("Quantity")) {
      EXPECT_EQ(iap->quantity(), 2);
    }
  }
}

TEST_F(ReceiptIAPTest, EqualityIgnoresTransactionIdentifiers) {
  auto make = [](const char* product, const char* transaction, std::optional<std::string> original,
                 int64_t quantity = 1, std::optional<Date> expires = kExpires,
                 std::optional<Date> cancelled = {}, bool upgradable = false) {
    return ZBIAPReceiptIAP::initWithProductIdentifier(product, quantity, transaction,
                                                      std::move(original), kPurchase, kOriginal,
                                                      expires, cancelled, 5, upgradable);
  };
  auto a = make("p", "1", "100");
  // The original transaction identifier counts for the hash but not for equality.
  for (const auto& same : {make("p", "2", "100"), make("p", "1", "200"), make("p", "1", {})}) {
    EXPECT_EQ(*a, *same) << same->description();
  }
  EXPECT_EQ(std::hash<ZBIAPReceiptIAP>()(*a), std::hash<ZBIAPReceiptIAP>()(*make("p", "2", "100")));
  for (const auto& other :
       {make("q", "1", "100"), make("p", "1", "100", 2), make("p", "1", "100", 1, std::nullopt),
        make("p", "1", "100", 1, kExpires, kPurchase),
        make("p", "1", "100", 1, kExpires, std::nullopt, true)}) {
    EXPECT_NE(*a, *other) << other->description();
  }
}

TEST_F(ReceiptIAPTest, Description) {
  const std::string with =
      ZBIAPReceiptIAP::initWithDictionaryRepresentation(kFull, false)->description();
  EXPECT_TRUE(std::regex_match(
      with, std::regex("<ZBIAPReceiptIAP: 0x[0-9a-f]+ com\\.example\\.pro "
                       "2024-03-05 10:20:30 \\+0000 - 2024-04-05 10:20:30 \\+0000>")))
      << with;
  const std::string without =
      ZBIAPReceiptIAP::initWithDictionaryRepresentation(kRequired, false)->description();
  EXPECT_TRUE(
      std::regex_match(without, std::regex("<ZBIAPReceiptIAP: 0x[0-9a-f]+ com\\.example\\.coins>")))
      << without;
}

}  // namespace

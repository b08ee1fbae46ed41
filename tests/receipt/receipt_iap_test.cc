#include "zbiap/receipt/receipt_iap.h"

#include <gtest/gtest.h>

#include <regex>
#include <string>

#include "tests/support/capture_platform.h"

namespace {

using zbiap::Date;
using zbiap::Dictionary;
using zbiap::Value;
using zbiap::testing::CapturePlatformScope;

const Date kPurchase = Date::fromMicrosSince1970(1709634030LL * 1000000);
const Date kOriginal = kPurchase - std::chrono::hours(24 * 30);
const Date kExpires = kPurchase + std::chrono::hours(24 * 31);

Dictionary fullDictionary() {
  return Dictionary{
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
}

Dictionary requiredOnly() {
  return Dictionary{
      {"ProductID", "com.example.coins"},
      {"TransactionID", "77"},
      {"PurchaseDate", kPurchase},
  };
}

ZBIAPReceiptIAPPtr make(std::string product, std::string transaction,
                        std::optional<std::string> originalTransaction, bool upgradable = false) {
  return ZBIAPReceiptIAP::create(std::move(product), 1, std::move(transaction),
                                 std::move(originalTransaction), kPurchase, kOriginal, kExpires,
                                 std::nullopt, 5, upgradable);
}

class ReceiptIAPTest : public ::testing::Test {
 protected:
  std::vector<std::string> logLines() { return scope_.platform().logLines(); }
  CapturePlatformScope scope_;
};

TEST_F(ReceiptIAPTest, FullDictionaryRoundTrips) {
  auto iap = ZBIAPReceiptIAP::fromDictionaryRepresentation(fullDictionary(), true);
  ASSERT_NE(iap, nullptr);
  EXPECT_TRUE(iap->upgradable());
  EXPECT_EQ(iap->productIdentifier(), "com.example.pro");
  EXPECT_EQ(iap->quantity(), 1);
  EXPECT_EQ(iap->transactionIdentifier(), "1000000123");
  EXPECT_EQ(iap->originalTransactionIdentifier(), "1000000100");
  EXPECT_EQ(iap->purchaseDate(), kPurchase);
  EXPECT_EQ(iap->originalPurchaseDate(), kOriginal);
  EXPECT_EQ(iap->subscriptionExpirationDate(), kExpires);
  EXPECT_EQ(iap->cancellationDate(), kExpires);
  EXPECT_EQ(iap->webOrderLineItemID(), 1000000042);
  EXPECT_EQ(iap->dictionaryRepresentation(), fullDictionary());
  EXPECT_TRUE(logLines().empty());

  // `upgradable` is not stored: a record read back takes it from the flag.
  auto back = ZBIAPReceiptIAP::fromDictionaryRepresentation(iap->dictionaryRepresentation(), false);
  ASSERT_NE(back, nullptr);
  EXPECT_FALSE(back->upgradable());
  EXPECT_NE(*back, *iap);
}

TEST_F(ReceiptIAPTest, RequiredFieldsOnlyGiveTheFiveKeys) {
  auto iap = ZBIAPReceiptIAP::fromDictionaryRepresentation(requiredOnly(), false);
  ASSERT_NE(iap, nullptr);
  EXPECT_EQ(iap->quantity(), 0);
  EXPECT_EQ(iap->webOrderLineItemID(), 0);
  const Dictionary dictionary = iap->dictionaryRepresentation();
  std::vector<std::string> keys;
  for (const auto& [key, value] : dictionary) keys.push_back(key);
  std::sort(keys.begin(), keys.end());
  EXPECT_EQ(keys, (std::vector<std::string>{"ProductID", "PurchaseDate", "Quantity",
                                            "TransactionID", "WebOrderLineItemID"}));
  EXPECT_EQ(dictionary["Quantity"], Value(0));
  EXPECT_TRUE(dictionary["WebOrderLineItemID"].isNumber());
}

TEST_F(ReceiptIAPTest, QuantityMustBeANumber) {
  Dictionary dictionary = requiredOnly();
  dictionary.set("Quantity", "2");
  EXPECT_EQ(ZBIAPReceiptIAP::fromDictionaryRepresentation(dictionary, false), nullptr);
  EXPECT_EQ(logLines(), std::vector<std::string>{"Quantity is not a number!"});

  dictionary.set("Quantity", Value::null());
  EXPECT_EQ(ZBIAPReceiptIAP::fromDictionaryRepresentation(dictionary, false), nullptr);

  dictionary.set("Quantity", 2.9);  // numbers of any kind count, truncated
  auto iap = ZBIAPReceiptIAP::fromDictionaryRepresentation(dictionary, false);
  ASSERT_NE(iap, nullptr);
  EXPECT_EQ(iap->quantity(), 2);
  dictionary.set("Quantity", true);
  EXPECT_EQ(ZBIAPReceiptIAP::fromDictionaryRepresentation(dictionary, false)->quantity(), 1);
}

TEST_F(ReceiptIAPTest, WebOrderLineItemIDOfWrongTypeIsZeroButKept) {
  Dictionary dictionary = requiredOnly();
  dictionary.set("WebOrderLineItemID", "1000000042");
  auto iap = ZBIAPReceiptIAP::fromDictionaryRepresentation(dictionary, false);
  ASSERT_NE(iap, nullptr);
  EXPECT_EQ(iap->webOrderLineItemID(), 0);
  EXPECT_EQ(logLines(), std::vector<std::string>{"Web Order Line Item ID is not a number!"});
}

TEST_F(ReceiptIAPTest, MissingOrMistypedRequiredFieldsReject) {
  const std::pair<const char*, Value> broken[] = {
      {"ProductID", Value()},          {"ProductID", Value(42)},
      {"TransactionID", Value()},      {"TransactionID", Value(int64_t{1000000123})},
      {"PurchaseDate", Value()},       {"PurchaseDate", Value("2024-03-05T10:20:30Z")},
      {"PurchaseDate", Value::null()},
  };
  for (const auto& [key, value] : broken) {
    Dictionary dictionary = requiredOnly();
    if (value.isNil()) {
      dictionary.remove(key);
    } else {
      dictionary.set(key, value);
    }
    EXPECT_EQ(ZBIAPReceiptIAP::fromDictionaryRepresentation(dictionary, false), nullptr) << key;
    ASSERT_FALSE(logLines().empty());
    EXPECT_EQ(logLines().back(),
              "Missing required field for In-App Purchase or field has a wrong type: " +
                  Value(dictionary).description());
  }
  EXPECT_EQ(ZBIAPReceiptIAP::fromDictionaryRepresentation(Dictionary(), false), nullptr);
  EXPECT_EQ(ZBIAPReceiptIAP::fromDictionaryRepresentation(Value(), false), nullptr);
  EXPECT_EQ(ZBIAPReceiptIAP::fromDictionaryRepresentation(Value("not a dictionary"), false),
            nullptr);
}

TEST_F(ReceiptIAPTest, ExpirationOfWrongTypeRejectsOtherOptionalsAreDropped) {
  Dictionary dictionary = requiredOnly();
  dictionary.set("SubscripExpDate", "2024-04-05");
  EXPECT_EQ(ZBIAPReceiptIAP::fromDictionaryRepresentation(dictionary, false), nullptr);
  EXPECT_EQ(logLines().back(), "Wrong type for Supscription Expiration Date: '2024-04-05'");

  dictionary = requiredOnly();
  dictionary.set("OrigPurchaseDate", "yesterday");
  dictionary.set("CancelDate", "today");
  dictionary.set("OrigTransactionID", 12);
  auto iap = ZBIAPReceiptIAP::fromDictionaryRepresentation(dictionary, false);
  ASSERT_NE(iap, nullptr);
  EXPECT_EQ(iap->originalPurchaseDate(), std::nullopt);
  EXPECT_EQ(iap->cancellationDate(), std::nullopt);
  EXPECT_EQ(iap->originalTransactionIdentifier(), std::nullopt);
  EXPECT_EQ(iap->dictionaryRepresentation().size(), 5u);
  const std::vector<std::string> lines = logLines();
  EXPECT_EQ(std::vector<std::string>(lines.begin() + 1, lines.end()),
            (std::vector<std::string>{
                "Wrong type for Original Transaction Identifier: '12'",
                "Wrong type for Original Purchase Date: 'yesterday'",
                "Wrong type for Cancellation Date: 'today'",
            }));
}

TEST_F(ReceiptIAPTest, EqualityIgnoresTransactionIdentifiers) {
  auto a = make("p", "1", "100");
  auto b = make("p", "2", "100");
  EXPECT_EQ(*a, *b);
  EXPECT_EQ(a->hash(), b->hash());
  // The original transaction identifier counts for the hash but not for equality.
  auto c = make("p", "1", "200");
  EXPECT_EQ(*a, *c);
  auto d = make("p", "1", std::nullopt);
  EXPECT_EQ(*a, *d);

  EXPECT_NE(*a, *make("q", "1", "100"));
  EXPECT_NE(*a, *make("p", "1", "100", /*upgradable=*/true));
  auto other_dates = ZBIAPReceiptIAP::create("p", 1, "1", "100", kPurchase, kOriginal, std::nullopt,
                                             std::nullopt, 5, false);
  EXPECT_NE(*a, *other_dates);
  auto cancelled = ZBIAPReceiptIAP::create("p", 1, "1", "100", kPurchase, kOriginal, kExpires,
                                           kPurchase, 5, false);
  EXPECT_NE(*a, *cancelled);
  auto more = ZBIAPReceiptIAP::create("p", 2, "1", "100", kPurchase, kOriginal, kExpires,
                                      std::nullopt, 5, false);
  EXPECT_NE(*a, *more);
  EXPECT_TRUE(a->isEqual(*a));
}

TEST_F(ReceiptIAPTest, EqualDictionariesGiveEqualHashes) {
  auto x = ZBIAPReceiptIAP::fromDictionaryRepresentation(fullDictionary(), true);
  auto y = ZBIAPReceiptIAP::fromDictionaryRepresentation(fullDictionary(), true);
  EXPECT_EQ(std::hash<ZBIAPReceiptIAP>()(*x), std::hash<ZBIAPReceiptIAP>()(*y));
}

TEST_F(ReceiptIAPTest, Description) {
  auto with = make("com.example.pro", "1", "100");
  EXPECT_TRUE(
      std::regex_match(with->description(),
                       std::regex("<ZBIAPReceiptIAP: 0x[0-9a-f]+ com\\.example\\.pro "
                                  "2024-03-05 10:20:30 \\+0000 - 2024-04-05 10:20:30 \\+0000>")))
      << with->description();
  auto without = ZBIAPReceiptIAP::fromDictionaryRepresentation(requiredOnly(), false);
  EXPECT_TRUE(std::regex_match(without->description(),
                               std::regex("<ZBIAPReceiptIAP: 0x[0-9a-f]+ com\\.example\\.coins>")))
      << without->description();
}

}  // namespace

// Receipt contents for the reader's tests: a receipt of `n` purchases whose optional fields
// vary with the index, a writer shared by a test suite, and what a rejected receipt leaves.
#ifndef ZBIAP_TESTS_RECEIPT_RECEIPT_CONTENTS_H_
#define ZBIAP_TESTS_RECEIPT_RECEIPT_CONTENTS_H_

#include <gtest/gtest.h>

#include <string>

#include "zbiap/receipt/receipt_parser.h"
#include "zbiap/storekit/receipt_writer.h"

namespace zbiap::testing {

inline Date at(int64_t seconds) { return Date::fromMicrosSince1970(seconds * 1000000); }

inline ReceiptPurchase purchase(int i) {
  ReceiptPurchase p;
  p.quantity = 1 + i % 3;
  p.productIdentifier = "com.example.product." + std::to_string(i % 5);
  p.transactionIdentifier = std::to_string(1000000000000000 + i);
  if (i % 3) p.originalTransactionIdentifier = std::to_string(1000000000000000 + i / 2);
  p.purchaseDate = at(1600000000 + i * 3600);
  if (i % 4) p.originalPurchaseDate = at(1600000000 + (i / 2) * 3600);
  if (i % 2) p.subscriptionExpirationDate = at(1600000000 + i * 3600 + 30 * 86400);
  if (i % 7 == 3) p.cancellationDate = at(1600000000 + i * 3600 + 86400);
  p.webOrderLineItemID = 20000000000000 + i;
  return p;
}

inline ReceiptContents contents(int purchases) {
  ReceiptContents c;
  c.bundleIdentifier = "com.example.app";
  c.appVersion = "2.1";
  c.originalAppVersion = "1.0";
  c.creationDate = at(1700000000);
  c.expirationDate = at(1800000000);
  c.originalPurchaseDate = at(1500000000);
  for (int i = 0; i < purchases; ++i) c.purchases.push_back(purchase(i));
  return c;
}

// A test suite whose tests share one writer (making its key takes a while).
class ReceiptWriterTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { writer_ = ReceiptWriter::create().release(); }
  static void TearDownTestSuite() { delete writer_; }
  static inline ReceiptWriter* writer_ = nullptr;
};

// A rejected receipt leaves nothing behind.
inline void expectRejected(const ZBIAPReceiptParser& parser) {
  EXPECT_FALSE(parser.isLoaded());
  ASSERT_NE(parser.lastError(), nullptr);
  EXPECT_EQ(parser.lastError()->domain(), ZBIAPReceiptParserErrorDomain);
  EXPECT_EQ(parser.lastError()->code(), 2);
  EXPECT_TRUE(parser.lastError()->userInfo().empty());
  EXPECT_TRUE(parser.dictionaryRepresentation().empty());
  EXPECT_TRUE(parser.inAppPurchases().empty());
  EXPECT_EQ(parser.bundleIdentifier(), std::nullopt);
  EXPECT_EQ(parser.receiptCreationDate(), std::nullopt);
  EXPECT_EQ(parser.environment(), std::nullopt);
}

}  // namespace zbiap::testing

#endif  // ZBIAP_TESTS_RECEIPT_RECEIPT_CONTENTS_H_

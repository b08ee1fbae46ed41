// The App Store store and its receipt file: changes seen by the file monitor, and receipts that
// cannot be read, which must leave the store's records as they were.
#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>
#include <memory>
#include <string>

#include "tests/store/store_apple_fixture.h"
#include "zbiap/storekit/receipt_writer.h"

namespace zbiap::testing {
namespace {

Date at(int64_t seconds) { return Date::fromMicrosSince1970(seconds * 1000000); }

ReceiptContents contents(int purchases) {
  ReceiptContents c;
  c.bundleIdentifier = "com.example.app";
  c.appVersion = "3";
  c.originalAppVersion = "1";
  c.creationDate = at(1735689600);
  c.originalPurchaseDate = at(1700000000);
  for (int i = 0; i < purchases; ++i) {
    ReceiptPurchase p;
    p.productIdentifier = i % 2 ? kLifetime : kMonthly;
    p.transactionIdentifier = std::to_string(1000 + i);
    p.originalTransactionIdentifier = p.transactionIdentifier;
    p.purchaseDate = at(1720000000 + i * 60);
    if (i % 2 == 0) p.subscriptionExpirationDate = at(1720000000 + i * 60 + 86400);
    c.purchases.push_back(p);
  }
  return c;
}

class StoreAppleReceiptTest : public StoreAppleTest {
 protected:
  void SetUp() override {
    StoreAppleTest::SetUp();
    writer_ = ReceiptWriter::create();
    ASSERT_TRUE(writer_);
  }

  Data receipt(int purchases) { return *writer_->write(contents(purchases)); }

  size_t parseFailures() const {
    size_t n = 0;
    for (const auto& line : platform_.logLines()) {
      n += line.find("Could not parse receipt: ") != std::string::npos;
    }
    return n;
  }

  std::unique_ptr<ReceiptWriter> writer_;
};

TEST_F(StoreAppleReceiptTest, ReceiptChangesSeenByTheMonitorReachTheDelegate) {
  writeReceiptBytes(receipt(1));
  auto store = makeStore();
  ASSERT_EQ(store->inAppPurchases().size(), 1u);
  EXPECT_EQ(store->originalPurchaseVersion(), "1");
  EXPECT_EQ(store->originalPurchaseDate(), at(1700000000));
  EXPECT_EQ(delegate_->updates, 0) << "the first read happens before anyone listens";

  writeReceiptBytes(receipt(2), /*inPlace=*/false);  // atomic replacement
  settle();
  EXPECT_EQ(delegate_->updates, 1);
  EXPECT_EQ(store->inAppPurchases().size(), 2u);

  writeReceiptBytes(receipt(3));  // in place
  settle();
  EXPECT_EQ(delegate_->updates, 2);
  EXPECT_EQ(delegate_->lastPurchases.size(), 3u);

  writeReceiptBytes(receipt(3), /*inPlace=*/false);  // same records: no news
  settle();
  EXPECT_EQ(delegate_->updates, 2);

  // Without an original purchase date or version, every read counts as a change, each alone.
  for (bool withDate : {false, true}) {
    ReceiptContents c = contents(3);
    if (withDate) {
      c.originalAppVersion.reset();
    } else {
      c.originalPurchaseDate.reset();
    }
    const int before = delegate_->updates;
    for (int read = 0; read < 2; ++read) {
      writeReceiptBytes(*writer_->write(c), /*inPlace=*/false);
      settle();
    }
    EXPECT_EQ(delegate_->updates, before + 2) << withDate;
  }
}

TEST_F(StoreAppleReceiptTest, UnreadableReceiptsLeaveTheRecordsInPlace) {
  const Data good = receipt(2);
  writeReceiptBytes(good);
  auto store = makeStore();
  const auto before = store->inAppPurchases();
  ASSERT_EQ(before.size(), 2u);

  writeReceiptBytes({});  // an empty file is not even read
  settle();
  EXPECT_EQ(parseFailures(), 0u);

  const Data truncated(good.begin(), good.begin() + static_cast<long>(good.size() / 2));
  const Data garbage(300, 0x5a);
  const Data wrongContent = *writer_->wrap(Data{0x31, 0x03, 0x02, 0x01}, {});
  size_t failures = 0;
  for (const Data* bad : {&truncated, &garbage, &wrongContent}) {
    writeReceiptBytes(*bad, /*inPlace=*/false);
    settle();
    EXPECT_GT(parseFailures(), failures);
    failures = parseFailures();
    EXPECT_EQ(store->inAppPurchases().size(), 2u);
    EXPECT_EQ(store->originalPurchaseVersion(), "1");
  }
  EXPECT_EQ(delegate_->updates, 0);

  // A receipt written in place in two steps: the half is rejected, the whole is taken.
  const Data next = receipt(4);
  writeReceiptBytes(Data(next.begin(), next.begin() + 100));
  settle();
  EXPECT_EQ(store->inAppPurchases().size(), 2u);
  {
    std::ofstream out(receiptURL(), std::ios::binary | std::ios::app);
    out.write(reinterpret_cast<const char*>(next.data()) + 100,
              static_cast<std::streamsize>(next.size() - 100));
  }
  settle();
  EXPECT_EQ(store->inAppPurchases().size(), 4u);
  EXPECT_EQ(delegate_->updates, 1);
}

TEST_F(StoreAppleReceiptTest, MissingReceiptIsWatchedOnceAPurchaseWritesIt) {
  auto store = makeStore();
  EXPECT_TRUE(store->inAppPurchases().empty());
  EXPECT_EQ(parseFailures(), 1u) << "a missing receipt is logged and leaves the store empty";
  EXPECT_FALSE(store->originalPurchaseDate());

  auto lifetime = products(*store)[kLifetime];
  store->purchaseProduct(lifetime, nullptr);
  platform_.runUntilIdle();
  EXPECT_EQ(store->inAppPurchases().size(), 1u);

  // From now on the file is watched: a receipt written by someone else is picked up.
  writeReceiptBytes(receipt(3), /*inPlace=*/false);
  settle();
  EXPECT_EQ(store->inAppPurchases().size(), 3u);
}

}  // namespace
}  // namespace zbiap::testing

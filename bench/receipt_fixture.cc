#include "bench/receipt_fixture.h"

#include <string>

#include "testing/testdata.h"
#include "zbiap/storekit/receipt_writer.h"

namespace zbiap::bench {

Data makeWriterReceipt(int purchases) {
  auto writer = ReceiptWriter::create();
  ReceiptContents c;
  c.bundleIdentifier = "com.example.benchmark";
  c.appVersion = "4.2.1";
  c.originalAppVersion = "1.0";
  c.creationDate = Date::fromMicrosSince1970(1700000000000000);
  c.originalPurchaseDate = Date::fromMicrosSince1970(1500000000000000);
  for (int i = 0; i < purchases; ++i) {
    ReceiptPurchase p;
    p.productIdentifier = "com.example.app.monthly." + std::to_string(i % 4);
    p.transactionIdentifier = std::to_string(320000000000000 + i);
    p.originalTransactionIdentifier = std::to_string(320000000000000 + i / 12 * 12);
    // One period of 30 days per purchase; past 10,000 purchases the periods start over, so
    // that every date stays within four-digit years as real receipts' do.
    const int64_t period = i % 10000;
    p.purchaseDate = Date::fromMicrosSince1970((1600000000LL + period * 2592000LL) * 1000000);
    p.originalPurchaseDate =
        Date::fromMicrosSince1970((1600000000LL + period / 12 * 12 * 2592000LL) * 1000000);
    p.subscriptionExpirationDate =
        Date::fromMicrosSince1970((1600000000LL + (period + 1) * 2592000LL) * 1000000);
    p.webOrderLineItemID = 320000000000000 + i;
    // What the App Store writes besides: the types the reader ignores.
    for (int64_t type : {1707, 1719}) {
      Data value = {0x02, 0x01, 0x00};
      p.extraAttributes.push_back({type, 1, value});
    }
    c.purchases.push_back(std::move(p));
  }
  return *writer->write(c);
}

Data realReceipt187() {
  std::string bytes =
      testing::readFile(testing::testdataDir() / "receipts" / "sandbox-2020-nutcall-187iap.der");
  return Data(bytes.begin(), bytes.end());
}

}  // namespace zbiap::bench

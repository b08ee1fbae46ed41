// The zbiap tool's receipt and asn1 commands, run as a user would run them.
#include <gtest/gtest.h>
#include <sys/wait.h>

#include <cstdlib>
#include <filesystem>
#include <fstream>

#include "cli_runner.h"
#include "testing/testdata.h"
#include "zbiap/foundation/json.h"
#include "zbiap/storekit/receipt_writer.h"

namespace {

namespace fs = std::filesystem;
using zbiap::Data;
using zbiap::Value;

using Outcome = zbiap::testing::CliOutcome;

class ReceiptCLITest : public zbiap::testing::CliTest {
 protected:
  static std::string receiptBytes(int purchases) {
    auto writer = zbiap::ReceiptWriter::create();
    zbiap::ReceiptContents c;
    c.bundleIdentifier = "com.example.cli";
    c.appVersion = "7";
    c.creationDate = zbiap::Date::fromMicrosSince1970(1700000000000000);
    for (int i = 0; i < purchases; ++i) {
      zbiap::ReceiptPurchase p;
      p.productIdentifier = "pro";
      p.transactionIdentifier = std::to_string(100 + i);
      p.purchaseDate = zbiap::Date::fromMicrosSince1970(1600000000000000);
      p.webOrderLineItemID = 42;
      c.purchases.push_back(p);
    }
    Data d = *writer->write(c);
    return std::string(d.begin(), d.end());
  }

  static std::string base64(const std::string& bytes) {
    static constexpr char kTable[] =
        "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
    std::string out;
    size_t i = 0;
    for (; i + 2 < bytes.size(); i += 3) {
      uint32_t v = (uint8_t(bytes[i]) << 16) | (uint8_t(bytes[i + 1]) << 8) | uint8_t(bytes[i + 2]);
      for (int k = 3; k >= 0; --k) out.push_back(kTable[(v >> (6 * k)) & 63]);
      if (out.size() % 77 == 76) out.push_back('\n');
    }
    if (i < bytes.size()) {
      uint32_t v = uint8_t(bytes[i]) << 16;
      if (i + 1 < bytes.size()) v |= uint8_t(bytes[i + 1]) << 8;
      out.push_back(kTable[(v >> 18) & 63]);
      out.push_back(kTable[(v >> 12) & 63]);
      out.push_back(i + 1 < bytes.size() ? kTable[(v >> 6) & 63] : '=');
      out.push_back('=');
    }
    return out;
  }
};

TEST_F(ReceiptCLITest, PrintsJSONForDERAndBase64AndStandardInput) {
  std::string der = receiptBytes(2);
  fs::path derFile = file("receipt.der", der);
  fs::path b64File = file("receipt.txt", base64(der) + "\n");
  for (const std::string& args :
       {"receipt --json '" + derFile.string() + "'", "receipt --json '" + b64File.string() + "'"}) {
    SCOPED_TRACE(args);
    Outcome r = run(args);
    ASSERT_EQ(r.status, 0) << r.err;
    auto json = zbiap::parseJSON(r.out);
    ASSERT_TRUE(json.has_value()) << r.out;
    EXPECT_EQ((*json)["BundleID"], Value("com.example.cli"));
    EXPECT_EQ((*json)["AppVer"], Value("7"));
    EXPECT_EQ((*json)["Environment"], Value("ProductionSandbox"));
    EXPECT_EQ((*json)["CreationDate"], Value("2023-11-14T22:13:20Z"));
    ASSERT_EQ((*json)["IAPs"].size(), 2u);
    EXPECT_EQ((*json)["IAPs"][1]["TransactionID"], Value("101"));
    EXPECT_EQ((*json)["IAPs"][1]["Quantity"], Value(1));
    EXPECT_EQ((*json)["IAPs"][1]["WebOrderLineItemID"], Value(42));
    EXPECT_EQ((*json)["IAPs"][1]["PurchaseDate"], Value("2020-09-13T12:26:40Z"));
  }
  Outcome fromStdin = run("receipt -", derFile.string());
  ASSERT_EQ(fromStdin.status, 0) << fromStdin.err;
  EXPECT_NE(fromStdin.out.find("com.example.cli"), std::string::npos);
}

TEST_F(ReceiptCLITest, RejectedInputExitsOneWithTheError) {
  Outcome garbage = run("receipt '" + file("bad", "hello, world").string() + "'");
  EXPECT_EQ(garbage.status, 1);
  EXPECT_NE(garbage.err.find("ZBIAPReceiptParserErrorDomain"), std::string::npos) << garbage.err;
  EXPECT_NE(garbage.err.find("Code=2"), std::string::npos) << garbage.err;
  EXPECT_TRUE(garbage.out.empty());

  // Valid base64 of something that is not a receipt is rejected the same way.
  Outcome notReceipt = run("receipt --json '" + file("b64", "aGVsbG8=").string() + "'");
  EXPECT_EQ(notReceipt.status, 1);
  auto json = zbiap::parseJSON(notReceipt.out);
  ASSERT_TRUE(json.has_value()) << notReceipt.out;
  EXPECT_EQ((*json)["error"]["code"], Value(2));

  EXPECT_EQ(run("receipt").status, 2);
  EXPECT_EQ(run("receipt --bogus x").status, 2);
  EXPECT_EQ(run("receipt a b").status, 2);
}

TEST_F(ReceiptCLITest, RealReceiptsThroughTheTool) {
  ZBIAP_REQUIRE_TESTDATA();
  auto dir = zbiap::testing::testdataDir() / "receipts";
  Outcome good = run("receipt --json '" + (dir / "sandbox-2015-mbaasy-7iap.der").string() + "'");
  ASSERT_EQ(good.status, 0) << good.err;
  auto json = zbiap::parseJSON(good.out);
  ASSERT_TRUE(json.has_value());
  EXPECT_EQ((*json)["OrigPurchaseDate"], Value("2013-08-01T07:00:00Z"));
  EXPECT_EQ((*json)["IAPs"].size(), 7u);
  Outcome xcode = run("receipt '" + (dir / "xcode-2020-cyclemaps-1iap.der").string() + "'");
  EXPECT_EQ(xcode.status, 1);
  EXPECT_NE(xcode.err.find("Code=2"), std::string::npos);
}

TEST_F(ReceiptCLITest, ASN1PrintsTheTree) {
  Outcome r =
      run("asn1 '" + file("seq", std::string("\x30\x06\x02\x01\x07\x0c\x01x", 8)).string() + "'");
  ASSERT_EQ(r.status, 0) << r.err;
  EXPECT_EQ(r.out, "(\n    (\n        7,\n        x\n    )\n)\n");
  EXPECT_EQ(run("asn1 '" + file("bad", std::string("\x02\x00", 2)).string() + "'").status, 1);
  EXPECT_EQ(run("asn1").status, 2);
}

}  // namespace

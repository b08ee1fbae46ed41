#include "zbiap/receipt/receipt_parser.h"

#include <gtest/gtest.h>

#include <atomic>
#include <filesystem>
#include <fstream>
#include <thread>

#include "storekit/der_writer.h"
#include "zbiap/storekit/receipt_writer.h"

namespace {

using zbiap::Data;
using zbiap::Date;
using zbiap::ReceiptAttribute;
using zbiap::ReceiptContents;
using zbiap::ReceiptPurchase;
using zbiap::ReceiptWriter;
using zbiap::Value;

Date at(int64_t seconds) { return Date::fromMicrosSince1970(seconds * 1000000); }

ReceiptPurchase purchase(int i) {
  ReceiptPurchase p;
  p.quantity = 1 + i % 3;
  p.productIdentifier = "com.example.product." + std::to_string(i % 5);
  p.transactionIdentifier = std::to_string(1000000000000000 + i);
  p.originalTransactionIdentifier = std::to_string(1000000000000000 + i / 2);
  p.purchaseDate = at(1600000000 + i * 3600);
  p.originalPurchaseDate = at(1600000000 + (i / 2) * 3600);
  if (i % 2) p.subscriptionExpirationDate = at(1600000000 + i * 3600 + 30 * 86400);
  if (i % 7 == 3) p.cancellationDate = at(1600000000 + i * 3600 + 86400);
  p.webOrderLineItemID = 20000000000000 + i;
  return p;
}

ReceiptContents contents(int purchases) {
  ReceiptContents c;
  c.bundleIdentifier = "com.example.app";
  c.appVersion = "2.1";
  c.originalAppVersion = "1.0";
  c.creationDate = at(1700000000);
  c.originalPurchaseDate = at(1500000000);
  for (int i = 0; i < purchases; ++i) c.purchases.push_back(purchase(i));
  return c;
}

// A one-attribute value: the DER of an IA5String, UTF8String or INTEGER.
Data ia5(std::string_view text) {
  Data d;
  zbiap::der::appendString(&d, zbiap::der::kIA5String, text);
  return d;
}
Data utf8(std::string_view text) {
  Data d;
  zbiap::der::appendString(&d, zbiap::der::kUTF8String, text);
  return d;
}
Data integer(int64_t v) {
  Data d;
  zbiap::der::appendInteger(&d, v);
  return d;
}

class ReceiptParserTest : public ::testing::Test {
 protected:
  static void SetUpTestSuite() { writer_ = ReceiptWriter::create().release(); }
  static void TearDownTestSuite() { delete writer_; }

  std::shared_ptr<ZBIAPReceiptParser> read(const ReceiptContents& c,
                                           ReceiptWriter::Options options = {}) {
    auto data = writer_->write(c, options);
    EXPECT_TRUE(data.has_value());
    return ZBIAPReceiptParser::fromReceiptData(data.value_or(Data()));
  }
  std::shared_ptr<ZBIAPReceiptParser> readContent(const Data& content) {
    auto data = writer_->wrap(content, {});
    EXPECT_TRUE(data.has_value());
    return ZBIAPReceiptParser::fromReceiptData(data.value_or(Data()));
  }
  static void expectRejected(const ZBIAPReceiptParser& parser) {
    EXPECT_FALSE(parser.isLoaded());
    ASSERT_NE(parser.lastError(), nullptr);
    EXPECT_EQ(parser.lastError()->domain(), "ZBIAPReceiptParserErrorDomain");
    EXPECT_EQ(parser.lastError()->code(), 2);
    EXPECT_TRUE(parser.lastError()->userInfo().empty());
    EXPECT_TRUE(parser.dictionaryRepresentation().empty());
    EXPECT_TRUE(parser.inAppPurchases().empty());
    EXPECT_EQ(parser.bundleIdentifier(), std::nullopt);
    EXPECT_EQ(parser.receiptCreationDate(), std::nullopt);
    EXPECT_EQ(parser.environment(), std::nullopt);
  }

  static ReceiptWriter* writer_;
};

ReceiptWriter* ReceiptParserTest::writer_ = nullptr;

TEST_F(ReceiptParserTest, RoundTripsWriterReceipts) {
  for (int indefinite : {0, 2, 5}) {
    for (int count : {0, 1, 60}) {
      SCOPED_TRACE("indefinite layers " + std::to_string(indefinite) + ", purchases " +
                   std::to_string(count));
      ReceiptContents c = contents(count);
      auto parser = read(c, {.indefiniteLayers = indefinite});
      ASSERT_TRUE(parser->isLoaded());
      EXPECT_EQ(parser->lastError(), nullptr);
      EXPECT_EQ(parser->bundleIdentifier(), "com.example.app");
      EXPECT_EQ(parser->appVersion(), "2.1");
      EXPECT_EQ(parser->originalPurchaseVersion(), "1.0");
      EXPECT_EQ(parser->environment(), "ProductionSandbox");
      EXPECT_EQ(parser->receiptCreationDate(), at(1700000000));
      EXPECT_EQ(parser->originalPurchaseDate(), at(1500000000));
      EXPECT_EQ(parser->receiptExpirationDate(), std::nullopt);

      auto iaps = parser->inAppPurchases();
      ASSERT_EQ(iaps.size(), static_cast<size_t>(count));
      for (int i = 0; i < count; ++i) {
        const ReceiptPurchase& p = c.purchases[i];
        auto expected = ZBIAPReceiptIAP::create(
            *p.productIdentifier, *p.quantity, *p.transactionIdentifier,
            p.originalTransactionIdentifier, *p.purchaseDate, p.originalPurchaseDate,
            p.subscriptionExpirationDate, p.cancellationDate, *p.webOrderLineItemID, true);
        EXPECT_TRUE(iaps[i]->isEqual(*expected)) << i;
        EXPECT_EQ(iaps[i]->transactionIdentifier(), *p.transactionIdentifier);
        EXPECT_EQ(iaps[i]->originalTransactionIdentifier(), p.originalTransactionIdentifier);
      }
      auto dict = parser->dictionaryRepresentation();
      EXPECT_EQ(dict.contains(ZBIAPReceiptKeyIAPs), count > 0);
      if (count > 0) {
        const Value& first = dict[ZBIAPReceiptKeyIAPs][0];
        EXPECT_EQ(first, Value(iaps[0]->dictionaryRepresentation()));
      }
    }
  }
}

TEST_F(ReceiptParserTest, UndecodableValuesAreSkippedOrReject) {
  // An empty original purchase date is skipped; an empty creation date rejects.
  ReceiptContents c = contents(1);
  c.originalPurchaseDate.reset();
  c.extraAttributes.push_back({18, 1, ia5("")});
  c.extraAttributes.push_back({0, 1, integer(5)});  // environment as a number: skipped
  c.extraAttributes.push_back({4, 1, Data{0x04, 0x01, 0x00}});
  c.extraAttributes.push_back({99, 1, Data{0xFF}});  // ignored even though it cannot parse
  auto parser = read(c);
  ASSERT_TRUE(parser->isLoaded());
  EXPECT_EQ(parser->originalPurchaseDate(), std::nullopt);
  // The writer's own environment attribute came first and stays.
  EXPECT_EQ(parser->environment(), "ProductionSandbox");

  for (auto bad : std::vector<ReceiptAttribute>{{12, 1, ia5("")},
                                                {12, 1, ia5("yesterday")},
                                                {2, 1, integer(1)},
                                                {3, 1, Data{0x0C, 0x05, 'a'}},
                                                {19, 1, Data()},
                                                {21, 1, utf8("not a date")},
                                                {17, 1, utf8("not a set")}}) {
    SCOPED_TRACE(bad.type);
    ReceiptContents broken = contents(1);
    broken.extraAttributes.push_back(bad);
    expectRejected(*read(broken));
  }
}

TEST_F(ReceiptParserTest, ValuesInEveryEncodingTheParserAccepts) {
  ReceiptContents c = contents(0);
  c.bundleIdentifier.reset();
  c.appVersion.reset();
  c.originalAppVersion.reset();
  // Long-form lengths, a constructed string, a PrintableString, trailing elements after the
  // first value and a tagged first value.
  c.extraAttributes = {{2, 1, Data{0x0C, 0x82, 0x00, 0x03, 'a', 'p', 'p'}},
                       {3, 1, Data{0x2C, 0x06, 0x0C, 0x01, '1', 0x0C, 0x01, '2'}},
                       {19, 1, Data{0x13, 0x01, '9', 0x05, 0x00}},
                       {0, 1, Data{0x80, 0x01, 'x'}}};
  ReceiptPurchase p = purchase(0);
  p.quantity.reset();
  p.webOrderLineItemID.reset();
  p.extraAttributes = {
      {1701, 1, Data{0x02, 0x09, 0x00, 0, 0, 0, 0, 0, 0, 0, 0x07}},  // a decimal number
      {1711, 1, Data{0x02, 0x08, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFE}}};
  c.purchases = {p};
  auto parser = read(c);
  ASSERT_TRUE(parser->isLoaded()) << parser->lastError()->description();
  EXPECT_EQ(parser->bundleIdentifier(), "app");
  EXPECT_EQ(parser->appVersion(), "12");
  EXPECT_EQ(parser->originalPurchaseVersion(), "9");
  EXPECT_EQ(parser->environment(), "ProductionSandbox");  // the tagged value is skipped
  auto iaps = parser->inAppPurchases();
  ASSERT_EQ(iaps.size(), 1u);
  EXPECT_EQ(iaps[0]->quantity(), 7);
  EXPECT_EQ(iaps[0]->webOrderLineItemID(), -2);
}

TEST_F(ReceiptParserTest, PurchaseFields) {
  ReceiptContents c = contents(0);
  ReceiptPurchase noTransaction = purchase(1);
  noTransaction.transactionIdentifier.reset();
  ReceiptPurchase emptyDates = purchase(2);  // expiration and cancellation written empty
  ReceiptPurchase odd = purchase(3);
  odd.quantity.reset();
  odd.webOrderLineItemID.reset();
  odd.extraAttributes.push_back({1708, 1, ia5("garbage")});    // skipped
  odd.extraAttributes.push_back({1712, 1, integer(3)});        // skipped
  odd.extraAttributes.push_back({1707, 1, Data{0x02, 0x00}});  // ignored
  c.purchases = {noTransaction, emptyDates, odd};
  auto parser = read(c);
  ASSERT_TRUE(parser->isLoaded());
  auto iaps = parser->inAppPurchases();
  ASSERT_EQ(iaps.size(), 2u);  // the one without a transaction is dropped
  EXPECT_EQ(iaps[0]->subscriptionExpirationDate(), std::nullopt);
  EXPECT_EQ(iaps[0]->cancellationDate(), std::nullopt);
  EXPECT_EQ(iaps[1]->quantity(), 0);
  EXPECT_EQ(iaps[1]->webOrderLineItemID(), 0);
  EXPECT_EQ(iaps[1]->subscriptionExpirationDate(), odd.subscriptionExpirationDate);
  EXPECT_EQ(iaps[1]->cancellationDate(), odd.cancellationDate);
  // The dictionary keeps all three purchases.
  EXPECT_EQ(parser->dictionaryRepresentation()[ZBIAPReceiptKeyIAPs].size(), 3u);

  for (auto bad : std::vector<ReceiptAttribute>{{1701, 1, utf8("1")},
                                                {1702, 1, integer(1)},
                                                {1703, 1, Data{0x16, 0x01, 0xE9}},
                                                {1704, 1, ia5("")},
                                                {1705, 1, Data{0x05, 0x00}},
                                                {1706, 1, ia5("2020-13-01T00:00:00Z")},
                                                {1711, 1, ia5("12")}}) {
    SCOPED_TRACE(bad.type);
    ReceiptContents broken = contents(1);
    broken.purchases[0].extraAttributes.push_back(bad);
    expectRejected(*read(broken));
  }
}

TEST_F(ReceiptParserTest, StructureFaultsReject) {
  // A SET element that is not a SEQUENCE.
  Data content = {0x31, 0x03, 0x02, 0x01, 0x05};
  expectRejected(*readContent(content));
  // An attribute of two elements, or with a type that is not a number.
  expectRejected(*readContent({0x31, 0x08, 0x30, 0x06, 0x02, 0x01, 0x02, 0x02, 0x01, 0x01}));
  expectRejected(
      *readContent({0x31, 0x0B, 0x30, 0x09, 0x0C, 0x01, 'x', 0x02, 0x01, 0x01, 0x04, 0x01, 0x05}));
  // Content that is a SEQUENCE first is fine only if it is an array: a string is not.
  expectRejected(*readContent({0x0C, 0x01, 'x'}));
  expectRejected(*readContent({0x01, 0x02}));
  // An empty SET loads as an empty receipt.
  auto empty = readContent({0x31, 0x00, 0x00, 0x00});
  EXPECT_TRUE(empty->isLoaded());
  EXPECT_TRUE(empty->dictionaryRepresentation().empty());

  // No PKCS #7 data inside, garbage, nothing.
  expectRejected(*ZBIAPReceiptParser::fromReceiptData(writer_->encodePayload(contents(1))));
  expectRejected(*ZBIAPReceiptParser::fromReceiptData(Data{'{', '"', 'a', '"', '}'}));
  expectRejected(*ZBIAPReceiptParser::fromReceiptData(Data()));
}

TEST_F(ReceiptParserTest, SourcesAndRefresh) {
  EXPECT_EQ(ZBIAPReceiptParser::fromReceiptData(std::nullopt), nullptr);
  EXPECT_EQ(ZBIAPReceiptParser::fromReceiptURL(std::nullopt), nullptr);

  auto dir = std::filesystem::temp_directory_path() /
             ("zbiap_receipt_" + std::to_string(::testing::UnitTest::GetInstance()->random_seed()) +
              "_" + std::to_string(reinterpret_cast<uintptr_t>(this)));
  std::filesystem::create_directories(dir);
  auto path = dir / "receipt";
  auto parser = ZBIAPReceiptParser::fromReceiptURL(path);
  ASSERT_NE(parser, nullptr);
  EXPECT_FALSE(parser->isLoaded());
  ASSERT_NE(parser->lastError(), nullptr);
  EXPECT_EQ(parser->lastError()->code(), 1);
  EXPECT_EQ(parser->lastError()->userInfo()["URL"], Value(path.string()));

  {
    std::ofstream out(path, std::ios::binary);
    Data good = *writer_->write(contents(2));
    out.write(reinterpret_cast<const char*>(good.data()),
              static_cast<std::streamsize>(good.size()));
  }
  parser->refresh();
  ASSERT_TRUE(parser->isLoaded());
  EXPECT_EQ(parser->inAppPurchases().size(), 2u);

  // A bad file replaces everything: nothing of the old receipt stays.
  {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    out << "not a receipt";
  }
  parser->refresh();
  expectRejected(*parser);

  // The URL wins over data; without either, the results are reset and the error kept.
  parser->setReceiptData(*writer_->write(contents(1)));
  parser->refresh();
  expectRejected(*parser);
  parser->setReceiptURL(std::nullopt);
  parser->refresh();
  ASSERT_TRUE(parser->isLoaded());
  EXPECT_EQ(parser->inAppPurchases().size(), 1u);
  parser->setReceiptData(std::nullopt);
  parser->refresh();
  EXPECT_FALSE(parser->isLoaded());
  EXPECT_TRUE(parser->inAppPurchases().empty());
  EXPECT_EQ(parser->lastError(), nullptr);

  std::filesystem::remove_all(dir);
}

TEST_F(ReceiptParserTest, ChunkedContentIsRejected) {
  // Xcode's form: the content OCTET STRING in an indefinite-length constructed string with
  // an end-of-contents marker. Build it by hand around a good payload.
  Data payload = writer_->encodePayload(contents(1));
  Data chunked = {0x24, 0x80};
  zbiap::der::appendElement(&chunked, zbiap::der::kOctetString, payload);
  chunked.insert(chunked.end(), {0x00, 0x00});
  Data oid = {0x06, 0x09, 0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x07, 0x01};
  Data info = {0x30, 0x80};
  info.insert(info.end(), oid.begin(), oid.end());
  info.insert(info.end(), {0xA0, 0x80});
  info.insert(info.end(), chunked.begin(), chunked.end());
  info.insert(info.end(), {0x00, 0x00, 0x00, 0x00});
  expectRejected(*ZBIAPReceiptParser::fromReceiptData(info));

  // The same with a primitive content string loads.
  Data plain = {0x30, 0x80};
  plain.insert(plain.end(), oid.begin(), oid.end());
  plain.insert(plain.end(), {0xA0, 0x80});
  zbiap::der::appendElement(&plain, zbiap::der::kOctetString, payload);
  plain.insert(plain.end(), {0x00, 0x00, 0x00, 0x00});
  auto parser = ZBIAPReceiptParser::fromReceiptData(plain);
  EXPECT_TRUE(parser->isLoaded());
  EXPECT_EQ(parser->inAppPurchases().size(), 1u);
}

// The dictionary form is made on request, after the refresh; it must still describe the
// receipt that was read, not the file as it is now, and be safe to ask for from several
// threads while another refreshes.
TEST_F(ReceiptParserTest, DictionaryDescribesTheReceiptThatWasRead) {
  auto dir = std::filesystem::temp_directory_path() /
             ("zbiap_receipt_dict_" + std::to_string(reinterpret_cast<uintptr_t>(this)));
  std::filesystem::create_directories(dir);
  auto path = dir / "receipt";
  auto write = [&](int purchases) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    Data data = *writer_->write(contents(purchases));
    out.write(reinterpret_cast<const char*>(data.data()),
              static_cast<std::streamsize>(data.size()));
  };
  write(3);
  auto parser = ZBIAPReceiptParser::fromReceiptURL(path);
  ASSERT_TRUE(parser->isLoaded());
  write(1);
  EXPECT_EQ(parser->dictionaryRepresentation()[ZBIAPReceiptKeyIAPs].size(), 3u);
  parser->refresh();
  EXPECT_EQ(parser->dictionaryRepresentation()[ZBIAPReceiptKeyIAPs].size(), 1u);

  std::atomic<bool> done{false};
  std::thread refresher([&] {
    for (int i = 0; i < 50; ++i) parser->refresh();
    done = true;
  });
  std::vector<std::thread> readers;
  for (int t = 0; t < 2; ++t) {
    readers.emplace_back([&] {
      while (!done) {
        zbiap::Dictionary d = parser->dictionaryRepresentation();
        EXPECT_EQ(d[ZBIAPReceiptKeyBundleID], Value("com.example.app"));
        EXPECT_EQ(parser->inAppPurchases().size(), 1u);
      }
    });
  }
  refresher.join();
  for (auto& r : readers) r.join();
  std::filesystem::remove_all(dir);
}

}  // namespace

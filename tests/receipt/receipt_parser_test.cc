#include "zbiap/receipt/receipt_parser.h"

#include <gtest/gtest.h>

#include <filesystem>
#include <fstream>

#include "receipt/receipt_decoder.h"
#include "storekit/der_writer.h"
#include "tests/receipt/receipt_contents.h"

namespace {

using zbiap::Data;
using zbiap::ReceiptAttribute;
using zbiap::ReceiptContents;
using zbiap::ReceiptPurchase;
using zbiap::Value;
using zbiap::internal::DecodedReceipt;
using zbiap::testing::at;
using zbiap::testing::contents;
using zbiap::testing::expectRejected;
using zbiap::testing::purchase;

// A one-attribute value: the DER of an IA5String, UTF8String or INTEGER.
Data text(uint8_t tag, std::string_view text) {
  Data d;
  zbiap::der::appendString(&d, tag, text);
  return d;
}
Data ia5(std::string_view s) { return text(zbiap::der::kIA5String, s); }
Data utf8(std::string_view s) { return text(zbiap::der::kUTF8String, s); }
Data integer(int64_t v) {
  Data d;
  zbiap::der::appendInteger(&d, v);
  return d;
}

// Decodes `data` both ways; returns whether the direct decoder answered.
bool compare(const Data& data) {
  DecodedReceipt direct, tree;
  const bool answered = zbiap::internal::decodeReceiptDirect(data, &direct);
  const bool accepted = zbiap::internal::decodeReceiptWithTree(data, &tree);
  if (answered) {
    EXPECT_TRUE(accepted) << "the direct decoder accepted a receipt the tree decoder rejects";
    EXPECT_TRUE(accepted && zbiap::internal::sameContents(direct, tree));
  }
  return answered;
}

class ReceiptParserTest : public zbiap::testing::ReceiptWriterTest {
 protected:
  std::shared_ptr<ZBIAPReceiptParser> read(const ReceiptContents& c,
                                           zbiap::ReceiptWriter::Options options = {}) {
    auto data = writer_->write(c, options);
    EXPECT_TRUE(data.has_value());
    return ZBIAPReceiptParser::initWithReceiptData(data.value_or(Data()));
  }
  std::shared_ptr<ZBIAPReceiptParser> readContent(const Data& content) {
    return ZBIAPReceiptParser::initWithReceiptData(writer_->wrap(content, {}).value_or(Data()));
  }
  void expectRejectedWith(const std::vector<ReceiptAttribute>& bad, bool inPurchase) {
    for (const ReceiptAttribute& attribute : bad) {
      SCOPED_TRACE(attribute.type);
      ReceiptContents broken = contents(1);
      (inPurchase ? broken.purchases[0].extraAttributes : broken.extraAttributes)
          .push_back(attribute);
      expectRejected(*read(broken));
    }
  }
};

TEST_F(ReceiptParserTest, RoundTripsWriterReceipts) {
  for (int indefinite : {0, 2, 5}) {
    for (int count : {0, 1, 60}) {
      SCOPED_TRACE("indefinite layers " + std::to_string(indefinite) + ", purchases " +
                   std::to_string(count));
      ReceiptContents c = contents(count);
      const Data data = *writer_->write(c, {.indefiniteLayers = indefinite});
      EXPECT_TRUE(compare(data)) << "the direct decoder answers";
      auto parser = ZBIAPReceiptParser::initWithReceiptData(data);
      ASSERT_TRUE(parser->isLoaded());
      EXPECT_EQ(parser->lastError(), nullptr);
      EXPECT_EQ(parser->bundleIdentifier(), "com.example.app");
      EXPECT_EQ(parser->appVersion(), "2.1");
      EXPECT_EQ(parser->originalPurchaseVersion(), "1.0");
      EXPECT_EQ(parser->environment(), "ProductionSandbox");
      EXPECT_EQ(parser->receiptCreationDate(), at(1700000000));
      EXPECT_EQ(parser->originalPurchaseDate(), at(1500000000));
      EXPECT_EQ(parser->receiptExpirationDate(), at(1800000000));
      auto iaps = parser->inAppPurchases();
      ASSERT_EQ(iaps.size(), static_cast<size_t>(count));
      for (int i = 0; i < count; ++i) {
        const ReceiptPurchase& p = c.purchases[i];
        auto expected = ZBIAPReceiptIAP::initWithProductIdentifier(
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
        EXPECT_EQ(dict[ZBIAPReceiptKeyIAPs][0], Value(iaps[0]->dictionaryRepresentation()));
      }
    }
  }
}

TEST_F(ReceiptParserTest, ReceiptFieldsInEveryEncodingSkippedOrRejecting) {
  // Long-form lengths, a constructed string, a PrintableString, trailing elements after the
  // first value; a tagged, numeric or unparsable environment and an empty original purchase
  // date are skipped (the writer's own environment came first and stays).
  ReceiptContents c = contents(0);
  c.bundleIdentifier.reset();
  c.appVersion.reset();
  c.originalAppVersion.reset();
  c.originalPurchaseDate.reset();
  c.extraAttributes = {{2, 1, Data{0x0C, 0x82, 0x00, 0x03, 'a', 'p', 'p'}},
                       {3, 1, Data{0x2C, 0x06, 0x0C, 0x01, '1', 0x0C, 0x01, '2'}},
                       {19, 1, Data{0x13, 0x01, '9', 0x05, 0x00}},
                       {0, 1, Data{0x80, 0x01, 'x'}},
                       {0, 1, integer(5)},
                       {18, 1, ia5("")},
                       {4, 1, Data{0x04, 0x01, 0x00}},
                       {99, 1, Data{0xFF}}};
  auto parser = read(c);
  ASSERT_TRUE(parser->isLoaded()) << parser->lastError()->description();
  EXPECT_EQ(parser->bundleIdentifier(), "app");
  EXPECT_EQ(parser->appVersion(), "12");
  EXPECT_EQ(parser->originalPurchaseVersion(), "9");
  EXPECT_EQ(parser->environment(), "ProductionSandbox");
  EXPECT_EQ(parser->originalPurchaseDate(), std::nullopt);

  expectRejectedWith({{12, 1, ia5("")},
                      {12, 1, ia5("yesterday")},
                      {2, 1, integer(1)},
                      {3, 1, Data{0x0C, 0x05, 'a'}},
                      {19, 1, Data()},
                      {21, 1, utf8("not a date")},
                      {17, 1, utf8("not a set")}},
                     false);
}

TEST_F(ReceiptParserTest, PurchaseFieldsSkippedDroppedOrRejecting) {
  ReceiptContents c = contents(0);
  ReceiptPurchase noTransaction = purchase(1);
  noTransaction.transactionIdentifier.reset();
  ReceiptPurchase emptyDates = purchase(2);  // expiration and cancellation written empty
  ReceiptPurchase odd = purchase(3);
  odd.quantity.reset();
  odd.webOrderLineItemID.reset();
  odd.extraAttributes = {
      {1708, 1, ia5("garbage")},   // skipped
      {1712, 1, integer(3)},       // skipped
      {1707, 1, Data{0x02, 0x00}}  // ignored
  };
  ReceiptPurchase numbers = purchase(4);
  numbers.quantity.reset();
  numbers.webOrderLineItemID.reset();
  numbers.extraAttributes = {
      {1701, 1, Data{0x02, 0x09, 0x00, 0, 0, 0, 0, 0, 0, 0, 0x07}},  // a decimal number
      {1711, 1, Data{0x02, 0x08, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFE}}};
  c.purchases = {noTransaction, emptyDates, odd, numbers};
  auto parser = read(c);
  ASSERT_TRUE(parser->isLoaded());
  auto iaps = parser->inAppPurchases();
  ASSERT_EQ(iaps.size(), 3u);  // the one without a transaction is dropped
  EXPECT_EQ(iaps[0]->subscriptionExpirationDate(), std::nullopt);
  EXPECT_EQ(iaps[0]->cancellationDate(), std::nullopt);
  EXPECT_EQ(iaps[1]->quantity(), 0);
  EXPECT_EQ(iaps[1]->webOrderLineItemID(), 0);
  EXPECT_EQ(iaps[1]->subscriptionExpirationDate(), odd.subscriptionExpirationDate);
  EXPECT_EQ(iaps[1]->cancellationDate(), odd.cancellationDate);
  EXPECT_EQ(iaps[2]->quantity(), 7);
  EXPECT_EQ(iaps[2]->webOrderLineItemID(), -2);
  // The dictionary keeps every purchase.
  EXPECT_EQ(parser->dictionaryRepresentation()[ZBIAPReceiptKeyIAPs].size(), 4u);

  expectRejectedWith({{1701, 1, utf8("1")},
                      {1702, 1, integer(1)},
                      {1703, 1, Data{0x16, 0x01, 0xE9}},
                      {1704, 1, ia5("")},
                      {1705, 1, Data{0x05, 0x00}},
                      {1706, 1, ia5("2020-13-01T00:00:00Z")},
                      {1711, 1, ia5("12")}},
                     true);
}

TEST_F(ReceiptParserTest, StructureFaultsReject) {
  for (const Data& content : std::vector<Data>{
           {0x31, 0x03, 0x02, 0x01, 0x05},  // a SET element that is not a SEQUENCE
           // An attribute of two elements, or with a type that is not a number.
           {0x31, 0x08, 0x30, 0x06, 0x02, 0x01, 0x02, 0x02, 0x01, 0x01},
           {0x31, 0x0B, 0x30, 0x09, 0x0C, 0x01, 'x', 0x02, 0x01, 0x01, 0x04, 0x01, 0x05},
           // Content that is no array.
           {0x0C, 0x01, 'x'},
           {0x01, 0x02}}) {
    expectRejected(*readContent(content));
  }
  // An empty SET loads as an empty receipt.
  auto empty = readContent({0x31, 0x00, 0x00, 0x00});
  EXPECT_TRUE(empty->isLoaded());
  EXPECT_TRUE(empty->dictionaryRepresentation().empty());
  // No PKCS #7 data inside, garbage, nothing.
  expectRejected(*ZBIAPReceiptParser::initWithReceiptData(writer_->encodePayload(contents(1))));
  expectRejected(*ZBIAPReceiptParser::initWithReceiptData(Data{'{', '"', 'a', '"', '}'}));
  expectRejected(*ZBIAPReceiptParser::initWithReceiptData(Data()));
}

// The file is read on refresh; the dictionary form, made on request, still describes the
// receipt that was read, not the file as it is now.
TEST_F(ReceiptParserTest, SourcesAndRefresh) {
  EXPECT_EQ(ZBIAPReceiptParser::initWithReceiptData(std::nullopt), nullptr);
  EXPECT_EQ(ZBIAPReceiptParser::initWithReceiptURL(std::nullopt), nullptr);
  auto dir = std::filesystem::temp_directory_path() /
             ("zbiap_receipt_" + std::to_string(reinterpret_cast<uintptr_t>(this)));
  std::filesystem::create_directories(dir);
  auto path = dir / "receipt";
  auto write = [&](int purchases) {
    std::ofstream out(path, std::ios::binary | std::ios::trunc);
    Data data = *writer_->write(contents(purchases));
    out.write(reinterpret_cast<const char*>(data.data()),
              static_cast<std::streamsize>(data.size()));
  };
  auto parser = ZBIAPReceiptParser::initWithReceiptURL(path);
  ASSERT_NE(parser, nullptr);
  EXPECT_FALSE(parser->isLoaded());
  ASSERT_NE(parser->lastError(), nullptr);
  EXPECT_EQ(parser->lastError()->code(), 1);
  EXPECT_EQ(parser->lastError()->userInfo()["URL"], Value(path.string()));

  write(3);
  parser->refresh();
  ASSERT_TRUE(parser->isLoaded());
  write(2);
  EXPECT_EQ(parser->dictionaryRepresentation()[ZBIAPReceiptKeyIAPs].size(), 3u);
  parser->refresh();
  EXPECT_EQ(parser->inAppPurchases().size(), 2u);
  EXPECT_EQ(parser->dictionaryRepresentation()[ZBIAPReceiptKeyIAPs].size(), 2u);

  // A bad file replaces everything: nothing of the old receipt stays.
  std::ofstream(path) << "not a receipt";
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

// Every single-octet change of a small receipt: wherever the direct decoder still answers,
// the tree decoder agrees. This walks the direct decoder through lengths, identifiers,
// attribute types, values and dates gone wrong.
TEST_F(ReceiptParserTest, AgreesOnEveryOneOctetChange) {
  zbiap::ReceiptContents c = contents(3);
  c.purchases[1].quantity = 300;  // a two-octet INTEGER
  auto original = writer_->write(c, {});
  ASSERT_TRUE(original);
  ASSERT_TRUE(compare(*original));
  int answered = 0;
  int declined = 0;
  for (size_t i = 0; i < original->size(); ++i) {
    for (uint8_t change : {0x01, 0x02, 0x10, 0x20, 0x80, 0xFF}) {
      if (HasFailure()) return;  // one report, not thousands
      Data data = *original;
      data[i] ^= change;
      SCOPED_TRACE("octet " + std::to_string(i) + " ^ " + std::to_string(change));
      (compare(data) ? answered : declined)++;
    }
  }
  // Most changes hit the signature and certificates and change nothing the decoders read.
  EXPECT_GT(answered, 0);
  EXPECT_GT(declined, 0);
}

}  // namespace

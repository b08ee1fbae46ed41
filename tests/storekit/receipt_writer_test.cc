#include "zbiap/storekit/receipt_writer.h"

#include <gtest/gtest.h>
#include <openssl/asn1.h>
#include <openssl/bio.h>
#include <openssl/pkcs7.h>
#include <openssl/x509.h>

#include <algorithm>

#include "storekit/der_writer.h"

namespace {

using zbiap::Data;
using zbiap::ReceiptContents;
using zbiap::ReceiptPurchase;
using zbiap::ReceiptWriter;

// The signed content as OpenSSL reads it back, checking the signature with the embedded
// certificate; nullopt when OpenSSL rejects the container.
std::optional<Data> verifiedContent(const Data& receipt) {
  const unsigned char* p = receipt.data();
  PKCS7* p7 = d2i_PKCS7(nullptr, &p, static_cast<long>(receipt.size()));
  if (p7 == nullptr) return std::nullopt;
  BIO* out = BIO_new(BIO_s_mem());
  std::optional<Data> content;
  if (PKCS7_verify(p7, nullptr, nullptr, nullptr, out, PKCS7_NOVERIFY | PKCS7_BINARY) == 1) {
    char* bytes = nullptr;
    long size = BIO_get_mem_data(out, &bytes);
    content = Data(bytes, bytes + size);
  }
  BIO_free(out);
  PKCS7_free(p7);
  return content;
}

ReceiptContents sample(int purchases) {
  ReceiptContents c;
  c.bundleIdentifier = "com.example.app";
  c.appVersion = "3";
  c.creationDate = zbiap::Date::fromMicrosSince1970(1700000000000000);
  for (int i = 0; i < purchases; ++i) {
    ReceiptPurchase p;
    p.productIdentifier = "product" + std::to_string(i);
    p.transactionIdentifier = std::to_string(i);
    p.purchaseDate = zbiap::Date::fromMicrosSince1970(1600000000000000);
    c.purchases.push_back(p);
  }
  return c;
}

TEST(ReceiptWriterTest, SignsThePayloadInAPrimitiveOctetStringInEveryLayout) {
  auto writer = ReceiptWriter::create();
  ASSERT_NE(writer, nullptr);
  for (int count : {0, 1, 300}) {
    for (int indefinite : {0, 5}) {
      SCOPED_TRACE(std::to_string(count) + " purchases, indefinite " + std::to_string(indefinite));
      ReceiptContents c = sample(count);
      Data payload = ReceiptWriter::encodePayload(c);
      auto receipt = writer->write(c, {.indefiniteLayers = indefinite});
      ASSERT_TRUE(receipt.has_value());
      EXPECT_EQ(verifiedContent(*receipt), payload);
      // The outer layer: long definite form, or indefinite closed by end-of-contents.
      EXPECT_EQ((*receipt)[1] == 0x80, indefinite > 0);
      if (indefinite > 0) {
        EXPECT_EQ(Data(receipt->end() - 2, receipt->end()), Data(2, 0x00));
      }
      // The payload stands whole in the file behind a primitive OCTET STRING header.
      auto at = std::search(receipt->begin(), receipt->end(), payload.begin(), payload.end());
      ASSERT_NE(at, receipt->end());
      Data header;
      zbiap::der::appendHeader(&header, zbiap::der::kOctetString, payload.size());
      EXPECT_TRUE(
          std::equal(header.begin(), header.end(), at - static_cast<ptrdiff_t>(header.size())));
    }
  }
  EXPECT_EQ(zbiap::der::withIndefiniteOuterLayers(Data{0x30, 0x05, 0x01}, 2), std::nullopt);
}

TEST(ReceiptWriterTest, PayloadLayout) {
  ReceiptContents c;
  c.environment.reset();
  c.bundleIdentifier = "b";
  ReceiptPurchase p;
  p.quantity.reset();
  c.purchases.push_back(p);
  // SET { SEQ { 2, 1, OCTET { UTF8 "b" } }, SEQ { 17, 1, OCTET { SET {} } } }
  EXPECT_EQ(
      ReceiptWriter::encodePayload(c, {.emptyAbsentDates = false}),
      (Data{0x31, 0x19, 0x30, 0x0B, 0x02, 0x01, 0x02, 0x02, 0x01, 0x01, 0x04, 0x03, 0x0C, 0x01,
            'b',  0x30, 0x0A, 0x02, 0x01, 0x11, 0x02, 0x01, 0x01, 0x04, 0x02, 0x31, 0x00}));
  // With the App Store's empty dates, the purchase holds 1708 and 1712 as empty IA5Strings
  // (SEQ { 1708, 1, OCTET { IA5 "" } } each).
  EXPECT_EQ(ReceiptWriter::encodePurchase(p, {}).size(), 2u + 2 * 13);
  EXPECT_EQ(ReceiptWriter::rfc3339UTC(zbiap::Date::fromMicrosSince1970(-1)),
            "1969-12-31T23:59:59Z");
  EXPECT_EQ(ReceiptWriter::rfc3339UTC(zbiap::Date::fromMicrosSince1970(1600000000999999)),
            "2020-09-13T12:26:40Z");
  EXPECT_EQ(ReceiptWriter::rfc3339UTC(zbiap::Date::fromMicrosSince1970(64060588800LL * 1000000)),
            "4000-01-01T00:00:00Z");
}

TEST(DERWriterTest, IntegersAreMinimalTwosComplement) {
  for (int64_t v :
       std::initializer_list<int64_t>{0LL, 1LL, 127LL, 128LL, 255LL, 256LL, -1LL, -128LL, -129LL,
                                      1701LL, 110000347470483LL, INT64_MAX, INT64_MIN}) {
    Data d;
    zbiap::der::appendInteger(&d, v);
    const unsigned char* p = d.data();
    ASN1_INTEGER* i = d2i_ASN1_INTEGER(nullptr, &p, static_cast<long>(d.size()));
    ASSERT_NE(i, nullptr) << v;
    int64_t back = 0;
    EXPECT_EQ(ASN1_INTEGER_get_int64(&back, i), 1);
    EXPECT_EQ(back, v);
    // Re-encoding through OpenSSL gives the same (minimal) octets.
    unsigned char* out = nullptr;
    int size = i2d_ASN1_INTEGER(i, &out);
    EXPECT_EQ(Data(out, out + size), d) << v;
    OPENSSL_free(out);
    ASN1_INTEGER_free(i);
  }
}

TEST(DERWriterTest, LengthForms) {
  for (size_t n : {0u, 127u, 128u, 255u, 256u, 65535u, 65536u}) {
    Data d;
    zbiap::der::appendHeader(&d, zbiap::der::kOctetString, n);
    EXPECT_EQ(d.size(), n < 128 ? 2u : n < 256 ? 3u : n < 65536 ? 4u : 5u) << n;
  }
}

}  // namespace

#include <gtest/gtest.h>

#include <unordered_set>

#include "zbiap/receipt/asn1_object_id.h"
#include "zbiap/receipt/asn1_parser.h"
#include "zbiap/receipt/asn1_tag.h"
#include "zbiap/receipt/big_num.h"

namespace {

TEST(ASN1ObjectIDTest, FromOctetsAndFromText) {
  const uint8_t rsa[] = {0x2A, 0x86, 0x48, 0x86, 0xF7, 0x0D, 0x01, 0x07, 0x01};
  auto oid = ZBIAPASN1ObjectID::initWithASN1Data(rsa, sizeof rsa, false);
  ASSERT_NE(oid, nullptr);
  EXPECT_EQ(oid->description(), "OID:1.2.840.113549.1.7.1");
  EXPECT_EQ(oid->asn1StringValue(), std::nullopt);
  // The first octet is never base 128: 0x81 gives 3.9, not a continued arc.
  const uint8_t big[] = {0x81};
  EXPECT_EQ(ZBIAPASN1ObjectID::initWithASN1Data(big, 1, false)->stringValue(), "3.9");
  const uint8_t zero[] = {0x2A, 0x00};
  EXPECT_EQ(ZBIAPASN1ObjectID::initWithASN1Data(zero + 1, 1, true), nullptr);

  auto a = ZBIAPASN1ObjectID::initWithStringValue("1.2.840", false);
  auto b = ZBIAPASN1ObjectID::initWithStringValue("..1..2.840.", false);
  auto relative = ZBIAPASN1ObjectID::initWithStringValue("1.2.840", true);
  ASSERT_TRUE(a && b && relative);
  EXPECT_TRUE(a->isEqual(*b));
  EXPECT_FALSE(a->isEqual(*relative));
  EXPECT_EQ(std::unordered_set<ZBIAPASN1ObjectID>{*a}.count(*b), 1u);
  EXPECT_NE(ZBIAPASN1ObjectID::initWithStringValue("1", true), nullptr);
  for (const char* bad : {"1", "1.x", "", "1.99999999999999999999999"}) {
    EXPECT_EQ(ZBIAPASN1ObjectID::initWithStringValue(bad, false), nullptr) << bad;
  }
}

TEST(ASN1TagTest, FactoryChecksTheValue) {
  auto tree = ZBIAPASN1Parser::parseASN1Data({0x30, 0x03, 0x02, 0x01, 0x01, 0x04, 0x01, 0xAB});
  ASSERT_NE(tree, nullptr);
  zbiap::ASN1Node array = (*tree)[0];
  zbiap::ASN1Node data = (*tree)[1];
  EXPECT_NE(ZBIAPASN1Tag::initWithTag(3, 2, true, array), nullptr);
  EXPECT_EQ(ZBIAPASN1Tag::initWithTag(3, 2, true, data), nullptr);
  EXPECT_EQ(ZBIAPASN1Tag::initWithTag(3, 2, false, array), nullptr);
  EXPECT_EQ(ZBIAPASN1Tag::initWithTag(3, 2, false, zbiap::ASN1Node()), nullptr);
  EXPECT_EQ(ZBIAPASN1Tag::fromNode(array), nullptr);
  EXPECT_EQ(ZBIAPASN1Tag::initWithTag(7, 1, false, data)->description(),
            "<ASN.1 Tag [Application 7] (primitive)> (\n" + data.description() + "\n)");
  EXPECT_EQ(ZBIAPBigNum::initWithData({0x80, 0x01})->description(), "<ZBIAPBigNum: 0x8001>");
}

}  // namespace

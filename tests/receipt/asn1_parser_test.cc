#include "zbiap/receipt/asn1_parser.h"

#include <gtest/gtest.h>

#include <cmath>
#include <initializer_list>
#include <limits>

#include "zbiap/receipt/asn1_tag.h"
#include "zbiap/receipt/big_num.h"

namespace {

using zbiap::ASN1Node;
using zbiap::ASN1Tree;
using zbiap::ASN1Type;
using zbiap::Data;

std::shared_ptr<const ASN1Tree> parse(std::initializer_list<int> bytes) {
  Data data;
  for (int b : bytes) data.push_back(static_cast<uint8_t>(b));
  return ZBIAPASN1Parser::parseASN1Data(std::move(data));
}

TEST(ASN1ParserTest, EmptyInputAndLoneBytesFail) {
  EXPECT_EQ(ZBIAPASN1Parser::parseASN1Data(Data()), nullptr);
  EXPECT_EQ(parse({0x05}), nullptr);
  // A trailing byte after a good element cannot be a header.
  EXPECT_EQ(parse({0x05, 0x00, 0x05}), nullptr);
}

TEST(ASN1ParserTest, IntegersAreUnsignedUpToSevenOctetsAndSignedAtEight) {
  auto t = parse({0x02, 0x01, 0xFF});
  ASSERT_NE(t, nullptr);
  ASSERT_EQ(t->size(), 1u);
  EXPECT_EQ((*t)[0].type(), ASN1Type::kInteger);
  EXPECT_EQ((*t)[0].integerValue(), 255);

  t = parse({0x02, 0x07, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF});
  ASSERT_NE(t, nullptr);
  EXPECT_EQ((*t)[0].integerValue(), 0xFFFFFFFFFFFFFF);

  t = parse({0x02, 0x08, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF});
  ASSERT_NE(t, nullptr);
  EXPECT_EQ((*t)[0].integerValue(), -1);

  // ENUMERATED reads the same way.
  t = parse({0x0A, 0x02, 0x01, 0x00});
  ASSERT_NE(t, nullptr);
  EXPECT_EQ((*t)[0].integerValue(), 256);

  EXPECT_EQ(parse({0x02, 0x00}), nullptr);
  EXPECT_EQ(parse({0x30, 0x04, 0x02, 0x00, 0x05, 0x00}), nullptr);
}

TEST(ASN1ParserTest, LongIntegersBecomeDecimalsThenBigNums) {
  auto t = parse({0x02, 0x09, 0xFF, 0, 0, 0, 0, 0, 0, 0, 0});
  ASSERT_NE(t, nullptr);
  ASSERT_EQ((*t)[0].type(), ASN1Type::kDecimal);
  // 0xFF00..00 (9 octets) - 256^9 = -2^64
  EXPECT_EQ((*t)[0].decimalValue().toString(), "-18446744073709551616");

  t = parse({0x02, 0x09, 0x01, 0, 0, 0, 0, 0, 0, 0, 0});
  ASSERT_NE(t, nullptr);
  EXPECT_EQ((*t)[0].decimalValue().toString(), "18446744073709551616");

  std::initializer_list<int> seventeen = {0x02, 17, 0x80, 1,  2,  3,  4,  5,  6, 7,
                                          8,    9,  10,   11, 12, 13, 14, 15, 16};
  t = parse(seventeen);
  ASSERT_NE(t, nullptr);
  ASSERT_EQ((*t)[0].type(), ASN1Type::kBigNum);
  auto bytes = (*t)[0].bytes();
  ASSERT_EQ(bytes.size(), 17u);
  EXPECT_EQ(bytes[0], 0x80);
  EXPECT_EQ(bytes[16], 16);
}

TEST(ASN1ParserTest, BooleanNullAndUnknownTypes) {
  auto t = parse({0x01, 0x01, 0x7F, 0x01, 0x01, 0x00, 0x05, 0x00});
  ASSERT_NE(t, nullptr);
  ASSERT_EQ(t->size(), 3u);
  EXPECT_EQ((*t)[0].integerValue(), 1);
  EXPECT_EQ((*t)[1].integerValue(), 0);
  EXPECT_EQ((*t)[2].type(), ASN1Type::kNull);
  EXPECT_TRUE((*t)[2].valid());

  EXPECT_EQ(parse({0x01, 0x02, 0x00, 0x00}), nullptr);
  EXPECT_EQ(parse({0x01, 0x00}), nullptr);

  // NULL takes whatever length it is given.
  t = parse({0x05, 0x02, 0xAA, 0xBB, 0x02, 0x01, 0x07});
  ASSERT_NE(t, nullptr);
  ASSERT_EQ(t->size(), 2u);
  EXPECT_EQ((*t)[1].integerValue(), 7);

  // A UTCTime and a BIT STRING give nothing; parsing goes on.
  t = parse({0x17, 0x0D, '2', '4', '0',  '1',  '0',  '1',  '0',  '0',  '0',
             '0',  '0',  '0', 'Z', 0x03, 0x02, 0x00, 0xFF, 0x02, 0x01, 0x09});
  ASSERT_NE(t, nullptr);
  ASSERT_EQ(t->size(), 1u);
  EXPECT_EQ((*t)[0].integerValue(), 9);

  // Input that holds only skipped elements parses to an empty array.
  t = parse({0x17, 0x00});
  ASSERT_NE(t, nullptr);
  EXPECT_TRUE(t->empty());
}

TEST(ASN1ParserTest, StringsAreCheckedByType) {
  auto t = parse(
      {0x0C, 0x03, 0xC3, 0xA9, 'x', 0x13, 0x02, 'A', 'b', 0x16, 0x00, 0x04, 0x02, 0xFF, 0x00});
  ASSERT_NE(t, nullptr);
  ASSERT_EQ(t->size(), 4u);
  EXPECT_EQ((*t)[0].stringValue(), "\xC3\xA9x");
  EXPECT_EQ((*t)[1].stringValue(), "Ab");
  EXPECT_TRUE((*t)[2].isString());
  EXPECT_EQ((*t)[2].stringValue(), "");
  ASSERT_TRUE((*t)[3].isData());
  EXPECT_EQ((*t)[3].bytes().size(), 2u);

  EXPECT_EQ(parse({0x0C, 0x02, 0xC3, 0x28}), nullptr);        // broken UTF-8
  EXPECT_EQ(parse({0x0C, 0x02, 0xC0, 0x80}), nullptr);        // overlong
  EXPECT_EQ(parse({0x0C, 0x03, 0xED, 0xA0, 0x80}), nullptr);  // surrogate
  EXPECT_EQ(parse({0x16, 0x01, 0xE9}), nullptr);              // IA5 beyond ASCII
  EXPECT_EQ(parse({0x13, 0x01, 0x80}), nullptr);              // PrintableString too
}

TEST(ASN1ParserTest, ObjectIdentifiers) {
  auto t = parse({0x06, 0x03, 0x2A, 0x86, 0x48});
  ASSERT_NE(t, nullptr);
  ASSERT_NE((*t)[0].objectID(), nullptr);
  EXPECT_EQ((*t)[0].objectID()->stringValue(), "1.2.840");
  EXPECT_FALSE((*t)[0].objectID()->isRelative());

  t = parse({0x0D, 0x02, 0x81, 0x01});
  ASSERT_NE(t, nullptr);
  EXPECT_TRUE((*t)[0].objectID()->isRelative());
  EXPECT_EQ((*t)[0].objectID()->stringValue(), "129");

  EXPECT_EQ(parse({0x06, 0x02, 0x2A, 0x00}), nullptr);        // zero group
  EXPECT_EQ(parse({0x06, 0x03, 0x2A, 0x80, 0x01}), nullptr);  // zero group leading
  EXPECT_EQ(parse({0x06, 0x02, 0x2A, 0x86}), nullptr);        // unfinished
  EXPECT_EQ(parse({0x06, 0x00}), nullptr);
}

TEST(ASN1ParserTest, SequencesNestAndDefiniteLengthsMustBeExact) {
  auto t = parse({0x30, 0x06, 0x02, 0x01, 0x01, 0x31, 0x01, 0x05});
  EXPECT_EQ(t, nullptr);  // the SET's content runs past the SEQUENCE

  t = parse({0x30, 0x08, 0x02, 0x01, 0x01, 0x31, 0x03, 0x02, 0x01, 0x02, 0x02, 0x01, 0x03});
  ASSERT_NE(t, nullptr);
  ASSERT_EQ(t->size(), 2u);
  ASN1Node seq = (*t)[0];
  ASSERT_TRUE(seq.isArray());
  ASSERT_EQ(seq.size(), 2u);
  EXPECT_EQ(seq[0].integerValue(), 1);
  ASSERT_EQ(seq[1].size(), 1u);
  EXPECT_EQ(seq[1][0].integerValue(), 2);
  EXPECT_EQ((*t)[1].integerValue(), 3);
  EXPECT_FALSE(seq[2].valid());

  // An end-of-contents marker inside a definite SEQUENCE ends it early: a mismatch.
  EXPECT_EQ(parse({0x30, 0x05, 0x00, 0x00, 0x02, 0x01, 0x01}), nullptr);
}

TEST(ASN1ParserTest, ZeroLengthConstructedElementsUseTheIndefiniteRule) {
  // 30 00 takes in what follows up to an end-of-contents marker...
  auto t = parse({0x30, 0x00, 0x02, 0x01, 0x05, 0x00, 0x00, 0x02, 0x01, 0x06});
  ASSERT_NE(t, nullptr);
  ASSERT_EQ(t->size(), 2u);
  ASSERT_EQ((*t)[0].size(), 1u);
  EXPECT_EQ((*t)[0][0].integerValue(), 5);
  EXPECT_EQ((*t)[1].integerValue(), 6);

  // ...or the end of the input.
  t = parse({0x30, 0x80, 0x02, 0x01, 0x05, 0x02, 0x01, 0x06});
  ASSERT_NE(t, nullptr);
  ASSERT_EQ(t->size(), 1u);
  EXPECT_EQ((*t)[0].size(), 2u);

  // With nothing after it there is nothing to take in.
  EXPECT_EQ(parse({0x30, 0x00}), nullptr);
  // An end-of-contents at the top level ends the parse.
  t = parse({0x02, 0x01, 0x01, 0x00, 0x00, 0x02, 0x01, 0x02});
  ASSERT_NE(t, nullptr);
  EXPECT_EQ(t->size(), 1u);
}

TEST(ASN1ParserTest, TaggedElements) {
  // [0] constructed holding an INTEGER, then [1] primitive.
  auto t = parse({0xA0, 0x03, 0x02, 0x01, 0x2A, 0x81, 0x01, 0x7F});
  ASSERT_NE(t, nullptr);
  ASSERT_EQ(t->size(), 2u);
  auto tag = ZBIAPASN1Tag::fromNode((*t)[0]);
  ASSERT_NE(tag, nullptr);
  EXPECT_EQ(tag->asn1Class(), 2);
  EXPECT_TRUE(tag->isConstructed());
  EXPECT_EQ(tag->tag(), 0u);
  ASSERT_EQ(tag->value().size(), 1u);
  EXPECT_EQ(tag->value()[0].integerValue(), 42);
  EXPECT_EQ(tag->description(), "<ASN.1 Tag [Context 0] (constructed)> (\n(\n    42\n)\n)");

  auto primitive = ZBIAPASN1Tag::fromNode((*t)[1]);
  ASSERT_NE(primitive, nullptr);
  EXPECT_FALSE(primitive->isConstructed());
  EXPECT_EQ(primitive->tag(), 1u);
  ASSERT_TRUE(primitive->value().isData());
  EXPECT_EQ(primitive->value().bytes()[0], 0x7F);

  // Application and Private classes, high tag numbers.
  t = parse({0x5F, 0x81, 0x01, 0x00, 0xC5, 0x00});
  ASSERT_NE(t, nullptr);
  ASSERT_EQ(t->size(), 2u);
  EXPECT_EQ((*t)[0].asn1Class(), 1);
  EXPECT_EQ((*t)[0].tagNumber(), 129u);
  EXPECT_EQ((*t)[1].asn1Class(), 3);
  EXPECT_EQ((*t)[1].tagNumber(), 5u);

  // A tag number with a zero group cannot be read.
  EXPECT_EQ(parse({0x9F, 0x80, 0x01, 0x00}), nullptr);
  EXPECT_EQ(parse({0x9F, 0x00, 0x00}), nullptr);
}

TEST(ASN1ParserTest, PrimitiveTaggedElementsSkipTheirLengthAgain) {
  // [0] with two content octets: the two octets after it (02 01) are stepped over, so the
  // parse resumes at 05 00.
  auto t = parse({0x80, 0x02, 0xAA, 0xBB, 0x02, 0x01, 0x05, 0x00});
  ASSERT_NE(t, nullptr);
  ASSERT_EQ(t->size(), 2u);
  EXPECT_TRUE((*t)[0].isTag());
  // 05 00 after the skip; 0x05 (the third of the skipped-to bytes) starts a NULL.
  EXPECT_EQ((*t)[1].type(), ASN1Type::kNull);

  // Skipping past the end stops the level at the end of its input.
  t = parse({0x80, 0x03, 0x01, 0x02, 0x03, 0x05});
  ASSERT_NE(t, nullptr);
  EXPECT_EQ(t->size(), 1u);
  // Inside a definite SEQUENCE the level still consumes exactly its length.
  t = parse({0x30, 0x04, 0x80, 0x02, 0x01, 0x02, 0x02, 0x01, 0x03});
  ASSERT_NE(t, nullptr);
  ASSERT_EQ(t->size(), 2u);
  EXPECT_EQ((*t)[0].size(), 1u);
  EXPECT_EQ((*t)[1].integerValue(), 3);
}

TEST(ASN1ParserTest, ConstructedStringsJoinTheirChunks) {
  // Definite: two primitive chunks and a nested constructed one.
  auto t = parse({0x24, 0x0B, 0x04, 0x01, 'a', 0x04, 0x01, 'b', 0x24, 0x03, 0x04, 0x01, 'c', 0x02,
                  0x01, 0x01});
  ASSERT_NE(t, nullptr);
  ASSERT_EQ(t->size(), 2u);
  ASSERT_TRUE((*t)[0].isData());
  auto b = (*t)[0].bytes();
  EXPECT_EQ(std::string(b.begin(), b.end()), "abc");
  EXPECT_EQ((*t)[1].integerValue(), 1);

  // A constructed UTF8String is decoded after joining.
  t = parse({0x2C, 0x06, 0x0C, 0x01, 0xC3, 0x0C, 0x01, 0xA9});
  ASSERT_NE(t, nullptr);
  EXPECT_EQ((*t)[0].stringValue(), "\xC3\xA9");

  // Indefinite, running to the end of the input.
  t = parse({0x24, 0x80, 0x04, 0x01, 'x', 0x04, 0x01, 'y'});
  ASSERT_NE(t, nullptr);
  b = (*t)[0].bytes();
  EXPECT_EQ(std::string(b.begin(), b.end()), "xy");

  // An end-of-contents chunk inside an indefinite string is a mismatch: Xcode's form fails.
  EXPECT_EQ(parse({0x24, 0x80, 0x04, 0x01, 'x', 0x00, 0x00}), nullptr);
  // Chunks of another type, a primitive chunk running out, an empty span.
  EXPECT_EQ(parse({0x24, 0x03, 0x0C, 0x01, 'x'}), nullptr);
  EXPECT_EQ(parse({0x24, 0x03, 0x04, 0x02, 'x'}), nullptr);
  EXPECT_EQ(parse({0x24, 0x00}), nullptr);
}

TEST(ASN1ParserTest, RealValues) {
  // Decimal form (first octet 0x03: NR3): read with a %lf scan.
  auto t = parse({0x09, 0x05, 0x03, '1', '.', '5', 'x'});
  ASSERT_NE(t, nullptr);
  ASSERT_EQ(t->size(), 1u);
  EXPECT_DOUBLE_EQ((*t)[0].realValue(), 1.5);

  // Binary form with this system's scaling: F = 0x50 (negative, base 8 is bit 0x10 -> base
  // 8), exponent 0, mantissa 3: -(3 * 2 * 10^0 * 8 * 10^0) = -48.
  t = parse({0x09, 0x03, 0x50, 0x00, 0x03});
  ASSERT_NE(t, nullptr);
  ASSERT_EQ(t->size(), 1u);
  EXPECT_DOUBLE_EQ((*t)[0].realValue(), -48);

  // F = 0x14: positive, base 8, scale bits 01 -> 2 * 10; exponent 1, mantissa 2:
  // 2 * 20 * (8 * 10) = 3200.
  t = parse({0x09, 0x03, 0x14, 0x01, 0x02});
  ASSERT_NE(t, nullptr);
  EXPECT_DOUBLE_EQ((*t)[0].realValue(), 3200);

  // Values that cannot be read append nothing; parsing goes on.
  t = parse({0x09, 0x00, 0x09, 0x02, 0x50, 0x00, 0x09, 0x03, 0x71, 0x00,
             0x01, 0x09, 0x01, 0x28, 0x09, 0x02, 0x03, 'z',  0x05, 0x00});
  ASSERT_NE(t, nullptr);
  ASSERT_EQ(t->size(), 1u);
  EXPECT_EQ((*t)[0].type(), ASN1Type::kNull);
}

TEST(ASN1ParserTest, TruncatedAndOverlongHeadersFail) {
  EXPECT_EQ(parse({0x04, 0x05, 0x01}), nullptr);
  EXPECT_EQ(parse({0x04, 0x89, 1, 2, 3, 4, 5, 6, 7, 8, 9}), nullptr);  // 9 length octets
  EXPECT_EQ(parse({0x04, 0x84, 0xFF, 0xFF}), nullptr);                 // length octets missing
  EXPECT_EQ(parse({0x04, 0x88, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}), nullptr);
  // The long form of a short length is fine.
  auto t = parse({0x04, 0x81, 0x01, 0x41});
  ASSERT_NE(t, nullptr);
  EXPECT_EQ((*t)[0].bytes().size(), 1u);
}

TEST(ASN1ParserTest, DeepNestingFailsInsteadOfOverflowing) {
  Data ok, deep;
  for (int i = 0; i < ZBIAPASN1Parser::kMaxDepth; ++i) ok.insert(ok.end(), {0x30, 0x80});
  ok.insert(ok.end(), {0x05, 0x00});
  EXPECT_NE(ZBIAPASN1Parser::parseASN1Data(ok), nullptr);

  for (int i = 0; i < 100000; ++i) deep.insert(deep.end(), {0x30, 0x80});
  deep.insert(deep.end(), {0x05, 0x00});
  EXPECT_EQ(ZBIAPASN1Parser::parseASN1Data(deep), nullptr);

  Data strings;
  for (int i = 0; i < 100000; ++i) strings.insert(strings.end(), {0x24, 0x80});
  strings.insert(strings.end(), {0x04, 0x00});
  EXPECT_EQ(ZBIAPASN1Parser::parseASN1Data(strings), nullptr);
}

TEST(ASN1ParserTest, ReadBase128AndReadLength) {
  uint64_t v = 0;
  const uint8_t one[] = {0x86, 0x48};
  EXPECT_EQ(ZBIAPASN1Parser::readBase128(&v, one, 2), 2u);
  EXPECT_EQ(v, 840u);
  EXPECT_EQ(ZBIAPASN1Parser::readBase128(&v, one, 1), 0u);  // runs out
  EXPECT_EQ(ZBIAPASN1Parser::readBase128(&v, one, 0), 0u);
  const uint8_t zero[] = {0x00};
  EXPECT_EQ(ZBIAPASN1Parser::readBase128(&v, zero, 1), 0u);
  const uint8_t nine[] = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x7F, 0x01};
  EXPECT_EQ(ZBIAPASN1Parser::readBase128(&v, nine, 10), 9u);
  EXPECT_EQ(v, std::numeric_limits<uint64_t>::max() >> 1);
  const uint8_t ten[] = {0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x7F};
  EXPECT_EQ(ZBIAPASN1Parser::readBase128(&v, ten, 10), 0u);

  const uint8_t lengths[] = {0x82, 0x01, 0x00};
  EXPECT_EQ(ZBIAPASN1Parser::readLength(&v, lengths, 3), 3u);
  EXPECT_EQ(v, 256u);
  EXPECT_EQ(ZBIAPASN1Parser::readLength(&v, lengths, 2), 0u);
  const uint8_t indefinite[] = {0x80};
  EXPECT_EQ(ZBIAPASN1Parser::readLength(&v, indefinite, 1), 1u);
  EXPECT_EQ(v, 0u);
  EXPECT_EQ(ZBIAPASN1Parser::readLength(&v, indefinite, 0), 0u);
}

TEST(ASN1ParserTest, ClassNamesAndDescription) {
  EXPECT_EQ(ZBIAPASN1Parser::asn1ClassToString(0), "Universal");
  EXPECT_EQ(ZBIAPASN1Parser::asn1ClassToString(3), "Private");
  EXPECT_EQ(ZBIAPASN1Parser::asn1ClassToString(4), std::nullopt);

  auto t = parse({0x30, 0x08, 0x02, 0x01, 0x07, 0x06, 0x03, 0x2A, 0x86, 0x48});
  ASSERT_NE(t, nullptr);
  EXPECT_EQ(t->root().description(), "(\n    (\n        7,\n        OID:1.2.840\n    )\n)");
}

TEST(ASN1ParserTest, ReusedTreesForgetEarlierInput) {
  ASN1Tree tree;
  const uint8_t good[] = {0x02, 0x01, 0x05};
  const uint8_t bad[] = {0x02, 0x00};
  ASSERT_TRUE(ZBIAPASN1Parser::parseASN1Data(good, &tree));
  EXPECT_EQ(tree[0].integerValue(), 5);
  EXPECT_FALSE(ZBIAPASN1Parser::parseASN1Data(bad, &tree));
  EXPECT_FALSE(tree.root().valid());
  EXPECT_EQ(tree.size(), 0u);
}

}  // namespace

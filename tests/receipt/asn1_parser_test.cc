#include "zbiap/receipt/asn1_parser.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "zbiap/receipt/asn1_tag.h"

namespace {

using zbiap::ASN1Node;
using zbiap::ASN1Type;
using zbiap::Data;

std::string hex(std::span<const uint8_t> bytes) {
  std::string out;
  for (uint8_t b : bytes) out += fmt::format("{:02x}", b);
  return out;
}

// A compact form of a node: i integer, r real, d decimal, b big number and x data (octets in
// hex), s'text', n null, o OID (q relative), [class:number value] tags, (a b) arrays.
std::string show(const ASN1Node& n) {
  switch (n.type()) {
    case ASN1Type::kInteger:
      return fmt::format("i{}", n.integerValue());
    case ASN1Type::kReal:
      return fmt::format("r{}", n.realValue());
    case ASN1Type::kDecimal:
      return "d" + n.decimalValue().toString();
    case ASN1Type::kBigNum:
      return "b" + hex(n.bytes());
    case ASN1Type::kData:
      return "x" + hex(n.bytes());
    case ASN1Type::kString:
      return "s'" + std::string(n.stringValue()) + "'";
    case ASN1Type::kNull:
      return "n";
    case ASN1Type::kObjectID:
      return (n.objectID()->isRelative() ? "q" : "o") + n.objectID()->stringValue();
    case ASN1Type::kTag:
      return fmt::format("[{}:{} {}]", n.asn1Class(), n.tagNumber(), show(n.tagValue()));
    case ASN1Type::kArray: {
      std::string out = "(";
      for (size_t i = 0; i < n.size(); ++i) out += (i ? " " : "") + show(n[i]);
      return out + ")";
    }
  }
  return "?";
}

// The top-level elements of a parse, or "-" when it fails.
std::string parsed(const Data& bytes) {
  auto tree = ZBIAPASN1Parser::parseASN1Data(bytes);
  if (tree == nullptr) return "-";
  const std::string all = show(tree->root());
  return all.substr(1, all.size() - 2);
}

TEST(ASN1ParserTest, ElementsAndFaults) {
  const Data seventeen = {0x02, 17, 0x80, 1, 2, 3, 4, 5, 6, 7, 8, 9, 10, 11, 12, 13, 14, 15, 16};
  // clang-format off
  const std::pair<Data, std::string> rows[] = {
      // A trailing byte after a good element cannot be a header.
      {{}, "-"}, {{0x05}, "-"}, {{0x05, 0x00, 0x05}, "-"},
      // INTEGERs are unsigned up to seven octets and signed at eight (ENUMERATED alike), then
      // decimals up to sixteen octets, then big numbers.
      {{0x02, 0x01, 0xFF}, "i255"}, {{0x02, 0x07, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF},
      "i72057594037927935"}, {{0x02, 0x08, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}, "i-1"},
      {{0x0A, 0x02, 0x01, 0x00}, "i256"}, {{0x02, 0x00}, "-"}, {{0x30, 0x04, 0x02, 0x00, 0x05, 0x00}, "-"},
      {{0x02, 0x09, 0xFF, 0, 0, 0, 0, 0, 0, 0, 0}, "d-18446744073709551616"},
      {{0x02, 0x09, 0x01, 0, 0, 0, 0, 0, 0, 0, 0}, "d18446744073709551616"},
      {seventeen, "b800102030405060708090a0b0c0d0e0f10"},
      // BOOLEAN, NULL of any length; a UTCTime and a BIT STRING give nothing, parsing goes on.
      {{0x01, 0x01, 0x7F, 0x01, 0x01, 0x00, 0x05, 0x00}, "i1 i0 n"}, {{0x01, 0x02, 0x00, 0x00}, "-"},
      {{0x01, 0x00}, "-"}, {{0x05, 0x02, 0xAA, 0xBB, 0x02, 0x01, 0x07}, "n i7"}, {{0x17, 0x00}, ""},
      {{0x17, 0x0D, '2', '4', '0', '1', '0', '1', '0', '0', '0', '0', '0', '0', 'Z', 0x03, 0x02,
        0x00, 0xFF, 0x02, 0x01, 0x09}, "i9"},
      // Strings are checked by type: strict UTF-8 (up to U+10FFFF), 7-bit ASCII, also past the
      // eight-byte blocks the checks scan first.
      {{0x0C, 0x03, 0xC3, 0xA9, 'x', 0x13, 0x02, 'A', 'b', 0x16, 0x00, 0x04, 0x02, 0xFF, 0x00},
       "s'\xC3\xA9x' s'Ab' s'' xff00"},
      {{0x0C, 0x04, 0xF4, 0x8F, 0xBF, 0xBF}, "s'\xF4\x8F\xBF\xBF'"}, {{0x0C, 0x04, 0xF4, 0x90, 0x80, 0x80}, "-"},
      {{0x0C, 0x0A, 'a', 'b', 'c', 'd', 'e', 'f', 'g', 'h', 0xC3, 0xA9}, "s'abcdefgh\xC3\xA9'"},
      {{0x0C, 0x09, 'a', 'b', 'c', 'd', 'e', 'f', 'g', 'h', 0x80}, "-"},
      {{0x16, 0x09, 'a', 'b', 'c', 'd', 'e', 'f', 'g', 0xE9, 'h'}, "-"},
      {{0x16, 0x09, 'a', 'b', 'c', 'd', 'e', 'f', 'g', 'h', 0xE9}, "-"},
      {{0x0C, 0x02, 0xC3, 0x28}, "-"}, {{0x0C, 0x02, 0xC0, 0x80}, "-"},
      {{0x0C, 0x03, 0xED, 0xA0, 0x80}, "-"}, {{0x13, 0x01, 0x80}, "-"},
      // Object identifiers; a zero group or an unfinished one fails.
      {{0x06, 0x03, 0x2A, 0x86, 0x48}, "o1.2.840"}, {{0x0D, 0x02, 0x81, 0x01}, "q129"},
      {{0x06, 0x02, 0x2A, 0x00}, "-"}, {{0x06, 0x03, 0x2A, 0x80, 0x01}, "-"},
      {{0x06, 0x02, 0x2A, 0x86}, "-"}, {{0x06, 0x00}, "-"},
      // An arc takes up to nine octets (63 bits).
      {{0x06, 0x0A, 0x2A, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x7F},
       "o1.2.9223372036854775807"},
      {{0x06, 0x0B, 0x2A, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0x7F}, "-"},
      // Definite lengths must be exact; an end-of-contents marker inside a definite SEQUENCE
      // ends it early, a mismatch.
      {{0x30, 0x06, 0x02, 0x01, 0x01, 0x31, 0x01, 0x05}, "-"},
      {{0x30, 0x08, 0x02, 0x01, 0x01, 0x31, 0x03, 0x02, 0x01, 0x02, 0x02, 0x01, 0x03}, "(i1 (i2)) i3"},
      {{0x30, 0x05, 0x00, 0x00, 0x02, 0x01, 0x01}, "-"},
      // A zero-length constructed element takes in what follows up to an end-of-contents
      // marker or the end of the input; an end-of-contents at the top level ends the parse.
      {{0x30, 0x00, 0x02, 0x01, 0x05, 0x00, 0x00, 0x02, 0x01, 0x06}, "(i5) i6"},
      {{0x30, 0x80, 0x02, 0x01, 0x05, 0x02, 0x01, 0x06}, "(i5 i6)"}, {{0x30, 0x00}, "-"},
      {{0x02, 0x01, 0x01, 0x00, 0x00, 0x02, 0x01, 0x02}, "i1"},
      // Tags of every class, high tag numbers; a tag number with a zero group fails.
      {{0xA0, 0x03, 0x02, 0x01, 0x2A, 0x81, 0x01, 0x7F}, "[2:0 (i42)] [2:1 x7f]"},
      {{0x5F, 0x81, 0x01, 0x00, 0xC5, 0x00}, "[1:129 x] [3:5 x]"},
      {{0x9F, 0x80, 0x01, 0x00}, "-"}, {{0x9F, 0x00, 0x00}, "-"},
      // A primitive tagged element skips its length again (here 02 01), up to the end of its
      // level; a definite SEQUENCE still consumes exactly its length.
      {{0x80, 0x02, 0xAA, 0xBB, 0x02, 0x01, 0x05, 0x00}, "[2:0 xaabb] n"},
      {{0x80, 0x03, 0x01, 0x02, 0x03, 0x05}, "[2:0 x010203]"},
      {{0x30, 0x04, 0x80, 0x02, 0x01, 0x02, 0x02, 0x01, 0x03}, "([2:0 x0102]) i3"},
      // Constructed strings join their chunks, nested or indefinite; an end-of-contents chunk,
      // chunks of another type, a chunk running out or an empty span fail.
      {{0x24, 0x0B, 0x04, 0x01, 'a', 0x04, 0x01, 'b', 0x24, 0x03, 0x04, 0x01, 'c', 0x02, 0x01, 0x01},
       "x616263 i1"},
      {{0x2C, 0x06, 0x0C, 0x01, 0xC3, 0x0C, 0x01, 0xA9}, "s'\xC3\xA9'"},
      {{0x24, 0x80, 0x04, 0x01, 'x', 0x04, 0x01, 'y'}, "x7879"},
      {{0x24, 0x80, 0x04, 0x01, 'x', 0x00, 0x00}, "-"}, {{0x24, 0x03, 0x0C, 0x01, 'x'}, "-"},
      {{0x24, 0x03, 0x04, 0x02, 'x'}, "-"}, {{0x24, 0x00}, "-"},
      // REALs: the decimal form by a %lf scan; the binary form with this system's scaling
      // (F = 0x50: negative, base 8, -(3 * 2 * 8); F = 0x14: scale 2 * 10, 2 * 20 * 80).
      // Values that cannot be read append nothing.
      {{0x09, 0x05, 0x03, '1', '.', '5', 'x'}, "r1.5"}, {{0x09, 0x03, 0x50, 0x00, 0x03}, "r-48"},
      {{0x09, 0x03, 0x14, 0x01, 0x02}, "r3200"},
      {{0x09, 0x00, 0x09, 0x02, 0x50, 0x00, 0x09, 0x03, 0x71, 0x00, 0x01, 0x09, 0x01, 0x28, 0x09,
        0x02, 0x03, 'z', 0x05, 0x00}, "n"},
      // Truncated and overlong headers; the long form of a short length is fine.
      {{0x04, 0x05, 0x01}, "-"}, {{0x04, 0x89, 1, 2, 3, 4, 5, 6, 7, 8, 9}, "-"},
      {{0x04, 0x84, 0xFF, 0xFF}, "-"}, {{0x04, 0x88, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF, 0xFF}, "-"},
      {{0x04, 0x81, 0x01, 0x41}, "x41"},
  };
  // clang-format on
  for (const auto& [bytes, expected] : rows) EXPECT_EQ(parsed(bytes), expected) << hex(bytes);
}

TEST(ASN1ParserTest, DeepNestingFailsInsteadOfOverflowing) {
  auto nested = [](int depth, std::initializer_list<uint8_t> open, Data inner) {
    Data out;
    for (int i = 0; i < depth; ++i) out.insert(out.end(), open);
    out.insert(out.end(), inner.begin(), inner.end());
    return out;
  };
  EXPECT_NE(parsed(nested(ZBIAPASN1Parser::kMaxDepth, {0x30, 0x80}, {0x05, 0x00})), "-");
  EXPECT_EQ(parsed(nested(100000, {0x30, 0x80}, {0x05, 0x00})), "-");
  EXPECT_EQ(parsed(nested(100000, {0x24, 0x80}, {0x04, 0x00})), "-");
}

TEST(ASN1ParserTest, ValuesAndDescriptions) {
  auto tree = ZBIAPASN1Parser::parseASN1Data(
      {0x30, 0x0D, 0x02, 0x01, 0x07, 0x06, 0x03, 0x2A, 0x86, 0x48, 0x0C, 0x01, 'a', 0x04, 0x00});
  ASSERT_NE(tree, nullptr);
  EXPECT_EQ(tree->root().description(),
            "(\n    (\n        7,\n        OID:1.2.840,\n        a,\n        <>\n    )\n)");
  EXPECT_EQ((*tree)[0].toValue(),
            zbiap::Value(zbiap::Array{zbiap::Value(7), zbiap::Value("1.2.840"), zbiap::Value("a"),
                                      zbiap::Value(Data{})}));
  EXPECT_EQ(ZBIAPASN1Parser::asn1ClassToString(3), "Private");
  EXPECT_EQ(ZBIAPASN1Parser::asn1ClassToString(4), std::nullopt);
  auto tagged = ZBIAPASN1Parser::parseASN1Data({0xA0, 0x03, 0x02, 0x01, 0x2A});
  ASSERT_NE(tagged, nullptr);
  auto tag = ZBIAPASN1Tag::fromNode((*tagged)[0]);
  ASSERT_NE(tag, nullptr);
  EXPECT_EQ(tag->description(), "<ASN.1 Tag [Context 0] (constructed)> (\n(\n    42\n)\n)");
}

TEST(ASN1ParserTest, ReusedTreesForgetEarlierInput) {
  zbiap::ASN1Tree tree;
  const uint8_t good[] = {0x02, 0x01, 0x05};
  const uint8_t bad[] = {0x02, 0x00};
  ASSERT_TRUE(ZBIAPASN1Parser::parseASN1Data(good, &tree));
  EXPECT_EQ(tree[0].integerValue(), 5);
  EXPECT_FALSE(ZBIAPASN1Parser::parseASN1Data(bad, &tree));
  EXPECT_FALSE(tree.root().valid());
  EXPECT_EQ(tree.size(), 0u);
}

}  // namespace

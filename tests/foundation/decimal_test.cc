#include "zbiap/foundation/decimal.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <limits>
#include <string>
#include <vector>

namespace zbiap {
namespace {

std::string text(std::string_view s) { return Decimal::fromString(s).toString(); }

TEST(DecimalTest, FromStringReadsLikeFoundation) {
  EXPECT_EQ(text("9.99"), "9.99");
  const Decimal d = Decimal::fromString("9.99");
  EXPECT_EQ(d.mantissa(), 999u);
  EXPECT_EQ(d.exponent(), -2);
  EXPECT_EQ(text("-0.50"), "-0.5");
  EXPECT_EQ(text("1e3"), "1000");
  EXPECT_EQ(text("1E-3"), "0.001");
  EXPECT_EQ(text("  \t42"), "42");
  EXPECT_EQ(text("+5"), "5");
  EXPECT_EQ(text(".5"), "0.5");
  EXPECT_EQ(text("5."), "5");
  EXPECT_EQ(text("000123.4500"), "123.45");
  EXPECT_EQ(text("-0"), "0");
  EXPECT_FALSE(Decimal::fromString("-0").isNegative());
  // The scanner stops at the first character that cannot continue the number.
  EXPECT_EQ(text("12abc"), "12");
  EXPECT_EQ(text("1.2.3"), "1.2");
  EXPECT_EQ(text("2e"), "2");
  EXPECT_EQ(text("2e+x"), "2");
}

TEST(DecimalTest, TextThatIsNotANumberGivesNaN) {
  for (const char* s : {"", "abc", "-", "+", ".", "e5", " ", "NaN", "inf", "x1", "\xff"}) {
    EXPECT_TRUE(Decimal::fromString(s).isNaN()) << '"' << s << '"';
  }
  EXPECT_EQ(Decimal::notANumber().toString(), "NaN");
  EXPECT_TRUE(std::isnan(Decimal::notANumber().toDouble()));
  EXPECT_EQ(Decimal::notANumber().toInt64(), std::nullopt);
}

TEST(DecimalTest, KeepsAtLeast38DigitsAndRoundsTheRest) {
  const std::string digits38 = "12345678901234567890123456789012345678";
  EXPECT_EQ(text(digits38), digits38);
  EXPECT_EQ(text("0." + digits38), "0." + digits38);
  EXPECT_EQ(text("-" + digits38 + "e-20"), "-123456789012345678.90123456789012345678");
  // 2^128 - 1 is the largest mantissa.
  EXPECT_EQ(text("340282366920938463463374607431768211455"),
            "340282366920938463463374607431768211455");
  // Beyond it, digits are dropped and the last kept one is rounded half up.
  EXPECT_EQ(text("3402823669209384634633746074317682114564"),
            "3402823669209384634633746074317682114600");
  EXPECT_EQ(text("1234567890123456789012345678901234567894"),
            "1234567890123456789012345678901234567890");
  EXPECT_EQ(text("1234567890123456789012345678901234567895"),
            "1234567890123456789012345678901234567900");
  EXPECT_EQ(text(std::string(41, '9')), "1" + std::string(41, '0'));
  EXPECT_EQ(text("0.0000" + std::string(45, '3')), "0.0000" + std::string(39, '3'));
}

TEST(DecimalTest, ExponentRange) {
  EXPECT_EQ(text("1e127"), "1" + std::string(127, '0'));
  EXPECT_EQ(text("1000e125"), "1" + std::string(128, '0'));  // folded into the mantissa
  EXPECT_TRUE(Decimal::fromString("1e400").isNaN());
  EXPECT_TRUE(Decimal::fromString("1e99999999999999999999").isNaN());
  EXPECT_EQ(text("1e-128"), "0." + std::string(127, '0') + "1");
  EXPECT_EQ(text("1e-129"), "0");
  EXPECT_EQ(text("15e-129"), "0." + std::string(127, '0') + "2");
  EXPECT_EQ(text("1e-99999999999999999999"), "0");
}

TEST(DecimalTest, FromJSONNumberTextFollowsTheJSONGrammar) {
  EXPECT_EQ(Decimal::fromJSONNumberText("-0.5e-2").toString(), "-0.005");
  EXPECT_EQ(Decimal::fromJSONNumberText("9.99").toString(), "9.99");
  EXPECT_EQ(Decimal::fromJSONNumberText("0").toString(), "0");
  EXPECT_EQ(Decimal::fromJSONNumberText("1E+2").toString(), "100");
  for (const char* s :
       {"", "01", "1.", ".5", "+1", " 1", "1 ", "1e", "1e+", "-", "0x1", "1.5.", "NaN"}) {
    EXPECT_TRUE(Decimal::fromJSONNumberText(s).isNaN()) << '"' << s << '"';
  }
}

TEST(DecimalTest, IntegersAndDoubles) {
  EXPECT_EQ(Decimal::fromInt(std::numeric_limits<int64_t>::min()).toString(),
            "-9223372036854775808");
  EXPECT_EQ(Decimal::fromInt(std::numeric_limits<int64_t>::min()).toInt64(),
            std::numeric_limits<int64_t>::min());
  EXPECT_EQ(Decimal::fromUInt(UINT64_MAX).toString(), "18446744073709551615");
  EXPECT_EQ(Decimal::fromUInt(UINT64_MAX).toInt64(), std::nullopt);
  EXPECT_EQ(Decimal::fromString("1e18").toInt64(), 1000000000000000000);
  EXPECT_EQ(Decimal::fromString("9223372036854775807").toInt64(), INT64_MAX);
  EXPECT_EQ(Decimal::fromString("9223372036854775808").toInt64(), std::nullopt);
  EXPECT_EQ(Decimal::fromString("1.5").toInt64(), std::nullopt);
  EXPECT_EQ(Decimal::fromString("1e30").toInt64(), std::nullopt);

  EXPECT_EQ(Decimal::fromDouble(9.99), Decimal::fromString("9.99"));
  EXPECT_EQ(Decimal::fromDouble(0.1 + 0.2).toString(), "0.30000000000000004");
  EXPECT_EQ(Decimal::fromDouble(1e22).toString(), "1" + std::string(22, '0'));
  EXPECT_EQ(Decimal::fromDouble(-0.0).toString(), "0");
  EXPECT_TRUE(Decimal::fromDouble(NAN).isNaN());
  EXPECT_TRUE(Decimal::fromDouble(INFINITY).isNaN());
  EXPECT_TRUE(Decimal::fromDouble(1e300).isNaN());  // beyond the exponent range

  EXPECT_EQ(Decimal::fromString("9.99").toDouble(), 9.99);
  EXPECT_EQ(Decimal::fromString("-1e127").toDouble(), -1e127);
  EXPECT_EQ(Decimal::fromString("340282366920938463463374607431768211455").toDouble(), 0x1p128);
  EXPECT_EQ(Decimal::fromString("0.1").toDouble(), 0.1);
}

TEST(DecimalTest, FromBigEndianTwosComplement) {
  using Bytes = std::vector<uint8_t>;
  auto of = [](const Bytes& b) { return Decimal::fromBigEndianTwosComplement(b).toString(); };
  EXPECT_EQ(of({0x01}), "1");
  EXPECT_EQ(of({0xff}), "-1");
  EXPECT_EQ(of({0x00, 0xff}), "255");
  EXPECT_EQ(of({0x80}), "-128");
  EXPECT_EQ(of(Bytes(8, 0xff)), "-1");
  // Nine bytes FF 00 ... 00: 0xFF << 64 minus 2^72.
  Bytes nine(9, 0x00);
  nine[0] = 0xff;
  EXPECT_EQ(of(nine), "-18446744073709551616");
  nine[0] = 0x01;
  EXPECT_EQ(of(nine), "18446744073709551616");
  Bytes sixteen(16, 0xff);
  EXPECT_EQ(of(sixteen), "-1");
  sixteen[0] = 0x7f;
  EXPECT_EQ(of(sixteen), "170141183460469231731687303715884105727");
  Bytes minimum(16, 0x00);
  minimum[0] = 0x80;
  EXPECT_EQ(of(minimum), "-170141183460469231731687303715884105728");
  EXPECT_TRUE(Decimal::fromBigEndianTwosComplement({}).isNaN());
  EXPECT_TRUE(Decimal::fromBigEndianTwosComplement(Bytes(17, 0x01)).isNaN());
}

TEST(DecimalTest, CompareAndHash) {
  const Decimal a = Decimal::fromString("1.50");
  const Decimal b = Decimal::fromParts(false, 15, -1);
  const Decimal c = Decimal::fromParts(false, 1500, -3);
  EXPECT_EQ(a, b);
  EXPECT_EQ(b, c);
  EXPECT_EQ(a.hash(), c.hash());
  EXPECT_LT(Decimal::fromString("-2"), Decimal::fromString("-1.5"));
  EXPECT_LT(Decimal::fromString("-0.001"), Decimal());
  EXPECT_LT(Decimal(), Decimal::fromString("0.001"));
  EXPECT_LT(Decimal::fromString("0.001"), Decimal::fromString("0.01"));
  EXPECT_LT(Decimal::fromString("9.99"), Decimal::fromString("10"));
  EXPECT_GT(Decimal::fromString("1e127"),
            Decimal::fromString("340282366920938463463374607431768211455"));
  // Alignment that would overflow the mantissa still orders correctly.
  EXPECT_GT(Decimal::fromParts(false, 9, 38),
            Decimal::fromString("340282366920938463463374607431768211455"));
  EXPECT_LT(Decimal::fromString("-340282366920938463463374607431768211455"),
            Decimal::fromParts(false, 1, 0));
  EXPECT_EQ(Decimal::fromString("-0"), Decimal());
  // NaN equals itself and sorts below every number.
  EXPECT_EQ(Decimal::notANumber(), Decimal::fromString("abc"));
  EXPECT_LT(Decimal::notANumber(), Decimal::fromString("-1e127"));
  EXPECT_EQ(Decimal::notANumber().hash(), Decimal::fromString("").hash());
  EXPECT_NE(Decimal::fromString("1").hash(), Decimal::fromString("-1").hash());
}

}  // namespace
}  // namespace zbiap

#include "zbiap/foundation/decimal.h"

#include <gtest/gtest.h>

#include <cmath>
#include <cstdint>
#include <string>
#include <vector>

namespace zbiap {
namespace {

const std::string k38 = "12345678901234567890123456789012345678";
const std::string kMaxMantissa = "340282366920938463463374607431768211455";  // 2^128 - 1
const std::string k127 = std::string(127, '0');

// clang-format off
TEST(DecimalTest, FromStringReadsAsMuchAsMakesANumber) {
  // The scanner stops at the first character that cannot continue the number; at least 38
  // digits are kept, and beyond the largest mantissa the last kept digit is rounded half up.
  const std::pair<std::string, std::string> rows[] = {
      {"9.99", "9.99"}, {"-0.50", "-0.5"}, {"1e3", "1000"}, {"1E-3", "0.001"}, {"  \t42", "42"},
      {"+5", "5"}, {".5", "0.5"}, {"5.", "5"}, {"000123.4500", "123.45"}, {"-0", "0"},
      {"12abc", "12"}, {"1.2.3", "1.2"}, {"2e", "2"}, {"2e+x", "2"}, {"", "NaN"}, {"-", "NaN"},
      {".", "NaN"}, {"e5", "NaN"}, {" ", "NaN"}, {"inf", "NaN"}, {"\xff", "NaN"},
      {"0." + k38, "0." + k38}, {kMaxMantissa, kMaxMantissa},
      {"-" + k38 + "e-20", "-" + k38.substr(0, 18) + "." + k38.substr(18)},
      {kMaxMantissa.substr(0, 38) + "64", kMaxMantissa.substr(0, 37) + "600"},
      {k38 + "94", k38 + "90"}, {k38 + "95", k38.substr(0, 37) + "900"},
      {std::string(41, '9'), "1" + std::string(41, '0')},
      {"0.0000" + std::string(45, '3'), "0.0000" + std::string(39, '3')},
      {"1e127", "1" + k127}, {"1000e125", "10" + k127}, {"1e400", "NaN"}, {"1e-129", "0"},
      {"1e99999999999999999999", "NaN"}, {"1e-99999999999999999999", "0"},
      {"1e-128", "0." + k127 + "1"}, {"15e-129", "0." + k127 + "2"},
  };
  for (const auto& [in, out] : rows) EXPECT_EQ(Decimal::fromString(in).toString(), out) << in;
  EXPECT_FALSE(Decimal::fromString("-0").isNegative());
  EXPECT_TRUE(std::isnan(Decimal::notANumber().toDouble()));
}

TEST(DecimalTest, FromJSONNumberTextFollowsTheJSONGrammar) {
  const std::pair<const char*, const char*> rows[] = {
      {"-0.5e-2", "-0.005"}, {"9.99", "9.99"}, {"0", "0"}, {"1E+2", "100"}, {"", "NaN"},
      {"01", "NaN"}, {"1.", "NaN"}, {".5", "NaN"}, {"+1", "NaN"}, {" 1", "NaN"}, {"1 ", "NaN"},
      {"1e", "NaN"}, {"1e+", "NaN"}, {"-", "NaN"}, {"0x1", "NaN"}, {"NaN", "NaN"},
  };
  for (const auto& [in, out] : rows) {
    EXPECT_EQ(Decimal::fromJSONNumberText(in).toString(), out) << in;
  }
}

TEST(DecimalTest, IntegersAndDoubles) {
  EXPECT_EQ(Decimal::fromInt(INT64_MIN).toString(), "-9223372036854775808");
  EXPECT_EQ(Decimal::fromInt(INT64_MIN).toInt64(), INT64_MIN);
  EXPECT_EQ(Decimal::fromUInt(UINT64_MAX).toString(), "18446744073709551615");
  const std::pair<const char*, std::optional<int64_t>> toInt[] = {
      {"1e18", 1000000000000000000}, {"9223372036854775807", INT64_MAX}, {"1.5", std::nullopt},
      {"9223372036854775808", std::nullopt}, {"1e30", std::nullopt}, {"NaN", std::nullopt},
  };
  for (const auto& [in, out] : toInt) EXPECT_EQ(Decimal::fromString(in).toInt64(), out) << in;
  const std::pair<double, const char*> fromDouble[] = {
      {9.99, "9.99"}, {0.1 + 0.2, "0.30000000000000004"}, {-0.0, "0"}, {NAN, "NaN"},
      {1e22, "10000000000000000000000"}, {INFINITY, "NaN"}, {1e300, "NaN"},
  };
  for (const auto& [in, out] : fromDouble) EXPECT_EQ(Decimal::fromDouble(in).toString(), out) << in;
  const std::pair<std::string, double> toDouble[] = {
      {"9.99", 9.99}, {"-1e127", -1e127}, {kMaxMantissa, 0x1p128}, {"0.1", 0.1}};
  for (const auto& [in, out] : toDouble) EXPECT_EQ(Decimal::fromString(in).toDouble(), out) << in;
}

TEST(DecimalTest, FromBigEndianTwosComplement) {
  using Bytes = std::vector<uint8_t>;
  auto with = [](size_t n, uint8_t first, uint8_t rest) {
    Bytes b(n, rest);
    b[0] = first;
    return b;
  };
  const std::pair<Bytes, std::string> rows[] = {
      {{0x01}, "1"}, {{0xff}, "-1"}, {{0x00, 0xff}, "255"}, {{0x80}, "-128"}, {{}, "NaN"},
      {Bytes(8, 0xff), "-1"}, {Bytes(16, 0xff), "-1"}, {Bytes(17, 0x01), "NaN"},
      {with(9, 0xff, 0), "-18446744073709551616"}, {with(9, 0x01, 0), "18446744073709551616"},
      {with(16, 0x7f, 0xff), "170141183460469231731687303715884105727"},
      {with(16, 0x80, 0), "-170141183460469231731687303715884105728"},
  };
  for (const auto& [bytes, text] : rows) {
    EXPECT_EQ(Decimal::fromBigEndianTwosComplement(bytes).toString(), text) << text;
  }
}

TEST(DecimalTest, CompareAndHash) {
  const Decimal a = Decimal::fromString("1.50");
  const Decimal c = Decimal::fromParts(false, 1500, -3);
  EXPECT_EQ(a, Decimal::fromParts(false, 15, -1));
  EXPECT_EQ(a, c);
  EXPECT_EQ(a.hash(), c.hash());
  EXPECT_EQ(Decimal::fromString("-0"), Decimal());
  EXPECT_EQ(Decimal::notANumber(), Decimal::fromString("abc"));
  EXPECT_EQ(Decimal::notANumber().hash(), Decimal::fromString("").hash());
  EXPECT_NE(Decimal::fromString("1").hash(), Decimal::fromString("-1").hash());
  // Ascending; NaN sorts below every number, and an alignment that would overflow the
  // mantissa still orders correctly.
  const Decimal ascending[] = {
      Decimal::notANumber(), Decimal::fromString("-" + kMaxMantissa), Decimal::fromString("-2"),
      Decimal::fromString("-1.5"), Decimal::fromString("-0.001"), Decimal(),
      Decimal::fromString("0.001"), Decimal::fromString("0.01"), Decimal::fromParts(false, 1, 0),
      Decimal::fromString("9.99"), Decimal::fromString("10"), Decimal::fromString(kMaxMantissa),
      Decimal::fromParts(false, 9, 38), Decimal::fromString("1e127"),
  };
  for (size_t i = 1; i < std::size(ascending); ++i) {
    EXPECT_LT(ascending[i - 1], ascending[i]) << i;
    EXPECT_FALSE(ascending[i] < ascending[i - 1]) << i;
  }
}
// clang-format on

}  // namespace
}  // namespace zbiap

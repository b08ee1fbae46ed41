// zbiap::Decimal: an exact decimal number, the library's NSDecimalNumber.
//
// sign, an unsigned 128-bit mantissa (at least 38 significant digits) and a base-10 exponent,
// or not-a-number. A plain value: copyable and comparable. Parsing never throws: text that is
// not a number gives not-a-number, as Foundation's decimal-from-string conversion does.
#ifndef ZBIAP_FOUNDATION_DECIMAL_H_
#define ZBIAP_FOUNDATION_DECIMAL_H_

#include <compare>
#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>

#include "zbiap/export.h"

namespace zbiap {

class ZBIAP_EXPORT Decimal {
 public:
  using Mantissa = unsigned __int128;

  // Zero.
  constexpr Decimal() = default;
  static Decimal notANumber();
  static Decimal fromInt(int64_t v);
  static Decimal fromUInt(uint64_t v);
  // The decimal of the shortest text that reads back as `v` (9.99 gives 9.99 exactly).
  // Infinite or NaN doubles give not-a-number.
  static Decimal fromDouble(double v);
  // Foundation's decimal-from-string conversion in the POSIX locale: optional blanks, sign,
  // digits with an optional '.', optional exponent ("1e3"). Anything that is not a number
  // gives not-a-number. Digits beyond the mantissa's precision are rounded.
  static Decimal fromString(std::string_view text);
  // The text of a JSON number (RFC 8259 grammar); not-a-number when it is not one.
  static Decimal fromJSONNumberText(std::string_view text);
  // A big-endian two's-complement integer of up to 16 bytes (the ASN.1 parser hands over
  // 9 to 16); not-a-number when it is empty or longer than 16 bytes, or too large.
  static Decimal fromBigEndianTwosComplement(std::span<const uint8_t> bytes);
  // Built from parts; the value is (negative ? -1 : 1) * mantissa * 10^exponent.
  static Decimal fromParts(bool negative, Mantissa mantissa, int exponent);

  bool isNaN() const { return nan_; }
  bool isNegative() const { return negative_; }
  bool isZero() const { return !nan_ && low_ == 0 && high_ == 0; }
  Mantissa mantissa() const { return (static_cast<Mantissa>(high_) << 64) | low_; }
  int exponent() const { return exponent_; }

  // Plain notation, no exponent, no trailing zeros after the point: "9.99", "-0.5", "1000",
  // "0"; "NaN" for not-a-number.
  std::string toString() const;
  double toDouble() const;
  // The value when it is an integer that fits, else nullopt.
  std::optional<int64_t> toInt64() const;

  // Numeric order. Not-a-number is equal to itself and less than every number, as
  // NSDecimalNumber's compare: treats it.
  std::strong_ordering compare(const Decimal& other) const;
  friend bool operator==(const Decimal& a, const Decimal& b) { return a.compare(b) == 0; }
  friend std::strong_ordering operator<=>(const Decimal& a, const Decimal& b) {
    return a.compare(b);
  }
  // Equal numbers hash alike whatever their representation (1.50 and 1.5).
  size_t hash() const;

 private:
  // The mantissa in two halves: 8-byte alignment keeps Decimal, and Value, small.
  uint64_t low_ = 0;
  uint64_t high_ = 0;
  int exponent_ = 0;
  bool negative_ = false;
  bool nan_ = false;
};

}  // namespace zbiap

template <>
struct std::hash<zbiap::Decimal> {
  size_t operator()(const zbiap::Decimal& d) const { return d.hash(); }
};

#endif  // ZBIAP_FOUNDATION_DECIMAL_H_

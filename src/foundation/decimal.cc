#include "zbiap/foundation/decimal.h"

#include <charconv>
#include <cmath>
#include <cstdlib>
#include <cstring>

namespace zbiap {

namespace {

using Mantissa = Decimal::Mantissa;

// Foundation keeps a decimal's exponent in a signed byte; the same range keeps comparison and
// conversion cheap and bounded.
constexpr int kMinExponent = -128;
constexpr int kMaxExponent = 127;
constexpr Mantissa kMaxMantissa = ~static_cast<Mantissa>(0);

// mantissa * 10 + digit, or false on overflow.
bool mulAdd10(Mantissa* m, unsigned digit) {
  if (*m > (kMaxMantissa - digit) / 10) return false;
  *m = *m * 10 + digit;
  return true;
}

int digitCount(Mantissa m) {
  int n = 1;
  while (m >= 10) {
    m /= 10;
    ++n;
  }
  return n;
}

bool isBlank(char c) {
  return c == ' ' || c == '\t' || c == '\n' || c == '\r' || c == '\f' || c == '\v';
}
bool isDigit(char c) { return c >= '0' && c <= '9'; }

}  // namespace

Decimal Decimal::notANumber() {
  Decimal d;
  d.nan_ = true;
  return d;
}

Decimal Decimal::fromInt(int64_t v) {
  const bool negative = v < 0;
  const Mantissa magnitude =
      negative ? static_cast<Mantissa>(-(v + 1)) + 1 : static_cast<Mantissa>(v);
  return fromParts(negative, magnitude, 0);
}

Decimal Decimal::fromUInt(uint64_t v) { return fromParts(false, v, 0); }

Decimal Decimal::fromDouble(double v) {
  if (!std::isfinite(v)) return notANumber();
  char buf[64];
  const auto result = std::to_chars(buf, buf + sizeof buf, v);
  return fromString(std::string_view(buf, static_cast<size_t>(result.ptr - buf)));
}

// Builds the value from a run of digits with a pending exponent, rounding digits that do not
// fit into the mantissa (half away from zero).
Decimal Decimal::fromString(std::string_view text) {
  size_t i = 0;
  const size_t n = text.size();
  while (i < n && isBlank(text[i])) ++i;
  bool negative = false;
  if (i < n && (text[i] == '+' || text[i] == '-')) {
    negative = text[i] == '-';
    ++i;
  }
  Mantissa mantissa = 0;
  int64_t exponent = 0;
  bool anyDigit = false;
  bool full = false;    // digits no longer fit: later ones only count toward the exponent
  int roundDigit = -1;  // the first digit that did not fit
  bool sticky = false;  // a non-zero digit after it
  auto takeDigit = [&](unsigned d, bool fractional) {
    anyDigit = true;
    if (!full) {
      if (mantissa == 0 && d == 0) {
        if (fractional) --exponent;
        return;
      }
      if (mulAdd10(&mantissa, d)) {
        if (fractional) --exponent;
        return;
      }
      full = true;
      roundDigit = static_cast<int>(d);
      if (!fractional) ++exponent;
      return;
    }
    if (d != 0) sticky = true;
    if (!fractional) ++exponent;
  };
  while (i < n && isDigit(text[i])) takeDigit(static_cast<unsigned>(text[i++] - '0'), false);
  if (i < n && text[i] == '.') {
    ++i;
    while (i < n && isDigit(text[i])) takeDigit(static_cast<unsigned>(text[i++] - '0'), true);
  }
  if (!anyDigit) return notANumber();
  if (i < n && (text[i] == 'e' || text[i] == 'E')) {
    size_t j = i + 1;
    bool expNegative = false;
    if (j < n && (text[j] == '+' || text[j] == '-')) {
      expNegative = text[j] == '-';
      ++j;
    }
    if (j < n && isDigit(text[j])) {
      int64_t e = 0;
      while (j < n && isDigit(text[j])) {
        if (e < 100000) e = e * 10 + (text[j] - '0');
        ++j;
      }
      exponent += expNegative ? -e : e;
    }
  }
  (void)sticky;
  if (roundDigit >= 5) {
    if (mantissa == kMaxMantissa) {
      mantissa = mantissa / 10 + 1;
      ++exponent;
    } else {
      ++mantissa;
    }
  }
  if (mantissa == 0) return Decimal();
  if (exponent < INT32_MIN / 2 || exponent > INT32_MAX / 2) {
    return exponent > 0 ? notANumber() : Decimal();
  }
  return fromParts(negative, mantissa, static_cast<int>(exponent));
}

Decimal Decimal::fromJSONNumberText(std::string_view text) {
  size_t i = 0;
  const size_t n = text.size();
  if (i < n && text[i] == '-') ++i;
  if (i >= n) return notANumber();
  if (text[i] == '0') {
    ++i;
  } else if (text[i] >= '1' && text[i] <= '9') {
    while (i < n && isDigit(text[i])) ++i;
  } else {
    return notANumber();
  }
  if (i < n && text[i] == '.') {
    ++i;
    if (i >= n || !isDigit(text[i])) return notANumber();
    while (i < n && isDigit(text[i])) ++i;
  }
  if (i < n && (text[i] == 'e' || text[i] == 'E')) {
    ++i;
    if (i < n && (text[i] == '+' || text[i] == '-')) ++i;
    if (i >= n || !isDigit(text[i])) return notANumber();
    while (i < n && isDigit(text[i])) ++i;
  }
  if (i != n) return notANumber();
  return fromString(text);
}

Decimal Decimal::fromBigEndianTwosComplement(std::span<const uint8_t> bytes) {
  if (bytes.empty() || bytes.size() > 16) return notANumber();
  Mantissa value = 0;
  for (uint8_t b : bytes) value = (value << 8) | b;
  const bool negative = (bytes[0] & 0x80) != 0;
  if (!negative) return fromParts(false, value, 0);
  // Two's complement of the full width: magnitude = 256^n - value.
  Mantissa magnitude;
  if (bytes.size() == 16) {
    magnitude = ~value + 1;  // wraps modulo 2^128, which is 256^16
  } else {
    const Mantissa modulus = static_cast<Mantissa>(1) << (8 * bytes.size());
    magnitude = modulus - value;
  }
  return fromParts(true, magnitude, 0);
}

Decimal Decimal::fromParts(bool negative, Mantissa mantissa, int exponent) {
  Decimal d;
  if (mantissa == 0) return d;
  int64_t e = exponent;
  while (mantissa % 10 == 0) {
    mantissa /= 10;
    ++e;
  }
  // Too small for the exponent range: drop digits (rounding) until it fits, or to zero.
  while (e < kMinExponent) {
    const unsigned dropped = static_cast<unsigned>(mantissa % 10);
    mantissa /= 10;
    ++e;
    if (e == kMinExponent && dropped >= 5) ++mantissa;
    if (mantissa == 0) return d;
  }
  while (mantissa % 10 == 0) {
    mantissa /= 10;
    ++e;
  }
  if (e > kMaxExponent) {
    // Fold the surplus back into the mantissa when it fits, as 1e130 = 1000e127.
    while (e > kMaxExponent) {
      if (!mulAdd10(&mantissa, 0)) return notANumber();
      --e;
    }
  }
  d.low_ = static_cast<uint64_t>(mantissa);
  d.high_ = static_cast<uint64_t>(mantissa >> 64);
  d.exponent_ = static_cast<int>(e);
  d.negative_ = negative;
  return d;
}

std::string Decimal::toString() const {
  if (nan_) return "NaN";
  if (mantissa() == 0) return "0";
  char digits[48];
  int len = 0;
  Mantissa m = mantissa();
  while (m != 0) {
    digits[len++] = static_cast<char>('0' + static_cast<int>(m % 10));
    m /= 10;
  }
  std::string out;
  out.reserve(static_cast<size_t>(len + std::abs(exponent_) + 3));
  if (negative_) out.push_back('-');
  if (exponent_ >= 0) {
    for (int k = len - 1; k >= 0; --k) out.push_back(digits[k]);
    out.append(static_cast<size_t>(exponent_), '0');
    return out;
  }
  const int fraction = -exponent_;
  if (len <= fraction) {
    out += "0.";
    out.append(static_cast<size_t>(fraction - len), '0');
    for (int k = len - 1; k >= 0; --k) out.push_back(digits[k]);
  } else {
    for (int k = len - 1; k >= fraction; --k) out.push_back(digits[k]);
    out.push_back('.');
    for (int k = fraction - 1; k >= 0; --k) out.push_back(digits[k]);
  }
  return out;
}

double Decimal::toDouble() const {
  if (nan_) return std::nan("");
  if (mantissa() == 0) return 0.0;
  // Correctly rounded through the C library's reader.
  char buf[80];
  char digits[48];
  int len = 0;
  Mantissa m = mantissa();
  while (m != 0) {
    digits[len++] = static_cast<char>('0' + static_cast<int>(m % 10));
    m /= 10;
  }
  int p = 0;
  if (negative_) buf[p++] = '-';
  for (int k = len - 1; k >= 0; --k) buf[p++] = digits[k];
  p += std::snprintf(buf + p, sizeof buf - static_cast<size_t>(p), "e%d", exponent_);
  return std::strtod(buf, nullptr);
}

std::optional<int64_t> Decimal::toInt64() const {
  if (nan_) return std::nullopt;
  if (exponent_ < 0) return std::nullopt;
  Mantissa m = mantissa();
  for (int k = 0; k < exponent_; ++k) {
    if (m > kMaxMantissa / 10) return std::nullopt;
    m *= 10;
  }
  const Mantissa limit =
      negative_ ? static_cast<Mantissa>(INT64_MAX) + 1 : static_cast<Mantissa>(INT64_MAX);
  if (m > limit) return std::nullopt;
  if (negative_) return static_cast<int64_t>(-static_cast<int64_t>(m - 1) - 1);
  return static_cast<int64_t>(m);
}

std::strong_ordering Decimal::compare(const Decimal& other) const {
  if (nan_ || other.nan_) {
    if (nan_ && other.nan_) return std::strong_ordering::equal;
    return nan_ ? std::strong_ordering::less : std::strong_ordering::greater;
  }
  const int sa = mantissa() == 0 ? 0 : (negative_ ? -1 : 1);
  const int sb = other.mantissa() == 0 ? 0 : (other.negative_ ? -1 : 1);
  if (sa != sb) return sa <=> sb;
  if (sa == 0) return std::strong_ordering::equal;
  // Same sign: compare magnitudes, then flip for negatives.
  std::strong_ordering magnitude = std::strong_ordering::equal;
  const int adjA = digitCount(mantissa()) + exponent_;
  const int adjB = digitCount(other.mantissa()) + other.exponent_;
  if (adjA != adjB) {
    magnitude = adjA <=> adjB;
  } else {
    Mantissa a = mantissa(), b = other.mantissa();
    bool aOverflow = false, bOverflow = false;
    for (int k = exponent_; k > other.exponent_ && !aOverflow; --k) aOverflow = !mulAdd10(&a, 0);
    for (int k = other.exponent_; k > exponent_ && !bOverflow; --k) bOverflow = !mulAdd10(&b, 0);
    if (aOverflow) {
      magnitude = std::strong_ordering::greater;
    } else if (bOverflow) {
      magnitude = std::strong_ordering::less;
    } else {
      magnitude = a <=> b;
    }
  }
  if (sa < 0) return 0 <=> magnitude;
  return magnitude;
}

size_t Decimal::hash() const {
  if (nan_) return 0x9e3779b97f4a7c15ULL;
  // The representation is normalised (no trailing zeros), so equal values share it.
  const uint64_t lo = low_;
  const uint64_t hi = high_;
  uint64_t h = lo * 0x9e3779b97f4a7c15ULL;
  h ^= hi + 0x517cc1b727220a95ULL + (h << 6) + (h >> 2);
  h ^= static_cast<uint64_t>(static_cast<int64_t>(exponent_)) * 0xbf58476d1ce4e5b9ULL;
  if (negative_) h = ~h;
  return static_cast<size_t>(h);
}

}  // namespace zbiap

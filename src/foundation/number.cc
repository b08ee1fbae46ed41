#include "foundation/number.h"

#include <charconv>
#include <cmath>

namespace zbiap::internal {

std::optional<int64_t> exactInt64(double d) {
  // [-2^63, 2^63): both bounds are exact doubles.
  if (!(d >= -9223372036854775808.0 && d < 9223372036854775808.0)) return std::nullopt;
  const int64_t i = static_cast<int64_t>(d);
  if (static_cast<double>(i) != d) return std::nullopt;
  return i;
}

std::string shortestDoubleText(double d) {
  char buf[64];
  const auto result = std::to_chars(buf, buf + sizeof buf, d);
  return std::string(buf, static_cast<size_t>(result.ptr - buf));
}

size_t hashInt64(int64_t v) {
  uint64_t x = static_cast<uint64_t>(v);
  x ^= x >> 33;
  x *= 0xff51afd7ed558ccdULL;
  x ^= x >> 33;
  x *= 0xc4ceb9fe1a85ec53ULL;
  x ^= x >> 33;
  return static_cast<size_t>(x);
}

}  // namespace zbiap::internal

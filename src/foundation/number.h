// Numeric helpers shared by Value's comparison, hashing and text conversions.
#ifndef ZBIAP_SRC_FOUNDATION_NUMBER_H_
#define ZBIAP_SRC_FOUNDATION_NUMBER_H_

#include <cstdint>
#include <optional>
#include <string>

namespace zbiap::internal {

// The integer that `d` is exactly, when it is integral and in int64's range.
std::optional<int64_t> exactInt64(double d);
// Shortest text that reads back as `d` ("9.99", "1e+20", "nan", "inf").
std::string shortestDoubleText(double d);
// Hash of an int64 that numbers of every kind equal to it share.
size_t hashInt64(int64_t v);

}  // namespace zbiap::internal

#endif  // ZBIAP_SRC_FOUNDATION_NUMBER_H_

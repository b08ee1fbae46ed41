#include "zbiap/foundation/date.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <limits>

namespace zbiap {
namespace {

constexpr int64_t kMin = std::numeric_limits<int64_t>::min();
constexpr int64_t kMax = std::numeric_limits<int64_t>::max();

TEST(DateTest, DescriptionInUTC) {
  // 2100 is not a leap year; fractions are not shown; before 1970 down to the second.
  // clang-format off
  const std::pair<int64_t, const char*> rows[] = {
      {0, "1970-01-01 00:00:00 +0000"}, {1709634030000000, "2024-03-05 10:20:30 +0000"},
      {951782400000000, "2000-02-29 00:00:00 +0000"}, {951868799000000, "2000-02-29 23:59:59 +0000"},
      {4107542400000000, "2100-03-01 00:00:00 +0000"}, {59999999, "1970-01-01 00:00:59 +0000"},
      {-1, "1969-12-31 23:59:59 +0000"}, {-86400000000, "1969-12-31 00:00:00 +0000"},
      {-62135596800000000, "0001-01-01 00:00:00 +0000"},
      {253402300799000000, "9999-12-31 23:59:59 +0000"},
      {253402300800000000, "10000-01-01 00:00:00 +0000"},
  };
  // clang-format on
  for (const auto& [micros, text] : rows) {
    EXPECT_EQ(Date::fromMicrosSince1970(micros).description(), text) << micros;
  }
  // The ends of the range do not overflow.
  EXPECT_FALSE(Date::fromMicrosSince1970(kMin).description().empty());
  EXPECT_FALSE(Date::fromMicrosSince1970(kMax).description().empty());
}

TEST(DateTest, FromSecondsRoundsAndSaturates) {
  const std::pair<double, int64_t> rows[] = {
      {1.5, 1500000}, {1.0000004, 1000000}, {1.0000006, 1000001}, {-0.0000006, -1},
      {NAN, 0},       {1e300, kMax},        {-INFINITY, kMin},
  };
  for (const auto& [seconds, micros] : rows) {
    EXPECT_EQ(Date::fromTimeIntervalSince1970(seconds).microsSince1970(), micros) << seconds;
  }
  const auto now = std::chrono::system_clock::now();
  const Date d = Date::fromSysTime(now);
  EXPECT_EQ(Date::fromSysTime(d.sysTime()), d);
  EXPECT_LE(std::chrono::abs(d.sysTime() - now), std::chrono::microseconds(1));
}

}  // namespace
}  // namespace zbiap

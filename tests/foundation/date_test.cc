#include "zbiap/foundation/date.h"

#include <gtest/gtest.h>

#include <chrono>
#include <cmath>
#include <limits>

namespace zbiap {
namespace {

constexpr int64_t kSecond = 1000000;

std::string at(int64_t seconds, int64_t micros = 0) {
  return Date::fromMicrosSince1970(seconds * kSecond + micros).description();
}

TEST(DateTest, DescriptionInUTC) {
  EXPECT_EQ(Date().description(), "1970-01-01 00:00:00 +0000");
  EXPECT_EQ(at(1709634030), "2024-03-05 10:20:30 +0000");
  EXPECT_EQ(at(951782400), "2000-02-29 00:00:00 +0000");
  EXPECT_EQ(at(951868799), "2000-02-29 23:59:59 +0000");
  EXPECT_EQ(at(4107542400), "2100-03-01 00:00:00 +0000");  // 2100 is not a leap year
  // Fractions are not shown; times before 1970 round down to the second.
  EXPECT_EQ(at(59, 999999), "1970-01-01 00:00:59 +0000");
  EXPECT_EQ(at(0, -1), "1969-12-31 23:59:59 +0000");
  EXPECT_EQ(at(-1), "1969-12-31 23:59:59 +0000");
  EXPECT_EQ(at(-86400), "1969-12-31 00:00:00 +0000");
  EXPECT_EQ(at(-2208988800), "1900-01-01 00:00:00 +0000");
  EXPECT_EQ(at(-62135596800), "0001-01-01 00:00:00 +0000");
  EXPECT_EQ(at(64092211200), "4001-01-01 00:00:00 +0000");
  EXPECT_EQ(at(253402300799), "9999-12-31 23:59:59 +0000");
  EXPECT_EQ(at(253402300800), "10000-01-01 00:00:00 +0000");
  // The ends of the range do not overflow.
  EXPECT_FALSE(
      Date::fromMicrosSince1970(std::numeric_limits<int64_t>::min()).description().empty());
  EXPECT_FALSE(
      Date::fromMicrosSince1970(std::numeric_limits<int64_t>::max()).description().empty());
}

TEST(DateTest, ConversionsAndArithmetic) {
  EXPECT_EQ(Date::fromTimeIntervalSince1970(1.5).microsSince1970(), 1500000);
  EXPECT_EQ(Date::fromTimeIntervalSince1970(1.0000004).microsSince1970(), 1000000);
  EXPECT_EQ(Date::fromTimeIntervalSince1970(1.0000006).microsSince1970(), 1000001);
  EXPECT_EQ(Date::fromTimeIntervalSince1970(-0.0000006).microsSince1970(), -1);
  EXPECT_EQ(Date::fromTimeIntervalSince1970(NAN).microsSince1970(), 0);
  EXPECT_EQ(Date::fromTimeIntervalSince1970(1e300).microsSince1970(),
            std::numeric_limits<int64_t>::max());
  EXPECT_EQ(Date::fromTimeIntervalSince1970(-INFINITY).microsSince1970(),
            std::numeric_limits<int64_t>::min());
  EXPECT_DOUBLE_EQ(Date::fromMicrosSince1970(2500000).timeIntervalSince1970(), 2.5);

  const auto now = std::chrono::system_clock::now();
  const Date d = Date::fromSysTime(now);
  EXPECT_EQ(Date::fromSysTime(d.sysTime()), d);
  EXPECT_LE(std::chrono::abs(d.sysTime() - now), std::chrono::microseconds(1));

  const Date later = d + std::chrono::seconds(90);
  EXPECT_GT(later, d);
  EXPECT_EQ(later - d, std::chrono::seconds(90));
  EXPECT_EQ(later - std::chrono::seconds(90), d);
  EXPECT_DOUBLE_EQ(later.timeIntervalSinceDate(d), 90.0);
  EXPECT_DOUBLE_EQ(d.timeIntervalSinceDate(later), -90.0);
  EXPECT_EQ(d.hash(), Date::fromMicrosSince1970(d.microsSince1970()).hash());
}

}  // namespace
}  // namespace zbiap

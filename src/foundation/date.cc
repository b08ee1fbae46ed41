#include "zbiap/foundation/date.h"

#include <cmath>
#include <cstdio>
#include <limits>

namespace zbiap {

namespace {

// Howard Hinnant's civil-from-days: proleptic Gregorian date of a day count since 1970-01-01.
// Valid for the whole int64 range of days the microsecond clock can express.
void civilFromDays(int64_t z, int64_t* year, unsigned* month, unsigned* day) {
  z += 719468;
  const int64_t era = (z >= 0 ? z : z - 146096) / 146097;
  const unsigned doe = static_cast<unsigned>(z - era * 146097);
  const unsigned yoe = (doe - doe / 1460 + doe / 36524 - doe / 146096) / 365;
  const int64_t y = static_cast<int64_t>(yoe) + era * 400;
  const unsigned doy = doe - (365 * yoe + yoe / 4 - yoe / 100);
  const unsigned mp = (5 * doy + 2) / 153;
  *day = doy - (153 * mp + 2) / 5 + 1;
  *month = mp < 10 ? mp + 3 : mp - 9;
  *year = y + (*month <= 2 ? 1 : 0);
}

int64_t floorDiv(int64_t a, int64_t b) {
  int64_t q = a / b;
  if ((a % b != 0) && ((a < 0) != (b < 0))) --q;
  return q;
}

}  // namespace

Date Date::fromTimeIntervalSince1970(double seconds) {
  if (std::isnan(seconds)) return Date(0);
  const double micros = std::nearbyint(seconds * 1e6);
  // Clamp to what the representation holds rather than invoking undefined behaviour.
  if (micros >= 9.2e18) return Date(std::numeric_limits<int64_t>::max());
  if (micros <= -9.2e18) return Date(std::numeric_limits<int64_t>::min());
  return Date(static_cast<int64_t>(micros));
}

Date Date::fromSysTime(std::chrono::system_clock::time_point t) {
  return Date(std::chrono::duration_cast<Micros>(t.time_since_epoch()).count());
}

std::chrono::system_clock::time_point Date::sysTime() const {
  return std::chrono::system_clock::time_point(
      std::chrono::duration_cast<std::chrono::system_clock::duration>(Micros(micros_)));
}

std::string Date::description() const {
  constexpr int64_t kMicrosPerDay = 86400LL * 1000000LL;
  const int64_t days = floorDiv(micros_, kMicrosPerDay);
  int64_t microsOfDay = micros_ % kMicrosPerDay;  // no product that could overflow
  if (microsOfDay < 0) microsOfDay += kMicrosPerDay;
  const int64_t secondsOfDay = microsOfDay / 1000000;
  int64_t year;
  unsigned month, day;
  civilFromDays(days, &year, &month, &day);
  const int hour = static_cast<int>(secondsOfDay / 3600);
  const int minute = static_cast<int>(secondsOfDay / 60 % 60);
  const int second = static_cast<int>(secondsOfDay % 60);
  char buf[64];
  // Years before 1 are written as negative astronomical years; four digits at least.
  const int n = std::snprintf(buf, sizeof buf, "%s%04lld-%02u-%02u %02d:%02d:%02d +0000",
                              year < 0 ? "-" : "", static_cast<long long>(year < 0 ? -year : year),
                              month, day, hour, minute, second);
  return std::string(buf, static_cast<size_t>(n));
}

}  // namespace zbiap

#include "support/rfc3339_fast_path.h"

namespace zbiap {
namespace {

constexpr int kMinYear = 1600;  // ICU's calendar is Julian before 1582; keep well clear.
constexpr int kMaxOffsetHours = 18;

// Reads `n` ASCII digits at `p`; false when one is not a digit.
inline bool digits(const char* p, int n, int* out) {
  int value = 0;
  for (int i = 0; i < n; ++i) {
    unsigned d = static_cast<unsigned char>(p[i]) - '0';
    if (d > 9) return false;
    value = value * 10 + static_cast<int>(d);
  }
  *out = value;
  return true;
}

inline bool isLeap(int y) { return (y % 4 == 0 && y % 100 != 0) || y % 400 == 0; }

inline int daysInMonth(int y, int m) {
  static constexpr int kDays[12] = {31, 28, 31, 30, 31, 30, 31, 31, 30, 31, 30, 31};
  return m == 2 && isLeap(y) ? 29 : kDays[m - 1];
}

// Days from 1970-01-01 to y-m-d in the proleptic Gregorian calendar.
inline int64_t daysFromCivil(int y, int m, int d) {
  y -= m <= 2;
  const int era = (y >= 0 ? y : y - 399) / 400;
  const int yoe = y - era * 400;
  const int doy = (153 * (m + (m > 2 ? -3 : 9)) + 2) / 5 + d - 1;
  const int doe = yoe * 365 + yoe / 4 - yoe / 100 + doy;
  return static_cast<int64_t>(era) * 146097 + doe - 719468;
}

}  // namespace

std::optional<int64_t> parseRFC3339Fast(std::string_view text) {
  // The fixed part: "yyyy-MM-ddTHH:mm:ss" (19 characters).
  if (text.size() < 20 || text.size() > 31) return std::nullopt;
  const char* p = text.data();
  int year, month, day, hour, minute, second;
  if (!digits(p, 4, &year) || p[4] != '-' || !digits(p + 5, 2, &month) || p[7] != '-' ||
      !digits(p + 8, 2, &day) || p[10] != 'T' || !digits(p + 11, 2, &hour) || p[13] != ':' ||
      !digits(p + 14, 2, &minute) || p[16] != ':' || !digits(p + 17, 2, &second)) {
    return std::nullopt;
  }
  if (year < kMinYear || month < 1 || month > 12 || day < 1 || day > daysInMonth(year, month) ||
      hour > 23 || minute > 59 || second > 59) {
    return std::nullopt;
  }

  size_t pos = 19;
  int millis = 0;
  if (p[pos] == '.') {
    int fraction;
    if (text.size() < pos + 7 || !digits(p + pos + 1, 5, &fraction)) return std::nullopt;
    millis = fraction / 100;
    pos += 6;
  }

  // The zone: "Z", "+HH:MM" or "+HHMM", ending the text.
  const size_t rest = text.size() - pos;
  int offset_seconds = 0;
  if (rest == 1 && p[pos] == 'Z') {
    offset_seconds = 0;
  } else if ((rest == 6 || rest == 5) && (p[pos] == '+' || p[pos] == '-')) {
    int offset_hours, offset_minutes;
    if (!digits(p + pos + 1, 2, &offset_hours)) return std::nullopt;
    const char* m = p + pos + 3;
    if (rest == 6) {
      if (*m != ':') return std::nullopt;
      ++m;
    }
    if (!digits(m, 2, &offset_minutes)) return std::nullopt;
    if (offset_hours > kMaxOffsetHours || offset_minutes > 59) return std::nullopt;
    offset_seconds = offset_hours * 3600 + offset_minutes * 60;
    if (p[pos] == '-') offset_seconds = -offset_seconds;
  } else {
    return std::nullopt;
  }

  const int64_t seconds =
      daysFromCivil(year, month, day) * 86400 + hour * 3600 + minute * 60 + second - offset_seconds;
  return seconds * 1000000 + millis * 1000;
}

}  // namespace zbiap

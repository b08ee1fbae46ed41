// zbiap::Date: an instant in time with microsecond resolution, the library's NSDate.
//
// A plain value: copyable, totally ordered, compared exactly. Arithmetic with
// std::chrono durations. description() gives Foundation's form, "2024-03-05 10:20:30 +0000".
#ifndef ZBIAP_FOUNDATION_DATE_H_
#define ZBIAP_FOUNDATION_DATE_H_

#include <chrono>
#include <compare>
#include <cstdint>
#include <string>

#include "zbiap/export.h"

namespace zbiap {

class ZBIAP_EXPORT Date {
 public:
  using Micros = std::chrono::microseconds;

  // The Unix epoch, 1970-01-01 00:00:00 UTC.
  constexpr Date() = default;
  static constexpr Date fromMicrosSince1970(int64_t micros) { return Date(micros); }
  // Fractions below a microsecond are rounded to the nearest microsecond.
  static Date fromTimeIntervalSince1970(double seconds);
  static Date fromSysTime(std::chrono::system_clock::time_point t);

  constexpr int64_t microsSince1970() const { return micros_; }
  double timeIntervalSince1970() const { return static_cast<double>(micros_) / 1e6; }
  // Seconds from `other` to this date (positive when this is later).
  double timeIntervalSinceDate(const Date& other) const {
    return static_cast<double>(micros_ - other.micros_) / 1e6;
  }
  std::chrono::system_clock::time_point sysTime() const;

  Date operator+(Micros d) const { return Date(micros_ + d.count()); }
  Date operator-(Micros d) const { return Date(micros_ - d.count()); }
  Micros operator-(const Date& other) const { return Micros(micros_ - other.micros_); }

  constexpr auto operator<=>(const Date&) const = default;

  // "yyyy-MM-dd HH:mm:ss +0000" in UTC, as NSDate's description.
  std::string description() const;
  size_t hash() const { return std::hash<int64_t>()(micros_); }

 private:
  constexpr explicit Date(int64_t micros) : micros_(micros) {}
  int64_t micros_ = 0;
};

}  // namespace zbiap

template <>
struct std::hash<zbiap::Date> {
  size_t operator()(const zbiap::Date& d) const { return d.hash(); }
};

#endif  // ZBIAP_FOUNDATION_DATE_H_

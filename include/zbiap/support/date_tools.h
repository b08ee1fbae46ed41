// ZBIAPDateTools: RFC 3339 time stamps, duration strings ("1m", "2w"), whole-day/month
// remaining durations and calendar dates, all in the Gregorian calendar of the system's
// current time zone (ICU underneath); zbiap::Calendar: such a calendar in a chosen zone, for
// the start of a day wherever that is.
//
// An instance is not thread-safe: get the calling thread's own one with dateTools(), built on
// first use and kept for the thread's life, and never hand it to another thread. A fresh
// instance (which reads the current default time zone again) can be built with the public
// constructor.
#ifndef ZBIAP_SUPPORT_DATE_TOOLS_H_
#define ZBIAP_SUPPORT_DATE_TOOLS_H_

#include <cstdint>
#include <memory>
#include <optional>
#include <string>
#include <string_view>

#include "zbiap/export.h"
#include "zbiap/foundation/date.h"

class ZBIAPDateTools;

namespace zbiap {

// A Gregorian calendar in one time zone (ICU underneath). Not thread-safe: like the date
// tools, a calendar belongs to one thread at a time.
class ZBIAP_EXPORT Calendar {
 public:
  // In the system's current time zone.
  Calendar();
  // In the named zone ("Europe/Berlin"); a name the system does not know gives UTC.
  explicit Calendar(std::string_view timeZone);
  ~Calendar();
  Calendar(const Calendar&) = delete;
  Calendar& operator=(const Calendar&) = delete;

 private:
  friend class ::ZBIAPDateTools;
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

// Calendar fields, each possibly unset (Foundation's date components).
struct ZBIAP_EXPORT DateComponents {
  std::optional<int64_t> era;
  std::optional<int64_t> year;
  std::optional<int64_t> month;
  std::optional<int64_t> day;
  std::optional<int64_t> hour;
  std::optional<int64_t> minute;
  std::optional<int64_t> second;
  std::optional<int64_t> weekOfYear;

  bool operator==(const DateComponents&) const = default;
  // "{year=1 month=2}": the set fields only, for messages and test output.
  std::string description() const;
};

}  // namespace zbiap

class ZBIAP_EXPORT ZBIAPDateTools {
 public:
  // The calling thread's instance.
  static ZBIAPDateTools& dateTools();
  static ZBIAPDateTools& threadLocalInstance() { return dateTools(); }
  // Reads the system's time zone (TZ) again; instances built afterwards use it, existing ones
  // (the per-thread instances included) keep theirs.
  static void resetSystemTimeZone();

  // A new instance in the current default time zone.
  ZBIAPDateTools();
  ~ZBIAPDateTools();
  ZBIAPDateTools(const ZBIAPDateTools&) = delete;
  ZBIAPDateTools& operator=(const ZBIAPDateTools&) = delete;

  // "2024-03-05T11:20:30+01:00" in the instance's time zone ("Z" for UTC), whole seconds.
  std::string rfc3339StringFromDate(const zbiap::Date& date);
  std::optional<std::string> rfc3339StringFromDate(const std::optional<zbiap::Date>& date);

  // Reads "yyyy-MM-dd'T'HH:mm:ss" with an optional five-digit fraction and a zone ("Z",
  // "+01:00" or "+0100"); nullopt for anything else. Any input is safe (empty, huge, not
  // UTF-8).
  std::optional<zbiap::Date> dateFromRFC3339String(std::string_view text);
  // The same through ICU only, without the fast path (for comparison and benchmarks).
  std::optional<zbiap::Date> dateFromRFC3339StringWithICU(std::string_view text);

  // A count and one unit letter of "DdWwMmYy" ("12M", " 5 d"); sets day, weekOfYear, month or
  // year. nullopt for anything else.
  std::optional<zbiap::DateComponents> componentsFromDurationString(std::string_view text);

  // Whole days between the midnights of `from` and `to`, or months and days when that is 31
  // days or more; nullopt when either is missing or `from` is not earlier than `to`.
  std::optional<zbiap::DateComponents> componentsForRemainingDurationFrom(
      const std::optional<zbiap::Date>& from, const std::optional<zbiap::Date>& to);

  // The start of the date's day in `calendar`: the date of its year, month and day there.
  // The instance's own calendar is calendar().
  zbiap::Date dateAtMidnight(const zbiap::Date& date, zbiap::Calendar& calendar);

  // The instance's calendar, in the time zone the instance was built in.
  zbiap::Calendar& calendar();

  // The date of the given calendar fields (read as fields, not added to a start date); unset
  // fields take their lowest values (era 1, year 1, month 1, day 1, midnight). nullopt when
  // the fields do not make a date.
  std::optional<zbiap::Date> dateFromComponents(const zbiap::DateComponents& components);

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};

#endif  // ZBIAP_SUPPORT_DATE_TOOLS_H_

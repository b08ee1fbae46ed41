#include "zbiap/support/date_tools.h"

#include <gtest/gtest.h>

#include <ostream>
#include <string>
#include <thread>

#include "tests/support/scoped_time_zone.h"

namespace zbiap {
void PrintTo(const DateComponents& components, std::ostream* out) {
  *out << components.description();
}
}  // namespace zbiap

namespace {

using zbiap::Date;
using zbiap::DateComponents;
using zbiap::testing::ScopedTimeZone;

// 2024-03-05 10:20:30 UTC.
constexpr int64_t kMarch5 = 1709634030;

Date utc(int64_t seconds, int64_t micros = 0) {
  return Date::fromMicrosSince1970(seconds * 1000000 + micros);
}

DateComponents days(int64_t n) {
  DateComponents c;
  c.day = n;
  return c;
}

TEST(DateToolsWriteTest, UTCEndsInZ) {
  ScopedTimeZone zone("UTC");
  ZBIAPDateTools tools;
  EXPECT_EQ(tools.rfc3339StringFromDate(utc(kMarch5)), "2024-03-05T10:20:30Z");
  // Whole seconds only: the fraction is cut, not rounded.
  EXPECT_EQ(tools.rfc3339StringFromDate(utc(kMarch5, 999999)), "2024-03-05T10:20:30Z");
  EXPECT_EQ(tools.rfc3339StringFromDate(std::optional<Date>()), std::nullopt);
}

TEST(DateToolsWriteTest, PositiveOffsetWithMinutes) {
  ScopedTimeZone zone("Asia/Kolkata");
  ZBIAPDateTools tools;
  EXPECT_EQ(tools.rfc3339StringFromDate(utc(kMarch5)), "2024-03-05T15:50:30+05:30");
}

TEST(DateToolsWriteTest, NegativeOffsetFollowsDaylightSaving) {
  ScopedTimeZone zone("America/New_York");
  ZBIAPDateTools tools;
  EXPECT_EQ(tools.rfc3339StringFromDate(utc(kMarch5)), "2024-03-05T05:20:30-05:00");
  EXPECT_EQ(tools.rfc3339StringFromDate(utc(kMarch5 + 120 * 86400)), "2024-07-03T06:20:30-04:00");
  // A time before the epoch.
  EXPECT_EQ(tools.rfc3339StringFromDate(utc(-1)), "1969-12-31T18:59:59-05:00");
}

TEST(DateToolsWriteTest, RoundTripsInEveryZone) {
  for (const char* name : {"UTC", "Asia/Kolkata", "America/St_Johns", "Pacific/Kiritimati"}) {
    ScopedTimeZone zone(name);
    ZBIAPDateTools tools;
    for (int64_t seconds : {kMarch5, int64_t{0}, int64_t{951782400}, int64_t{4102444799}}) {
      const std::string text = tools.rfc3339StringFromDate(utc(seconds, 250000));
      EXPECT_EQ(tools.dateFromRFC3339String(text), utc(seconds)) << name << " " << text;
      EXPECT_EQ(tools.dateFromRFC3339StringWithICU(text), utc(seconds)) << name << " " << text;
    }
  }
}

TEST(DateToolsReadTest, ReadsBothFormsWhateverTheZone) {
  for (const char* name : {"UTC", "Asia/Kolkata", "America/Los_Angeles"}) {
    ScopedTimeZone zone(name);
    ZBIAPDateTools tools;
    EXPECT_EQ(tools.dateFromRFC3339String("2024-03-05T10:20:30Z"), utc(kMarch5)) << name;
    EXPECT_EQ(tools.dateFromRFC3339String("2024-03-05T11:20:30.12345+01:00"), utc(kMarch5, 123000))
        << name;
    EXPECT_EQ(tools.dateFromRFC3339String("2024-03-05T04:50:30-0530"), utc(kMarch5)) << name;
  }
}

TEST(DateToolsReadTest, RefusesWhatIsNotAStamp) {
  ScopedTimeZone zone("UTC");
  ZBIAPDateTools tools;
  const std::string refused[] = {
      "",
      "garbage",
      "2024-03-05",
      "2024-03-05T10:20:30",         // no zone
      "2024-03-05T10:20:30Z junk",   // trailing text
      "2024-03-05T10:20:30+01:00x",  //
      "2024-02-30T10:20:30Z",        // no such day
      "2023-02-29T10:20:30Z",        // not a leap year
      "2024-03-05T24:00:00Z",        // hour out of range
      "2024-03-05T10:60:30Z",        //
      "2024-03-05T10:20:61Z",        //
      "2024-13-05T10:20:30Z",        //
      "2024-03-05T10:20:30+24:00",   //
      "2024-03-05 10:20:30Z",        // blank for the T
      std::string("2024-03-05T10:20:30\0Z", 21),
      "2024-03-05T10:20:30\xff\xfe",
      "\xc3\x28\xa0\xa1\xe2\x28\xa1",
      std::string(100000, '9'),
      // ICU divides by zero on a fraction of 35 digits or more; such runs never reach it.
      "2024-03-05T10:20:30." + std::string(40, '4') + "+00:00",
      "2024-03-05T10:20:30." + std::string(40, '4') + "Z",
      // The same with fullwidth digits, which ICU's number parser also reads.
      "2024-03-05T10:20:30." +
          [] {
            std::string s;
            for (int i = 0; i < 40; ++i) s += "\xef\xbc\x94";
            return s;
          }() +
          "Z",
      std::string(5000, '-'),
  };
  for (const std::string& text : refused) {
    EXPECT_EQ(tools.dateFromRFC3339String(text), std::nullopt) << text.substr(0, 40);
    EXPECT_EQ(tools.dateFromRFC3339StringWithICU(text), std::nullopt) << text.substr(0, 40);
  }
}

TEST(DateToolsReadTest, LeapDayAndCenturyRules) {
  ZBIAPDateTools tools;
  EXPECT_TRUE(tools.dateFromRFC3339String("2024-02-29T00:00:00Z"));
  EXPECT_TRUE(tools.dateFromRFC3339String("2000-02-29T00:00:00Z"));
  EXPECT_FALSE(tools.dateFromRFC3339String("1900-02-29T00:00:00Z"));
  EXPECT_EQ(tools.dateFromRFC3339String("2000-02-29T00:00:00Z"), utc(951782400));
}

TEST(DateToolsDurationTest, CountsAndUnits) {
  ZBIAPDateTools& tools = ZBIAPDateTools::dateTools();
  DateComponents twelveMonths;
  twelveMonths.month = 12;
  EXPECT_EQ(tools.componentsFromDurationString("12M"), twelveMonths);
  DateComponents oneYear;
  oneYear.year = 1;
  EXPECT_EQ(tools.componentsFromDurationString("1Y"), oneYear);
  EXPECT_EQ(tools.componentsFromDurationString("1y"), oneYear);
  DateComponents twoWeeks;
  twoWeeks.weekOfYear = 2;
  EXPECT_EQ(tools.componentsFromDurationString("2w"), twoWeeks);
  EXPECT_EQ(tools.componentsFromDurationString("0d"), days(0));
  EXPECT_EQ(tools.componentsFromDurationString("+3D"), days(3));
  EXPECT_EQ(tools.componentsFromDurationString("007d"), days(7));
}

TEST(DateToolsDurationTest, BlanksAndTrailingText) {
  ZBIAPDateTools& tools = ZBIAPDateTools::dateTools();
  EXPECT_EQ(tools.componentsFromDurationString(" 5d"), days(5));
  EXPECT_EQ(tools.componentsFromDurationString("\n\t5d"), days(5));
  EXPECT_EQ(tools.componentsFromDurationString("5d and more words"), days(5));
  EXPECT_EQ(tools.componentsFromDurationString("5 d"), days(5));
  EXPECT_EQ(tools.componentsFromDurationString("5\xc2\xa0"
                                               "d"),
            days(5));  // no-break space
  EXPECT_EQ(tools.componentsFromDurationString("3d!"), days(3));
  EXPECT_EQ(tools.componentsFromDurationString("3dx"), days(3));
}

TEST(DateToolsDurationTest, RefusesAnythingElse) {
  ZBIAPDateTools& tools = ZBIAPDateTools::dateTools();
  for (std::string_view text :
       {"", "-1d", "d", "1", "1x", "3dd", "1md", "1 dD", "- 1d", "+ 1d", " ", "x1d", "1.5d",
        "\xff"
        "1d",
        "1\xff", "\xe2\x80"}) {
    EXPECT_EQ(tools.componentsFromDurationString(text), std::nullopt) << "'" << text << "'";
  }
}

TEST(DateToolsDurationTest, HugeCountsSaturate) {
  ZBIAPDateTools& tools = ZBIAPDateTools::dateTools();
  EXPECT_EQ(tools.componentsFromDurationString("99999999999999999999999d"), days(INT64_MAX));
  EXPECT_EQ(tools.componentsFromDurationString("-99999999999999999999999d"), std::nullopt);
  EXPECT_EQ(tools.componentsFromDurationString("-0d"), days(0));
}

TEST(DateToolsRemainingTest, DaysUnderAMonthThenMonthsAndDays) {
  ScopedTimeZone zone("Europe/Berlin");
  ZBIAPDateTools tools;
  auto at = [&tools](const char* stamp) { return tools.dateFromRFC3339String(stamp); };
  // 1 to 31 January: 30 days.
  EXPECT_EQ(tools.componentsForRemainingDuration(at("2023-01-01T12:00:00+01:00"),
                                                 at("2023-01-31T08:00:00+01:00")),
            days(30));
  // 30 January to 1 March: 31 days or more, so months and days by the calendar's arithmetic.
  DateComponents monthAndDay;
  monthAndDay.month = 1;
  monthAndDay.day = 1;
  EXPECT_EQ(tools.componentsForRemainingDuration(at("2024-01-30T10:00:00+01:00"),
                                                 at("2024-03-01T10:00:00+01:00")),
            monthAndDay);
  // In a year without 29 February the same span is 30 days.
  EXPECT_EQ(tools.componentsForRemainingDuration(at("2023-01-30T10:00:00+01:00"),
                                                 at("2023-03-01T10:00:00+01:00")),
            days(30));
  DateComponents yearAndMore;
  yearAndMore.month = 13;
  yearAndMore.day = 2;  // 31 January + 13 months is 29 February 2024
  EXPECT_EQ(tools.componentsForRemainingDuration(at("2023-01-31T10:00:00+01:00"),
                                                 at("2024-03-02T10:00:00+01:00")),
            yearAndMore);
  // Counted between midnights: a minute before and after midnight is one day.
  EXPECT_EQ(tools.componentsForRemainingDuration(at("2023-06-01T23:59:00+02:00"),
                                                 at("2023-06-02T00:01:00+02:00")),
            days(1));
  // Across the change to summer time the days stay whole.
  EXPECT_EQ(tools.componentsForRemainingDuration(at("2023-03-20T00:00:00+01:00"),
                                                 at("2023-04-10T00:00:00+02:00")),
            days(21));
  // The same day, later: zero days.
  EXPECT_EQ(tools.componentsForRemainingDuration(at("2023-06-01T08:00:00+02:00"),
                                                 at("2023-06-01T09:00:00+02:00")),
            days(0));
}

TEST(DateToolsRemainingTest, NothingForMissingEqualOrReversedDates) {
  ZBIAPDateTools& tools = ZBIAPDateTools::dateTools();
  const Date d = utc(kMarch5);
  EXPECT_EQ(tools.componentsForRemainingDuration(d, d), std::nullopt);
  EXPECT_EQ(tools.componentsForRemainingDuration(d + std::chrono::hours(48), d), std::nullopt);
  EXPECT_EQ(tools.componentsForRemainingDuration(std::nullopt, d), std::nullopt);
  EXPECT_EQ(tools.componentsForRemainingDuration(d, std::nullopt), std::nullopt);
}

TEST(DateToolsCalendarTest, MidnightIsLocal) {
  ScopedTimeZone zone("Asia/Kolkata");
  ZBIAPDateTools tools;
  // 2024-03-05 20:00 UTC is 6 March 01:30 in Kolkata, whose midnight is 5 March 18:30 UTC.
  EXPECT_EQ(tools.dateAtMidnight(utc(kMarch5 + 9 * 3600 + 39 * 60 + 30)),
            tools.dateFromRFC3339String("2024-03-05T18:30:00Z"));
}

TEST(DateToolsCalendarTest, DateFromComponentsFillsLowestValues) {
  ScopedTimeZone zone("UTC");
  ZBIAPDateTools tools;
  DateComponents full;
  full.year = 2024;
  full.month = 3;
  full.day = 5;
  full.hour = 10;
  full.minute = 20;
  full.second = 30;
  EXPECT_EQ(tools.dateFromComponents(full), utc(kMarch5));

  DateComponents first;
  first.era = 1;
  first.year = 1;
  first.month = 1;
  first.day = 1;
  const auto start = tools.dateFromComponents(first);
  ASSERT_TRUE(start);
  EXPECT_EQ(tools.dateFromComponents({}), start);  // not 1970
  EXPECT_EQ(tools.dateFromComponents(*tools.componentsFromDurationString("1m")), start);

  // Durations become dates read as fields: 12M is 1 December of year 1, 3d is 3 January.
  auto dateOf = [&tools](const char* duration) {
    return tools.dateFromComponents(*tools.componentsFromDurationString(duration));
  };
  EXPECT_EQ(*dateOf("3d") - *start, std::chrono::hours(48));
  EXPECT_LT(dateOf("3d"), dateOf("12M"));
  EXPECT_LT(dateOf("0d"), start);
  EXPECT_LT(dateOf("12M"), dateOf("2y"));
  EXPECT_LT(dateOf("2w"), dateOf("12M"));
}

TEST(DateToolsCalendarTest, DateFromComponentsOutOfRange) {
  ZBIAPDateTools tools;
  DateComponents huge;
  huge.day = INT64_MAX;
  EXPECT_EQ(tools.dateFromComponents(huge), std::nullopt);
  DateComponents hugeYear;
  hugeYear.year = 2000000000;
  EXPECT_NO_FATAL_FAILURE((void)tools.dateFromComponents(hugeYear));
  // Found by fuzzing: a year ICU can compute but a Date cannot hold.
  EXPECT_EQ(tools.dateFromComponents(*tools.componentsFromDurationString("99999999y")),
            std::nullopt);
}

TEST(DateToolsInstanceTest, OnePerThread) {
  ZBIAPDateTools* mine = &ZBIAPDateTools::dateTools();
  EXPECT_EQ(mine, &ZBIAPDateTools::threadLocalInstance());
  ZBIAPDateTools* theirs = nullptr;
  std::thread([&theirs] { theirs = &ZBIAPDateTools::dateTools(); }).join();
  EXPECT_NE(mine, theirs);
}

TEST(DateComponentsTest, Description) {
  DateComponents c;
  EXPECT_EQ(c.description(), "{}");
  c.month = 1;
  c.day = 2;
  EXPECT_EQ(c.description(), "{month=1 day=2}");
}

}  // namespace

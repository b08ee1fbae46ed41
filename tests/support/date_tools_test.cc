#include "zbiap/support/date_tools.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <cstdlib>
#include <ctime>
#include <ostream>
#include <random>
#include <string>
#include <thread>

#include "support/rfc3339_fast_path.h"

namespace zbiap {
void PrintTo(const DateComponents& components, std::ostream* out) {
  *out << components.description();
}
}  // namespace zbiap

namespace {

using zbiap::Date;
using zbiap::DateComponents;

// Sets the process's TZ for the life of the object and makes ICU read it again, so that
// ZBIAPDateTools instances built inside the scope work in that zone.
class ScopedTimeZone {
 public:
  explicit ScopedTimeZone(const char* zone) {
    if (const char* old = std::getenv("TZ")) previous_ = old;
    set(zone);
  }
  ~ScopedTimeZone() { set(previous_ ? previous_->c_str() : nullptr); }

 private:
  static void set(const char* zone) {
    zone ? ::setenv("TZ", zone, 1) : ::unsetenv("TZ");
    ::tzset();
    ZBIAPDateTools::resetSystemTimeZone();
  }
  std::optional<std::string> previous_;
};

// 2024-03-05 10:20:30 UTC.
constexpr int64_t kMarch5 = 1709634030;

Date utc(int64_t seconds, int64_t micros = 0) {
  return Date::fromMicrosSince1970(seconds * 1000000 + micros);
}

DateComponents fields(std::optional<int64_t> day, std::optional<int64_t> month = std::nullopt,
                      std::optional<int64_t> week = std::nullopt,
                      std::optional<int64_t> year = std::nullopt) {
  DateComponents c;
  c.day = day;
  c.month = month;
  c.weekOfYear = week;
  c.year = year;
  return c;
}

TEST(DateToolsWriteTest, LocalOffsetWithColonOrZ) {
  // Whole seconds only: the fraction is cut, not rounded.
  const struct {
    const char* zone;
    Date date;
    const char* text;
  } rows[] = {
      {"UTC", utc(kMarch5, 999999), "2024-03-05T10:20:30Z"},
      {"Asia/Kolkata", utc(kMarch5), "2024-03-05T15:50:30+05:30"},
      {"America/New_York", utc(kMarch5), "2024-03-05T05:20:30-05:00"},
      {"America/New_York", utc(kMarch5 + 120 * 86400), "2024-07-03T06:20:30-04:00"},
      {"America/New_York", utc(-1), "1969-12-31T18:59:59-05:00"},
  };
  for (const auto& row : rows) {
    ScopedTimeZone zone(row.zone);
    ZBIAPDateTools tools;
    EXPECT_EQ(tools.rfc3339StringFromDate(row.date), row.text) << row.zone;
  }
  EXPECT_EQ(ZBIAPDateTools().rfc3339StringFromDate(std::optional<Date>()), std::nullopt);
}

TEST(DateToolsReadTest, RoundTripsAndReadsBothFormsInEveryZone) {
  for (const char* name : {"UTC", "Asia/Kolkata", "America/St_Johns", "Pacific/Kiritimati"}) {
    ScopedTimeZone zone(name);
    ZBIAPDateTools tools;
    for (int64_t seconds : {kMarch5, int64_t{0}, int64_t{951782400}, int64_t{4102444799}}) {
      const std::string text = tools.rfc3339StringFromDate(utc(seconds, 250000));
      EXPECT_EQ(tools.dateFromRFC3339String(text), utc(seconds)) << name << " " << text;
      EXPECT_EQ(tools.dateFromRFC3339StringWithICU(text), utc(seconds)) << name << " " << text;
    }
    EXPECT_EQ(tools.dateFromRFC3339String("2024-03-05T10:20:30Z"), utc(kMarch5)) << name;
    EXPECT_EQ(tools.dateFromRFC3339String("2024-03-05T11:20:30.12345+01:00"), utc(kMarch5, 123000))
        << name;
    EXPECT_EQ(tools.dateFromRFC3339String("2024-03-05T04:50:30-0530"), utc(kMarch5)) << name;
    EXPECT_EQ(tools.dateFromRFC3339String("2000-02-29T00:00:00Z"), utc(951782400)) << name;
  }
}

TEST(DateToolsDurationTest, CountAndOneUnitLetter) {
  // Blanks are Unicode's White_Space: tab to carriage return, the space, U+0085, U+00A0,
  // U+1680, U+2000 to U+200A, U+2028, U+2029, U+202F, U+205F and U+3000; nothing else.
  const std::optional<DateComponents> five = fields(5);
  // clang-format off
  const std::pair<std::string, std::optional<DateComponents>> rows[] = {
      {"12M", fields(std::nullopt, 12)}, {"1Y", fields(std::nullopt, {}, {}, 1)},
      {"1y", fields(std::nullopt, {}, {}, 1)}, {"2w", fields(std::nullopt, {}, 2)},
      {"0d", fields(0)}, {"-0d", fields(0)}, {"+3D", fields(3)}, {"007d", fields(7)},
      {"99999999999999999999999d", fields(INT64_MAX)}, {"3d!", fields(3)}, {"3dx", fields(3)},
      {" 5d", five}, {"\n\t\v\f\r5d", five}, {"5d and more words", five}, {"5 d", five},
      {"\xc2\x85\xc2\xa0" "5d", five}, {"\xe1\x9a\x80" "5d", five}, {"\xe2\x80\x80" "5d", five},
      {"\xe2\x80\x8a" "5d", five}, {"\xe2\x80\xa8\xe2\x80\xa9" "5d", five},
      {"\xe2\x80\xaf\xe2\x81\x9f" "5d", five}, {"5\xe3\x80\x80" "d", five},
      {"\xe2\x80\x8b" "5d", std::nullopt}, {"\xe1\xbf\xbf" "5d", std::nullopt},
      {"\xc3\xa9" "5d", std::nullopt}, {"\xc2\x84" "5d", std::nullopt},
      {"\xf0\x9f\x98\x80" "5d", std::nullopt}, {"\xe2\x80" "5d", std::nullopt},
      {"", std::nullopt}, {"-1d", std::nullopt}, {"-99999999999999999999999d", std::nullopt},
      {"d", std::nullopt}, {"1", std::nullopt}, {"1x", std::nullopt}, {"3dd", std::nullopt},
      {"1md", std::nullopt}, {"1 dD", std::nullopt}, {"- 1d", std::nullopt}, {" ", std::nullopt},
      {"x1d", std::nullopt}, {"1.5d", std::nullopt}, {"\xff" "1d", std::nullopt},
  };
  // clang-format on
  ZBIAPDateTools& tools = ZBIAPDateTools::dateTools();
  for (const auto& [text, expected] : rows) {
    EXPECT_EQ(tools.componentsFromDurationString(text), expected) << "'" << text << "'";
  }
}

TEST(DateToolsRemainingTest, DaysUnderAMonthThenMonthsAndDays) {
  ScopedTimeZone zone("Europe/Berlin");
  ZBIAPDateTools tools;
  const struct {
    const char* from;
    const char* to;
    std::optional<DateComponents> expected;
  } rows[] = {
      {"2023-01-01T12:00:00+01:00", "2023-01-31T08:00:00+01:00", fields(30)},
      // 31 days or more: months and days by the calendar's arithmetic, so in a year without
      // 29 February the same span is 30 days; 31 January + 13 months is 29 February 2024.
      {"2024-01-30T10:00:00+01:00", "2024-03-01T10:00:00+01:00", fields(1, 1)},
      {"2023-01-30T10:00:00+01:00", "2023-03-01T10:00:00+01:00", fields(30)},
      {"2023-01-31T10:00:00+01:00", "2024-03-02T10:00:00+01:00", fields(2, 13)},
      // Counted between local midnights, whole across the change to summer time.
      {"2023-06-01T23:59:00+02:00", "2023-06-02T00:01:00+02:00", fields(1)},
      {"2023-03-20T00:00:00+01:00", "2023-04-10T00:00:00+02:00", fields(21)},
      {"2023-06-01T08:00:00+02:00", "2023-06-01T09:00:00+02:00", fields(0)},
      {"2023-06-01T08:00:00+02:00", "2023-06-01T08:00:00+02:00", std::nullopt},
      {"2023-06-03T08:00:00+02:00", "2023-06-01T08:00:00+02:00", std::nullopt},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(tools.componentsForRemainingDurationFrom(tools.dateFromRFC3339String(row.from),
                                                       tools.dateFromRFC3339String(row.to)),
              row.expected)
        << row.from << " to " << row.to;
  }
  EXPECT_EQ(tools.componentsForRemainingDurationFrom(std::nullopt, utc(kMarch5)), std::nullopt);
  EXPECT_EQ(tools.componentsForRemainingDurationFrom(utc(kMarch5), std::nullopt), std::nullopt);
}

TEST(DateToolsCalendarTest, MidnightIsThatOfTheGivenCalendar) {
  // The instance works in UTC; the calendar passed decides whose midnight it is.
  ScopedTimeZone zone("UTC");
  ZBIAPDateTools tools;
  const struct {
    const char* zone;
    Date date;
    const char* midnight;
  } rows[] = {
      {"UTC", utc(kMarch5), "2024-03-05T00:00:00Z"},
      // 10:20 UTC is 15:50 in Kolkata, on the same day, whose midnight is 18:30 UTC before.
      {"Asia/Kolkata", utc(kMarch5), "2024-03-04T18:30:00Z"},
      // 19:50 UTC is already 6 March in Kolkata, still 5 March in New York.
      {"Asia/Kolkata", utc(kMarch5 + 34170), "2024-03-05T18:30:00Z"},
      {"America/New_York", utc(kMarch5 + 34170), "2024-03-05T05:00:00Z"},
      {"America/New_York", utc(kMarch5 - 37230), "2024-03-04T05:00:00Z"},
      {"No/Such_Zone", utc(kMarch5 + 34170), "2024-03-05T00:00:00Z"},  // unknown: UTC
  };
  for (const auto& row : rows) {
    zbiap::Calendar calendar(row.zone);
    EXPECT_EQ(tools.dateAtMidnight(row.date, calendar), tools.dateFromRFC3339String(row.midnight))
        << row.zone << " " << row.date.description();
  }
  EXPECT_EQ(tools.dateAtMidnight(utc(kMarch5), tools.calendar()), utc(kMarch5 - 37230));
}

// Durations become dates read as fields, the lowest values filling the rest (year 1, not 1970):
// 12M is 1 December of year 1, 3d is 3 January; so they sort.
TEST(DateToolsCalendarTest, DateFromComponentsReadsFieldsFillingLowestValues) {
  ScopedTimeZone zone("UTC");
  ZBIAPDateTools tools;
  DateComponents full = fields(5, 3, std::nullopt, 2024);
  full.hour = 10;
  full.minute = 20;
  full.second = 30;
  EXPECT_EQ(tools.dateFromComponents(full), utc(kMarch5));
  auto dateOf = [&tools](const char* duration) {
    return tools.dateFromComponents(*tools.componentsFromDurationString(duration));
  };
  DateComponents first = fields(1, 1, std::nullopt, 1);
  first.era = 1;
  const auto start = tools.dateFromComponents(first);
  ASSERT_TRUE(start);
  EXPECT_EQ(tools.dateFromComponents({}), start);
  EXPECT_EQ(dateOf("1m"), start);
  EXPECT_EQ(*dateOf("3d") - *start, std::chrono::hours(48));
  EXPECT_LT(dateOf("0d"), start);
  EXPECT_LT(dateOf("2w"), dateOf("12M"));
  EXPECT_LT(dateOf("12M"), dateOf("2y"));
  // Fields beyond ICU's range, or a year ICU can compute but a Date cannot hold (found by
  // fuzzing), make no date.
  EXPECT_EQ(tools.dateFromComponents(fields(INT64_MAX)), std::nullopt);
  EXPECT_EQ(dateOf("99999999y"), std::nullopt);
  (void)tools.dateFromComponents(fields(std::nullopt, {}, {}, 2000000000));
}

TEST(DateToolsInstanceTest, OnePerThread) {
  ZBIAPDateTools* mine = &ZBIAPDateTools::dateTools();
  EXPECT_EQ(mine, &ZBIAPDateTools::threadLocalInstance());
  ZBIAPDateTools* theirs = nullptr;
  std::thread([&theirs] { theirs = &ZBIAPDateTools::dateTools(); }).join();
  EXPECT_NE(mine, theirs);
}

// The fast RFC 3339 reader must give exactly what ICU gives: many generated stamps of the shapes
// it takes, and near misses of them, read by both.
// A random stamp, mostly valid: fields sometimes run one past their range, the zone is "Z",
// "+HH:MM" or "+HHMM" with offsets up to 24 hours, and there may be five fraction digits.
std::string randomStamp(std::mt19937_64& rng) {
  auto pick = [&rng](int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng); };
  std::string text = fmt::format(
      "{:04}-{:02}-{:02}T{:02}:{:02}:{:02}", pick(1600, 9999), pick(1, 12 + (pick(0, 20) == 0)),
      pick(1, 31), pick(0, 23 + (pick(0, 20) == 0)), pick(0, 59), pick(0, 59 + (pick(0, 20) == 0)));
  if (pick(0, 1)) text += fmt::format(".{:05}", pick(0, 99999));
  const int zone = pick(0, 2);
  if (zone == 0) return text + "Z";
  return text + fmt::format(fmt::runtime(zone == 1 ? "{}{:02}:{:02}" : "{}{:02}{:02}"),
                            pick(0, 1) ? '+' : '-', pick(0, 24), pick(0, 59));
  return text;
}

void expectSameAsICU(ZBIAPDateTools& tools, const std::string& text) {
  const auto icu = tools.dateFromRFC3339StringWithICU(text);
  const auto fast = zbiap::parseRFC3339Fast(text);
  if (fast) {
    ASSERT_TRUE(icu) << "fast path took what ICU refuses: " << text;
    EXPECT_EQ(*fast, icu->microsSince1970()) << text;
  }
  EXPECT_EQ(tools.dateFromRFC3339String(text), icu) << text;
}

// Generated stamps in three zones, each also with one character changed, dropped or added.
TEST(RFC3339FastPathTest, AgreesWithICUOnGeneratedStampsAndNearMisses) {
  const std::string alphabet = "0123456789-+:.TZtz \x7f\xc3";
  for (const char* name : {"UTC", "Asia/Kolkata", "America/Sao_Paulo"}) {
    ScopedTimeZone zone(name);
    ZBIAPDateTools tools;
    std::mt19937_64 rng(20240305);
    int taken = 0;
    for (int i = 0; i < 10000 && !::testing::Test::HasFailure(); ++i) {
      std::string text = randomStamp(rng);
      expectSameAsICU(tools, text);
      if (zbiap::parseRFC3339Fast(text)) ++taken;
      const size_t at = rng() % text.size();
      const char c = alphabet[rng() % alphabet.size()];
      const uint64_t change = rng() % 3;
      if (change == 0) text[at] = c;
      if (change == 1) text.erase(at, 1);
      if (change == 2) text.insert(at, 1, c);
      expectSameAsICU(tools, text);
    }
    // Most generated stamps are of the common shapes and must not all fall back to ICU.
    EXPECT_GT(taken, 5000) << name;
  }
}

// Shapes at the edges of the fast reader's, and what no reader takes.
TEST(RFC3339FastPathTest, EdgesOfTheShapesAndWhatIsNoStamp) {
  ScopedTimeZone zone("UTC");
  ZBIAPDateTools tools;
  // The commonest shape is read without ICU.
  EXPECT_EQ(zbiap::parseRFC3339Fast("2024-03-05T10:20:30Z"), kMarch5 * 1000000);
  // clang-format off
  for (const char* text : {
           "1600-01-01T00:00:00Z", "1599-12-31T23:59:59Z", "9999-12-31T23:59:59.99999+18:00",
           "2024-03-05T10:20:30+14:00", "2024-03-05T10:20:30-12:00", "2024-03-05T10:20:30+18:59",
           "2024-03-05T10:20:30+19:00", "2024-03-05T10:20:30-00:00", "2024-03-05T10:20:30+0000",
           "2024-03-05T10:20:60Z", "2016-12-31T23:59:60Z", "2024-03-05T10:20:30.00000Z",
           "2024-03-05T10:20:30.99999Z", "2024-03-05T10:20:30.1234Z", "2024-03-05T10:20:30.123456Z",
           "2024-03-05T10:20:30z", "2024-03-05T10:20:30+01", "2024-03-05T10:20:30+01:00:00",
           "0999-03-05T10:20:30Z", "0001-01-01T00:00:00Z", "2024-03-05T10:20:30.Z",
           "2024-03-05T10:20:30+1:00", "2024-03-05T10:20:30+01:0"}) {
    expectSameAsICU(tools, text);
  }
  // clang-format on
  std::string fullwidth;  // digits ICU's number parser also reads
  for (int i = 0; i < 40; ++i) fullwidth += "\xef\xbc\x94";
  // clang-format off
  const std::string refused[] = {
      "", "garbage", "2024-03-05", "2024-03-05T10:20:30", "2024-03-05T10:20:30Z junk",
      "2024-03-05T10:20:30+01:00x", "2024-02-30T10:20:30Z", "2023-02-29T10:20:30Z",
      "1900-02-29T00:00:00Z", "2024-03-05T24:00:00Z", "2024-03-05T10:60:30Z",
      "2024-03-05T10:20:61Z", "2024-13-05T10:20:30Z", "2024-03-05T10:20:30+24:00",
      "2024-03-05 10:20:30Z", std::string("2024-03-05T10:20:30\0Z", 21),
      "2024-03-05T10:20:30\xff\xfe", "\xc3\x28\xa0\xa1\xe2\x28\xa1", std::string(100000, '9'),
      std::string(5000, '-'),
      // ICU divides by zero on a fraction of 35 digits or more; such runs never reach it.
      "2024-03-05T10:20:30." + std::string(40, '4') + "+00:00",
      "2024-03-05T10:20:30." + std::string(40, '4') + "Z", "2024-03-05T10:20:30." + fullwidth + "Z",
  };
  // clang-format on
  for (const std::string& text : refused) {
    expectSameAsICU(tools, text);
    EXPECT_EQ(tools.dateFromRFC3339StringWithICU(text), std::nullopt) << text.substr(0, 40);
  }
}

}  // namespace

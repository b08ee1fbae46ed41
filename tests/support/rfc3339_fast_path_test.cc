// The fast RFC 3339 reader must give exactly what ICU gives. These tests generate many stamps
// of the shapes it takes, and near misses of them, and compare the two readers.
#include "support/rfc3339_fast_path.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <random>
#include <string>

#include "tests/support/scoped_time_zone.h"
#include "zbiap/support/date_tools.h"

namespace {

using zbiap::testing::ScopedTimeZone;

// A random stamp, mostly valid: fields sometimes run one past their range, the zone is "Z",
// "+HH:MM" or "+HHMM" with offsets up to 24 hours, and there may be five fraction digits.
std::string randomStamp(std::mt19937_64& rng) {
  auto pick = [&rng](int lo, int hi) { return std::uniform_int_distribution<int>(lo, hi)(rng); };
  std::string text = fmt::format(
      "{:04}-{:02}-{:02}T{:02}:{:02}:{:02}", pick(1600, 9999), pick(1, 12 + (pick(0, 20) == 0)),
      pick(1, 31), pick(0, 23 + (pick(0, 20) == 0)), pick(0, 59), pick(0, 59 + (pick(0, 20) == 0)));
  if (pick(0, 1)) text += fmt::format(".{:05}", pick(0, 99999));
  switch (pick(0, 2)) {
    case 0:
      text += 'Z';
      break;
    case 1:
      text += fmt::format("{}{:02}:{:02}", pick(0, 1) ? '+' : '-', pick(0, 24), pick(0, 59));
      break;
    default:
      text += fmt::format("{}{:02}{:02}", pick(0, 1) ? '+' : '-', pick(0, 24), pick(0, 59));
      break;
  }
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
      switch (rng() % 3) {
        case 0:
          text[at] = c;
          break;
        case 1:
          text.erase(at, 1);
          break;
        default:
          text.insert(at, 1, c);
          break;
      }
      expectSameAsICU(tools, text);
    }
    // Most generated stamps are of the common shapes and must not all fall back to ICU.
    EXPECT_GT(taken, 5000) << name;
  }
}

TEST(RFC3339FastPathTest, EdgesOfTheShapes) {
  ZBIAPDateTools tools;
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
}

}  // namespace

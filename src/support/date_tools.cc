#include "zbiap/support/date_tools.h"

#include <fmt/format.h>
#include <unicode/gregocal.h>
#include <unicode/locid.h>
#include <unicode/parsepos.h>
#include <unicode/smpdtfmt.h>
#include <unicode/timezone.h>
#include <unicode/uchar.h>
#include <unicode/unistr.h>

#include <cmath>
#include <limits>
#include <vector>

#include "support/duration_string.h"
#include "support/rfc3339_fast_path.h"

namespace {

// The platforms this library was first written for used the "Z" zone pattern (and patched in
// the colon themselves) before system version 7.0. Every platform we build for formats
// "ZZZZZ" directly, and on Linux the system version is a kernel release that says nothing
// about the date library, so the modern patterns are always used.
constexpr char kRFC3339Pattern[] = "yyyy-MM-dd'T'HH:mm:ssZZZZZ";
constexpr char kRFC3339PatternWithFractions[] = "yyyy-MM-dd'T'HH:mm:ss.SSSSSZZZZZ";
constexpr char kPOSIXLocale[] = "en_US_POSIX";

// No time stamp is anywhere near this long; longer texts are refused before ICU sees them.
constexpr size_t kMaxRFC3339Length = 256;
// ICU's parser divides by a power of ten that overflows to zero when a fraction has 35 digits
// or more (a crash, not an error), so runs of digits longer than any field of a stamp are
// refused before ICU sees them. Its number parser takes every script's digits, so all count.
constexpr int kMaxDigitRun = 16;

bool hasLongDigitRun(const icu::UnicodeString& text) {
  int run = 0;
  for (int32_t i = 0; i < text.length();) {
    const UChar32 c = text.char32At(i);
    run = u_isdigit(c) ? run + 1 : 0;
    if (run > kMaxDigitRun) return true;
    i += U16_LENGTH(c);
  }
  return false;
}

std::unique_ptr<icu::SimpleDateFormat> makeFormatter(const char* pattern) {
  UErrorCode status = U_ZERO_ERROR;
  auto formatter = std::make_unique<icu::SimpleDateFormat>(icu::UnicodeString(pattern, -1, US_INV),
                                                           icu::Locale(kPOSIXLocale), status);
  if (U_FAILURE(status)) return nullptr;
  formatter->setLenient(false);
  return formatter;
}

UDate toUDate(const zbiap::Date& date) {
  return static_cast<UDate>(date.microsSince1970()) / 1000.0;
}

// ICU's dates are milliseconds in a double; whole milliseconds and the fraction are converted
// apart so that large dates keep every digit. Dates beyond what a Date holds (about 292,000
// years either side of 1970) give nullopt.
std::optional<zbiap::Date> fromUDate(UDate udate) {
  constexpr double kLimitMillis = 9.0e15;
  if (!std::isfinite(udate) || std::fabs(udate) > kLimitMillis) return std::nullopt;
  const double whole = std::floor(udate);
  const int64_t micros =
      static_cast<int64_t>(whole) * 1000 + std::llround((udate - whole) * 1000.0);
  return zbiap::Date::fromMicrosSince1970(micros);
}

// The text with a four-digit offset at its end ("+0130") given its colon ("+01:30"): the
// rewrite "([0-9]{2})([0-9]{2})$" -> "$1:$2", done by hand.
void addOffsetColon(std::string* text) {
  const size_t n = text->size();
  if (n < 4) return;
  for (size_t i = n - 4; i < n; ++i) {
    if ((*text)[i] < '0' || (*text)[i] > '9') return;
  }
  text->insert(n - 2, 1, ':');
}

// A Gregorian calendar with the POSIX locale in `zone` (adopted), or in the current default
// zone when that is null; null when ICU fails.
std::unique_ptr<icu::Calendar> makeCalendar(icu::TimeZone* zone) {
  UErrorCode status = U_ZERO_ERROR;
  std::unique_ptr<icu::Calendar> calendar =
      zone ? std::make_unique<icu::GregorianCalendar>(zone, icu::Locale(kPOSIXLocale), status)
           : std::make_unique<icu::GregorianCalendar>(icu::Locale(kPOSIXLocale), status);
  if (U_FAILURE(status)) calendar.reset();
  return calendar;
}

// Clamps a component into ICU's int32 field range; false when it does not fit.
bool toField(int64_t value, int32_t* out) {
  if (value < std::numeric_limits<int32_t>::min() || value > std::numeric_limits<int32_t>::max()) {
    return false;
  }
  *out = static_cast<int32_t>(value);
  return true;
}

}  // namespace

struct zbiap::Calendar::Impl {
  std::unique_ptr<icu::Calendar> calendar;  // null when ICU failed
};

zbiap::Calendar::Calendar() : impl_(std::make_unique<Impl>()) {
  impl_->calendar = makeCalendar(nullptr);
}

zbiap::Calendar::Calendar(std::string_view timeZone) : impl_(std::make_unique<Impl>()) {
  impl_->calendar = makeCalendar(icu::TimeZone::createTimeZone(icu::UnicodeString::fromUTF8(
      icu::StringPiece(timeZone.data(), static_cast<int32_t>(timeZone.size())))));
}

zbiap::Calendar::~Calendar() = default;

struct ZBIAPDateTools::Impl {
  zbiap::Calendar calendar;
  std::unique_ptr<icu::SimpleDateFormat> rfc3339;
  std::unique_ptr<icu::SimpleDateFormat> rfc3339WithFractions;

  // Parses all of `text` with `formatter`; nullopt unless every character was consumed.
  static std::optional<zbiap::Date> parseWhole(icu::SimpleDateFormat* formatter,
                                               const icu::UnicodeString& text) {
    if (formatter == nullptr) return std::nullopt;
    icu::ParsePosition position(0);
    UDate udate = formatter->parse(text, position);
    if (position.getErrorIndex() >= 0 || position.getIndex() != text.length()) {
      return std::nullopt;
    }
    return fromUDate(udate);
  }

  // The date of `components` read as fields in `calendar` (see dateFromComponents).
  static std::optional<zbiap::Date> dateFromFields(icu::Calendar* calendar,
                                                   const zbiap::DateComponents& components);
};

ZBIAPDateTools& ZBIAPDateTools::dateTools() {
  thread_local ZBIAPDateTools tools;
  return tools;
}

void ZBIAPDateTools::resetSystemTimeZone() {
  icu::TimeZone::adoptDefault(icu::TimeZone::detectHostTimeZone());
}

ZBIAPDateTools::ZBIAPDateTools() : impl_(std::make_unique<Impl>()) {
  impl_->rfc3339 = makeFormatter(kRFC3339Pattern);
  impl_->rfc3339WithFractions = makeFormatter(kRFC3339PatternWithFractions);
}

ZBIAPDateTools::~ZBIAPDateTools() = default;

std::string ZBIAPDateTools::rfc3339StringFromDate(const zbiap::Date& date) {
  if (impl_->rfc3339 == nullptr) return {};
  icu::UnicodeString text;
  impl_->rfc3339->format(toUDate(date), text);
  std::string result;
  text.toUTF8String(result);
  addOffsetColon(&result);
  return result;
}

std::optional<std::string> ZBIAPDateTools::rfc3339StringFromDate(
    const std::optional<zbiap::Date>& date) {
  if (!date) return std::nullopt;
  return rfc3339StringFromDate(*date);
}

std::optional<zbiap::Date> ZBIAPDateTools::dateFromRFC3339String(std::string_view text) {
  if (std::optional<int64_t> micros = zbiap::parseRFC3339Fast(text)) {
    return zbiap::Date::fromMicrosSince1970(*micros);
  }
  return dateFromRFC3339StringWithICU(text);
}

std::optional<zbiap::Date> ZBIAPDateTools::dateFromRFC3339StringWithICU(std::string_view text) {
  if (text.empty() || text.size() > kMaxRFC3339Length) return std::nullopt;
  const icu::UnicodeString utext = icu::UnicodeString::fromUTF8(
      icu::StringPiece(text.data(), static_cast<int32_t>(text.size())));
  if (hasLongDigitRun(utext)) return std::nullopt;
  if (auto date = Impl::parseWhole(impl_->rfc3339.get(), utext)) return date;
  return Impl::parseWhole(impl_->rfc3339WithFractions.get(), utext);
}

std::optional<zbiap::DateComponents> ZBIAPDateTools::componentsFromDurationString(
    std::string_view text) {
  return zbiap::parseDurationString(text);
}

std::optional<zbiap::DateComponents> ZBIAPDateTools::componentsForRemainingDurationFrom(
    const std::optional<zbiap::Date>& from, const std::optional<zbiap::Date>& to) {
  icu::Calendar* own = impl_->calendar.impl_->calendar.get();
  if (!from || !to || *from >= *to || own == nullptr) return std::nullopt;
  const UDate start = toUDate(dateAtMidnight(*from, impl_->calendar));
  const UDate end = toUDate(dateAtMidnight(*to, impl_->calendar));
  icu::Calendar& calendar = *own;
  UErrorCode status = U_ZERO_ERROR;
  calendar.setTime(start, status);
  const int32_t days = calendar.fieldDifference(end, UCAL_DATE, status);
  if (U_FAILURE(status)) return std::nullopt;
  zbiap::DateComponents components;
  if (days < 31) {
    components.day = days;
    return components;
  }
  calendar.setTime(start, status);
  const int32_t months = calendar.fieldDifference(end, UCAL_MONTH, status);
  const int32_t rest = calendar.fieldDifference(end, UCAL_DATE, status);
  if (U_FAILURE(status)) return std::nullopt;
  components.month = months;
  components.day = rest;
  return components;
}

zbiap::Date ZBIAPDateTools::dateAtMidnight(const zbiap::Date& date, zbiap::Calendar& in) {
  if (in.impl_->calendar == nullptr) return date;
  icu::Calendar& calendar = *in.impl_->calendar;
  UErrorCode status = U_ZERO_ERROR;
  calendar.setTime(toUDate(date), status);
  zbiap::DateComponents components;
  components.era = calendar.get(UCAL_ERA, status);
  components.year = calendar.get(UCAL_YEAR, status);
  components.month = calendar.get(UCAL_MONTH, status) + 1;
  components.day = calendar.get(UCAL_DATE, status);
  if (U_FAILURE(status)) return date;
  return Impl::dateFromFields(in.impl_->calendar.get(), components).value_or(date);
}

zbiap::Calendar& ZBIAPDateTools::calendar() { return impl_->calendar; }

std::optional<zbiap::Date> ZBIAPDateTools::dateFromComponents(
    const zbiap::DateComponents& components) {
  return Impl::dateFromFields(impl_->calendar.impl_->calendar.get(), components);
}

std::optional<zbiap::Date> ZBIAPDateTools::Impl::dateFromFields(
    icu::Calendar* in, const zbiap::DateComponents& components) {
  if (in == nullptr) return std::nullopt;
  icu::Calendar& calendar = *in;
  // Unset fields take their lowest values, not the epoch's that clear() leaves behind; the
  // given fields are then set in a fixed order, week of year last, so that ICU resolves the
  // day from the week when one is given.
  calendar.clear();
  calendar.set(UCAL_YEAR, 1);
  calendar.set(UCAL_MONTH, UCAL_JANUARY);
  calendar.set(UCAL_DATE, 1);
  calendar.set(UCAL_HOUR_OF_DAY, 0);
  calendar.set(UCAL_MINUTE, 0);
  calendar.set(UCAL_SECOND, 0);
  calendar.set(UCAL_MILLISECOND, 0);
  const std::pair<const std::optional<int64_t>&, UCalendarDateFields> fields[] = {
      {components.era, UCAL_ERA},          {components.year, UCAL_YEAR},
      {components.month, UCAL_MONTH},      {components.day, UCAL_DATE},
      {components.hour, UCAL_HOUR_OF_DAY}, {components.minute, UCAL_MINUTE},
      {components.second, UCAL_SECOND},    {components.weekOfYear, UCAL_WEEK_OF_YEAR},
  };
  for (const auto& [value, field] : fields) {
    if (!value) continue;
    int64_t v = *value;
    if (field == UCAL_MONTH) v -= 1;  // ICU counts months from 0
    int32_t field_value;
    if (!toField(v, &field_value)) return std::nullopt;
    calendar.set(field, field_value);
  }
  UErrorCode status = U_ZERO_ERROR;
  const UDate udate = calendar.getTime(status);
  if (U_FAILURE(status)) return std::nullopt;
  return fromUDate(udate);
}

namespace zbiap {

std::string DateComponents::description() const {
  std::string text = "{";
  auto add = [&text](const char* name, const std::optional<int64_t>& value) {
    if (!value) return;
    if (text.size() > 1) text += ' ';
    text += fmt::format("{}={}", name, *value);
  };
  add("era", era);
  add("year", year);
  add("month", month);
  add("day", day);
  add("hour", hour);
  add("minute", minute);
  add("second", second);
  add("weekOfYear", weekOfYear);
  text += '}';
  return text;
}

}  // namespace zbiap

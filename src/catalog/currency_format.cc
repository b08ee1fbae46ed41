#include "catalog/currency_format.h"

#include <unicode/fmtable.h>
#include <unicode/locid.h>
#include <unicode/numfmt.h>
#include <unicode/unistr.h>

#include <limits>
#include <memory>
#include <string>
#include <unordered_map>

namespace zbiap {
namespace {

// Building an ICU formatter costs far more than formatting with it, and a catalogue formats the
// prices of one or two locales over and over; ICU formatters are not thread-safe, so each thread
// keeps its own. The cache is bounded by the few locales a store uses; a flood of distinct ones
// empties it rather than growing without end.
icu::NumberFormat* formatterFor(const std::string& localeIdentifier) {
  constexpr size_t kMaxFormatters = 64;
  thread_local std::unordered_map<std::string, std::unique_ptr<icu::NumberFormat>> formatters;
  auto it = formatters.find(localeIdentifier);
  if (it != formatters.end()) return it->second.get();
  UErrorCode status = U_ZERO_ERROR;
  std::unique_ptr<icu::NumberFormat> formatter(icu::NumberFormat::createCurrencyInstance(
      icu::Locale::createCanonical(localeIdentifier.c_str()), status));
  if (U_FAILURE(status) || formatter == nullptr) return nullptr;
  if (formatters.size() >= kMaxFormatters) formatters.clear();
  return formatters.emplace(localeIdentifier, std::move(formatter)).first->second.get();
}

}  // namespace

std::optional<std::string> formatCurrency(const Decimal& amount,
                                          const std::string& localeIdentifier) {
  icu::NumberFormat* formatter = formatterFor(localeIdentifier);
  if (formatter == nullptr) return std::nullopt;
  UErrorCode status = U_ZERO_ERROR;
  icu::Formattable number;
  if (amount.isNaN()) {
    number.setDouble(std::numeric_limits<double>::quiet_NaN());
  } else {
    // The decimal's exact text, so no digit is lost on the way through a double.
    const std::string text = amount.toString();
    number.setDecimalNumber(icu::StringPiece(text.data(), static_cast<int32_t>(text.size())),
                            status);
    if (U_FAILURE(status)) return std::nullopt;
  }
  icu::UnicodeString formatted;
  formatter->format(number, formatted, status);
  if (U_FAILURE(status)) return std::nullopt;
  std::string result;
  formatted.toUTF8String(result);
  return result;
}

}  // namespace zbiap

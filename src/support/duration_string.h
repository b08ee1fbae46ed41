// Reading of the catalogue's duration strings: an unsigned count and one unit letter of
// "DdWwMmYy" ("1m", "12M", " 5 d"), as a scanner that skips blanks and line breaks reads them.
#ifndef ZBIAP_SUPPORT_DURATION_STRING_H_
#define ZBIAP_SUPPORT_DURATION_STRING_H_

#include <optional>
#include <string_view>

#include "zbiap/support/date_tools.h"

namespace zbiap {

// Day, weekOfYear, month or year set to the count; nullopt when `text` is not a duration.
// Whatever follows the unit letter is ignored. Any bytes are safe, valid UTF-8 or not.
std::optional<DateComponents> parseDurationString(std::string_view text);

}  // namespace zbiap

#endif  // ZBIAP_SUPPORT_DURATION_STRING_H_

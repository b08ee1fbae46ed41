#include "support/duration_string.h"

#include <cstdint>
#include <limits>

namespace zbiap {
namespace {

// Length in bytes of the blank or line break (Unicode White_Space) that starts `text`, or 0.
size_t whitespaceLength(std::string_view text) {
  if (text.empty()) return 0;
  const auto b0 = static_cast<unsigned char>(text[0]);
  if (b0 == ' ' || (b0 >= 0x09 && b0 <= 0x0D)) return 1;
  if (b0 < 0x80) return 0;
  // Decode one UTF-8 sequence of two or three bytes; anything else is not a blank.
  uint32_t cp;
  size_t len;
  if ((b0 & 0xE0) == 0xC0 && text.size() >= 2) {
    cp = b0 & 0x1F;
    len = 2;
  } else if ((b0 & 0xF0) == 0xE0 && text.size() >= 3) {
    cp = b0 & 0x0F;
    len = 3;
  } else {
    return 0;
  }
  for (size_t i = 1; i < len; ++i) {
    const auto b = static_cast<unsigned char>(text[i]);
    if ((b & 0xC0) != 0x80) return 0;
    cp = (cp << 6) | (b & 0x3F);
  }
  const bool blank = cp == 0x85 || cp == 0xA0 || cp == 0x1680 || (cp >= 0x2000 && cp <= 0x200A) ||
                     cp == 0x2028 || cp == 0x2029 || cp == 0x202F || cp == 0x205F || cp == 0x3000;
  return blank ? len : 0;
}

void skipWhitespace(std::string_view* text) {
  while (size_t n = whitespaceLength(*text)) text->remove_prefix(n);
}

bool isUnitLetter(char c) {
  switch (c) {
    case 'D':
    case 'd':
    case 'W':
    case 'w':
    case 'M':
    case 'm':
    case 'Y':
    case 'y':
      return true;
    default:
      return false;
  }
}

}  // namespace

std::optional<DateComponents> parseDurationString(std::string_view text) {
  if (text.empty()) return std::nullopt;

  // A signed integer; on overflow it saturates, as the platform's scanner does.
  skipWhitespace(&text);
  bool negative = false;
  if (!text.empty() && (text[0] == '+' || text[0] == '-')) {
    negative = text[0] == '-';
    text.remove_prefix(1);
  }
  if (text.empty() || text[0] < '0' || text[0] > '9') return std::nullopt;
  int64_t count = 0;
  bool overflow = false;
  while (!text.empty() && text[0] >= '0' && text[0] <= '9') {
    const int digit = text[0] - '0';
    if (count > (std::numeric_limits<int64_t>::max() - digit) / 10) overflow = true;
    if (!overflow) count = count * 10 + digit;
    text.remove_prefix(1);
  }
  if (overflow) count = std::numeric_limits<int64_t>::max();
  if (negative && count != 0) return std::nullopt;

  // Exactly one unit letter.
  skipWhitespace(&text);
  size_t run = 0;
  while (run < text.size() && isUnitLetter(text[run])) ++run;
  if (run != 1) return std::nullopt;

  DateComponents components;
  switch (text[0]) {
    case 'D':
    case 'd':
      components.day = count;
      break;
    case 'W':
    case 'w':
      components.weekOfYear = count;
      break;
    case 'M':
    case 'm':
      components.month = count;
      break;
    default:
      components.year = count;
      break;
  }
  return components;
}

}  // namespace zbiap

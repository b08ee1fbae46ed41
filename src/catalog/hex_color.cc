#include "catalog/hex_color.h"

#include <cstdint>
#include <cstdlib>

namespace zbiap {
namespace {

// A colour text has at most 7 UTF-16 code units; anything longer is rejected before decoding.
constexpr size_t kMaxUnits = 7;

// Appends the UTF-16 code units of `text` (UTF-8) to `units`, up to one past kMaxUnits. A byte
// that starts no valid sequence counts as one unit of its own, so any bytes have a length.
// Returns the number of units; more than kMaxUnits means the text is too long.
size_t utf16Units(std::string_view text, uint16_t (&units)[kMaxUnits + 2]) {
  size_t count = 0;
  size_t i = 0;
  while (i < text.size() && count <= kMaxUnits) {
    const auto c = static_cast<unsigned char>(text[i]);
    if (c < 0x80) {
      units[count++] = c;
      ++i;
      continue;
    }
    const size_t length = (c >> 5) == 0x6 ? 2 : (c >> 4) == 0xE ? 3 : (c >> 3) == 0x1E ? 4 : 0;
    uint32_t cp = c & (0x7F >> length);
    bool valid = length != 0 && i + length <= text.size();
    for (size_t k = 1; valid && k < length; ++k) {
      const auto next = static_cast<unsigned char>(text[i + k]);
      valid = (next & 0xC0) == 0x80;
      cp = (cp << 6) | (next & 0x3F);
    }
    if (!valid) {
      units[count++] = 0xFFFD;
      ++i;
    } else if (cp >= 0x10000) {
      cp -= 0x10000;
      units[count++] = static_cast<uint16_t>(0xD800 + (cp >> 10));
      units[count++] = static_cast<uint16_t>(0xDC00 + (cp & 0x3FF));
      i += length;
    } else {
      units[count++] = static_cast<uint16_t>(cp);
      i += length;
    }
  }
  return count;
}

int hexDigit(uint16_t unit) {
  if (unit >= '0' && unit <= '9') return unit - '0';
  if (unit >= 'a' && unit <= 'f') return unit - 'a' + 10;
  if (unit >= 'A' && unit <= 'F') return unit - 'A' + 10;
  return -1;
}

// strtoul(text, &end, 16) over `count` units; `whole` tells whether the conversion stopped at the
// end of the C text. Plain hex digits are read directly (the same result); anything else goes
// through strtoul itself, so blanks, signs and "0x" behave exactly as the C library has them. A
// unit beyond ASCII cannot be part of a number and stops the conversion there.
unsigned long convertHex(const uint16_t* units, size_t count, bool* whole) {
  unsigned long value = 0;
  size_t digits = 0;
  while (digits < count && hexDigit(units[digits]) >= 0) {
    value = value * 16 + static_cast<unsigned long>(hexDigit(units[digits]));
    ++digits;
  }
  if (digits == count) {
    *whole = true;
    return value;
  }
  char buffer[3] = {0, 0, 0};
  size_t n = 0;
  for (; n < count && units[n] < 0x80; ++n) buffer[n] = static_cast<char>(units[n]);
  // A non-ASCII unit: the text goes on with bytes no conversion consumes.
  const bool foreignTail = n < count;
  char* end = nullptr;
  value = std::strtoul(buffer, &end, 16);
  *whole = *end == '\0' && !(foreignTail && end == buffer + n);
  return value;
}

}  // namespace

std::optional<ZBIAPColor> colorFromHexString(std::string_view text) {
  uint16_t all[kMaxUnits + 2];
  const size_t length = utf16Units(text, all);
  const bool hash = !text.empty() && text[0] == '#';
  if (hash ? (length != 4 && length != 7) : (length != 3 && length != 6)) return std::nullopt;
  uint16_t digits[kMaxUnits];
  size_t count = 0;
  for (size_t i = 0; i < length; ++i) {
    if (all[i] != '#') digits[count++] = all[i];
  }
  double rgb[3];
  bool whole = false;
  if (count == 6) {
    for (int i = 0; i < 3; ++i) {
      rgb[i] = static_cast<double>(convertHex(&digits[2 * i], 2, &whole));
      if (!whole) return std::nullopt;
    }
  } else if (count == 3) {
    for (int i = 0; i < 3; ++i) {
      rgb[i] = static_cast<double>(convertHex(&digits[i], 1, &whole)) * 17;
      if (i == 0 && !whole) return std::nullopt;
    }
  } else {
    return std::nullopt;
  }
  return ZBIAPColor::fromRGBA(rgb[0] / 255.0, rgb[1] / 255.0, rgb[2] / 255.0, 1.0);
}

}  // namespace zbiap

#include "catalog/hex_color.h"

#include <cstdint>
#include <cstdlib>
#include <vector>

namespace zbiap {
namespace {

// The UTF-16 code units of `text` (UTF-8). A byte that starts no valid sequence counts as one
// unit of its own, so the result is defined for any bytes.
std::vector<uint16_t> utf16Units(std::string_view text) {
  std::vector<uint16_t> units;
  units.reserve(text.size());
  size_t i = 0;
  while (i < text.size()) {
    const auto c = static_cast<unsigned char>(text[i]);
    size_t length = c < 0x80           ? 1
                    : (c >> 5) == 0x6  ? 2
                    : (c >> 4) == 0xE  ? 3
                    : (c >> 3) == 0x1E ? 4
                                       : 0;
    if (length == 0 || i + length > text.size()) {
      units.push_back(0xFFFD);
      ++i;
      continue;
    }
    uint32_t cp = length == 1 ? c : c & (0x7F >> length);
    bool valid = true;
    for (size_t k = 1; k < length; ++k) {
      const auto next = static_cast<unsigned char>(text[i + k]);
      if ((next & 0xC0) != 0x80) valid = false;
      cp = (cp << 6) | (next & 0x3F);
    }
    if (!valid) {
      units.push_back(0xFFFD);
      ++i;
      continue;
    }
    if (cp >= 0x10000) {
      cp -= 0x10000;
      units.push_back(static_cast<uint16_t>(0xD800 + (cp >> 10)));
      units.push_back(static_cast<uint16_t>(0xDC00 + (cp & 0x3FF)));
    } else {
      units.push_back(static_cast<uint16_t>(cp));
    }
    i += length;
  }
  return units;
}

// strtoul(text, &end, 16) over the given units; `whole` tells whether the conversion stopped at
// the end of the C text. A unit beyond ASCII cannot be part of a number, and stops it there.
unsigned long convertHex(const uint16_t* units, size_t count, bool* whole) {
  char buffer[3] = {0, 0, 0};
  size_t n = 0;
  for (; n < count; ++n) {
    if (units[n] >= 0x80) break;
    buffer[n] = static_cast<char>(units[n]);
  }
  // A non-ASCII unit: the text goes on with bytes no conversion consumes.
  const bool foreignTail = n < count;
  char* end = nullptr;
  const unsigned long value = std::strtoul(buffer, &end, 16);
  *whole = *end == '\0' && !(foreignTail && end == buffer + n);
  return value;
}

}  // namespace

std::optional<ZBIAPColor> colorFromHexString(std::string_view text) {
  const std::vector<uint16_t> all = utf16Units(text);
  const bool hash = !text.empty() && text[0] == '#';
  if (hash ? (all.size() != 4 && all.size() != 7) : (all.size() != 3 && all.size() != 6)) {
    return std::nullopt;
  }
  std::vector<uint16_t> digits;
  digits.reserve(all.size());
  for (uint16_t unit : all) {
    if (unit != '#') digits.push_back(unit);
  }
  double rgb[3];
  bool whole = false;
  if (digits.size() == 6) {
    for (int i = 0; i < 3; ++i) {
      rgb[i] = static_cast<double>(convertHex(&digits[2 * i], 2, &whole));
      if (!whole) return std::nullopt;
    }
  } else if (digits.size() == 3) {
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

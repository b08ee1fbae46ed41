#include "foundation/base64.h"

namespace zbiap::internal {

void appendBase64(std::span<const uint8_t> bytes, std::string* out) {
  static constexpr char kAlphabet[] =
      "ABCDEFGHIJKLMNOPQRSTUVWXYZabcdefghijklmnopqrstuvwxyz0123456789+/";
  out->reserve(out->size() + (bytes.size() + 2) / 3 * 4);
  size_t i = 0;
  for (; i + 3 <= bytes.size(); i += 3) {
    const uint32_t n = (uint32_t{bytes[i]} << 16) | (uint32_t{bytes[i + 1]} << 8) | bytes[i + 2];
    out->push_back(kAlphabet[n >> 18]);
    out->push_back(kAlphabet[(n >> 12) & 63]);
    out->push_back(kAlphabet[(n >> 6) & 63]);
    out->push_back(kAlphabet[n & 63]);
  }
  const size_t rest = bytes.size() - i;
  if (rest == 0) return;
  uint32_t n = uint32_t{bytes[i]} << 16;
  if (rest == 2) n |= uint32_t{bytes[i + 1]} << 8;
  out->push_back(kAlphabet[n >> 18]);
  out->push_back(kAlphabet[(n >> 12) & 63]);
  out->push_back(rest == 2 ? kAlphabet[(n >> 6) & 63] : '=');
  out->push_back('=');
}

}  // namespace zbiap::internal

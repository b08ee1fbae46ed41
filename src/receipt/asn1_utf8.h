// Text checks of the ASN.1 parser: strict UTF-8 (no overlong forms, surrogates or code
// points above U+10FFFF) and 7-bit ASCII. Both scan eight bytes at a time while the text is
// ASCII.
#ifndef ZBIAP_RECEIPT_ASN1_UTF8_H_
#define ZBIAP_RECEIPT_ASN1_UTF8_H_

#include <cstddef>
#include <cstdint>
#include <cstring>

namespace zbiap {

inline bool isASCII(const uint8_t* p, size_t n) {
  size_t i = 0;
  for (; i + 8 <= n; i += 8) {
    uint64_t w;
    std::memcpy(&w, p + i, 8);
    if (w & 0x8080808080808080ull) return false;
  }
  for (; i < n; ++i) {
    if (p[i] & 0x80) return false;
  }
  return true;
}

inline bool isValidUTF8(const uint8_t* p, size_t n) {
  size_t i = 0;
  while (i < n) {
    if (i + 8 <= n) {
      uint64_t w;
      std::memcpy(&w, p + i, 8);
      if ((w & 0x8080808080808080ull) == 0) {
        i += 8;
        continue;
      }
    }
    uint8_t b = p[i];
    if (b < 0x80) {
      ++i;
      continue;
    }
    size_t len;
    uint32_t cp;
    if (b >= 0xC2 && b <= 0xDF) {
      len = 2;
      cp = b & 0x1F;
    } else if (b >= 0xE0 && b <= 0xEF) {
      len = 3;
      cp = b & 0x0F;
    } else if (b >= 0xF0 && b <= 0xF4) {
      len = 4;
      cp = b & 0x07;
    } else {
      return false;
    }
    if (n - i < len) return false;
    for (size_t k = 1; k < len; ++k) {
      if ((p[i + k] & 0xC0) != 0x80) return false;
      cp = (cp << 6) | (p[i + k] & 0x3F);
    }
    if ((len == 3 && (cp < 0x800 || (cp >= 0xD800 && cp <= 0xDFFF))) ||
        (len == 4 && (cp < 0x10000 || cp > 0x10FFFF))) {
      return false;
    }
    i += len;
  }
  return true;
}

}  // namespace zbiap

#endif  // ZBIAP_RECEIPT_ASN1_UTF8_H_

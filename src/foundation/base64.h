// Base64 (RFC 4648, with padding) for writing data values as text.
#ifndef ZBIAP_SRC_FOUNDATION_BASE64_H_
#define ZBIAP_SRC_FOUNDATION_BASE64_H_

#include <cstdint>
#include <span>
#include <string>

namespace zbiap::internal {

void appendBase64(std::span<const uint8_t> bytes, std::string* out);

}  // namespace zbiap::internal

#endif  // ZBIAP_SRC_FOUNDATION_BASE64_H_

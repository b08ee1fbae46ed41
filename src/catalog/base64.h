// Base64 of RFC 4648 (standard alphabet, padded), with the strict reading of Foundation's
// decoder given no options: any character outside the alphabet (white space and line breaks
// included), missing padding, or text after the padding makes the whole text invalid.
#ifndef ZBIAP_SRC_CATALOG_BASE64_H_
#define ZBIAP_SRC_CATALOG_BASE64_H_

#include <cstdint>
#include <optional>
#include <span>
#include <string>
#include <string_view>
#include <vector>

namespace zbiap {

std::string base64Encode(std::span<const uint8_t> bytes);
inline std::string base64Encode(std::string_view bytes) {
  return base64Encode(std::span(reinterpret_cast<const uint8_t*>(bytes.data()), bytes.size()));
}

// The bytes, or nullopt when the text is not valid base64. The empty text gives no bytes.
std::optional<std::vector<uint8_t>> base64DecodeStrict(std::string_view text);

}  // namespace zbiap

#endif  // ZBIAP_SRC_CATALOG_BASE64_H_

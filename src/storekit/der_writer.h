// A small DER encoder for the receipt writer: definite lengths, the universal types a receipt
// needs (INTEGER, UTF8String, IA5String, OCTET STRING, SEQUENCE, SET) and a rewrite of the
// outer constructed layers of an encoding into the indefinite-length form of BER.
#ifndef ZBIAP_STOREKIT_DER_WRITER_H_
#define ZBIAP_STOREKIT_DER_WRITER_H_

#include <cstdint>
#include <optional>
#include <string_view>

#include "zbiap/foundation/value.h"

namespace zbiap::der {

inline constexpr uint8_t kInteger = 0x02;
inline constexpr uint8_t kOctetString = 0x04;
inline constexpr uint8_t kUTF8String = 0x0C;
inline constexpr uint8_t kIA5String = 0x16;
inline constexpr uint8_t kSequence = 0x30;
inline constexpr uint8_t kSet = 0x31;

// Appends identifier octet `tag`, the length of `size` and nothing else.
void appendHeader(Data* out, uint8_t tag, size_t size);
// Appends a whole element with the given contents.
void appendElement(Data* out, uint8_t tag, const uint8_t* content, size_t size);
inline void appendElement(Data* out, uint8_t tag, const Data& content) {
  appendElement(out, tag, content.data(), content.size());
}
inline void appendString(Data* out, uint8_t tag, std::string_view text) {
  appendElement(out, tag, reinterpret_cast<const uint8_t*>(text.data()), text.size());
}
// The shortest two's-complement INTEGER of `value`.
void appendInteger(Data* out, int64_t value);

// The same encoding with every constructed element of the first `levels` levels written with
// the indefinite length and closed by an end-of-contents marker; primitive elements (the
// content OCTET STRING among them) stay as they are. The input must be valid DER; nullopt
// when it is not.
std::optional<Data> withIndefiniteOuterLayers(const Data& der, int levels);

}  // namespace zbiap::der

#endif  // ZBIAP_STOREKIT_DER_WRITER_H_

#include "storekit/der_writer.h"

namespace zbiap::der {

void appendHeader(Data* out, uint8_t tag, size_t size) {
  out->push_back(tag);
  if (size < 0x80) {
    out->push_back(static_cast<uint8_t>(size));
    return;
  }
  int octets = 0;
  for (size_t s = size; s != 0; s >>= 8) ++octets;
  out->push_back(static_cast<uint8_t>(0x80 | octets));
  for (int i = octets - 1; i >= 0; --i) out->push_back(static_cast<uint8_t>(size >> (8 * i)));
}

void appendElement(Data* out, uint8_t tag, const uint8_t* content, size_t size) {
  appendHeader(out, tag, size);
  out->insert(out->end(), content, content + size);
}

void appendInteger(Data* out, int64_t value) {
  uint8_t bytes[8];
  for (int i = 0; i < 8; ++i)
    bytes[i] = static_cast<uint8_t>(static_cast<uint64_t>(value) >> (56 - 8 * i));
  int start = 0;
  // Drop leading octets that only repeat the sign.
  while (start < 7 && ((bytes[start] == 0x00 && !(bytes[start + 1] & 0x80)) ||
                       (bytes[start] == 0xFF && (bytes[start + 1] & 0x80)))) {
    ++start;
  }
  appendElement(out, kInteger, bytes + start, static_cast<size_t>(8 - start));
}

namespace {

// Reads one DER header at `pos`; false when it is not a definite-length header that fits.
bool readHeader(const Data& der, size_t pos, size_t end, size_t* headerSize, size_t* length) {
  if (end - pos < 2 || (der[pos] & 0x1F) == 0x1F) return false;
  uint8_t first = der[pos + 1];
  size_t n = 2;
  size_t len = first;
  if (first & 0x80) {
    size_t octets = first & 0x7F;
    if (octets == 0 || octets > 4 || end - pos - 2 < octets) return false;
    len = 0;
    for (size_t i = 0; i < octets; ++i) len = (len << 8) | der[pos + 2 + i];
    n += octets;
  }
  if (len > end - pos - n) return false;
  *headerSize = n;
  *length = len;
  return true;
}

bool rewrite(const Data& der, size_t pos, size_t end, int levels, Data* out) {
  while (pos < end) {
    size_t headerSize, length;
    if (!readHeader(der, pos, end, &headerSize, &length)) return false;
    size_t contentAt = pos + headerSize;
    if (levels > 0 && (der[pos] & 0x20)) {
      out->push_back(der[pos]);
      out->push_back(0x80);
      if (!rewrite(der, contentAt, contentAt + length, levels - 1, out)) return false;
      out->push_back(0x00);
      out->push_back(0x00);
    } else {
      out->insert(out->end(), der.begin() + static_cast<ptrdiff_t>(pos),
                  der.begin() + static_cast<ptrdiff_t>(contentAt + length));
    }
    pos = contentAt + length;
  }
  return true;
}

}  // namespace

std::optional<Data> withIndefiniteOuterLayers(const Data& der, int levels) {
  Data out;
  out.reserve(der.size() + 64);
  if (!rewrite(der, 0, der.size(), levels, &out)) return std::nullopt;
  return out;
}

}  // namespace zbiap::der

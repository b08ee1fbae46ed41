// toJSON: a compact writer.
#include <simdjson.h>

#include <charconv>
#include <cmath>

#include "foundation/base64.h"
#include "zbiap/foundation/json.h"

namespace zbiap {

namespace {

// Replaces each malformed UTF-8 sequence with U+FFFD so that the output is always valid JSON.
std::string repairUTF8(std::string_view s) {
  std::string out;
  out.reserve(s.size() + 8);
  size_t i = 0;
  while (i < s.size()) {
    const unsigned char c = static_cast<unsigned char>(s[i]);
    size_t len = c < 0x80           ? 1
                 : (c >> 5) == 0x6  ? 2
                 : (c >> 4) == 0xe  ? 3
                 : (c >> 3) == 0x1e ? 4
                                    : 0;
    if (len > 1 && (i + len > s.size() || !simdjson::validate_utf8(s.data() + i, len))) len = 0;
    if (len == 0) {
      out += "\xef\xbf\xbd";
      ++i;
      continue;
    }
    out.append(s.substr(i, len));
    i += len;
  }
  return out;
}

void appendString(std::string_view s, std::string* out) {
  if (!simdjson::validate_utf8(s.data(), s.size())) {
    const std::string repaired = repairUTF8(s);
    appendString(repaired, out);
    return;
  }
  static constexpr char kHex[] = "0123456789abcdef";
  out->push_back('"');
  size_t plainStart = 0;
  for (size_t i = 0; i < s.size(); ++i) {
    const unsigned char c = static_cast<unsigned char>(s[i]);
    if (c >= 0x20 && c != '"' && c != '\\') continue;
    out->append(s.data() + plainStart, i - plainStart);
    plainStart = i + 1;
    switch (c) {
      case '"':
        *out += "\\\"";
        break;
      case '\\':
        *out += "\\\\";
        break;
      case '\n':
        *out += "\\n";
        break;
      case '\r':
        *out += "\\r";
        break;
      case '\t':
        *out += "\\t";
        break;
      case '\b':
        *out += "\\b";
        break;
      case '\f':
        *out += "\\f";
        break;
      default:
        *out += "\\u00";
        out->push_back(kHex[c >> 4]);
        out->push_back(kHex[c & 15]);
    }
  }
  out->append(s.data() + plainStart, s.size() - plainStart);
  out->push_back('"');
}

void write(const Value& v, std::string* out) {
  switch (v.type()) {
    case Value::Type::kNil:
    case Value::Type::kNull:
      *out += "null";
      return;
    case Value::Type::kBoolean:
      *out += *v.boolValue() ? "true" : "false";
      return;
    case Value::Type::kInteger: {
      char buf[24];
      const auto r = std::to_chars(buf, buf + sizeof buf, *v.int64Value());
      out->append(buf, r.ptr);
      return;
    }
    case Value::Type::kReal: {
      const double d = *v.doubleValue();
      if (!std::isfinite(d)) {
        *out += "null";
        return;
      }
      char buf[32];
      const auto r = std::to_chars(buf, buf + sizeof buf, d);
      out->append(buf, r.ptr);
      return;
    }
    case Value::Type::kDecimal: {
      const Decimal d = *v.decimalValue();
      *out += d.isNaN() ? "null" : d.toString();
      return;
    }
    case Value::Type::kString:
      appendString(*v.asString(), out);
      return;
    case Value::Type::kDate:
      appendString(v.asDate()->description(), out);
      return;
    case Value::Type::kData:
      out->push_back('"');
      internal::appendBase64(*v.asData(), out);
      out->push_back('"');
      return;
    case Value::Type::kArray: {
      out->push_back('[');
      bool first = true;
      for (const Value& e : *v.asArray()) {
        if (!first) out->push_back(',');
        first = false;
        write(e, out);
      }
      out->push_back(']');
      return;
    }
    case Value::Type::kDictionary: {
      out->push_back('{');
      bool first = true;
      for (const auto& [key, value] : *v.asDictionary()) {
        if (!first) out->push_back(',');
        first = false;
        appendString(key, out);
        out->push_back(':');
        write(value, out);
      }
      out->push_back('}');
      return;
    }
  }
}

}  // namespace

std::string toJSON(const Value& value) {
  std::string out;
  write(value, &out);
  return out;
}

}  // namespace zbiap

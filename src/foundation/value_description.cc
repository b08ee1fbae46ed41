// Value::description(): Foundation's old-style property list text.
#include <algorithm>
#include <cstdio>

#include "foundation/number.h"
#include "zbiap/foundation/value.h"

namespace zbiap {

namespace {

// Inside collections Foundation quotes every element text that is not made of ASCII letters,
// digits and underscores only: "com.example.app", "2.5", "-1" and "<null>" come out quoted.
bool isPlainChar(unsigned char c) {
  return (c >= 'A' && c <= 'Z') || (c >= 'a' && c <= 'z') || (c >= '0' && c <= '9') || c == '_';
}

// Decodes one UTF-8 sequence at s[i] into a code point, advancing i; malformed bytes come out
// as themselves.
uint32_t nextCodePoint(const std::string& s, size_t* i) {
  const auto byte = [&](size_t k) { return static_cast<unsigned char>(s[k]); };
  const unsigned char c = byte(*i);
  int extra = c >= 0xf0 ? 3 : c >= 0xe0 ? 2 : c >= 0xc0 ? 1 : 0;
  if (extra == 0 || *i + static_cast<size_t>(extra) >= s.size()) {
    ++*i;
    return c;
  }
  uint32_t cp = c & (0x3f >> extra);
  for (int k = 1; k <= extra; ++k) {
    const unsigned char cc = byte(*i + static_cast<size_t>(k));
    if ((cc & 0xc0) != 0x80) {
      ++*i;
      return c;
    }
    cp = (cp << 6) | (cc & 0x3f);
  }
  *i += static_cast<size_t>(extra) + 1;
  return cp;
}

void appendQuoted(const std::string& s, std::string* out) {
  const bool plain = !s.empty() && std::all_of(s.begin(), s.end(), [](char c) {
    return isPlainChar(static_cast<unsigned char>(c));
  });
  if (plain) {
    *out += s;
    return;
  }
  out->push_back('"');
  char buf[16];
  for (size_t i = 0; i < s.size();) {
    const unsigned char c = static_cast<unsigned char>(s[i]);
    if (c < 0x80) {
      ++i;
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
        case '\t':
          *out += "\\t";
          break;
        case '\r':
          *out += "\\r";
          break;
        default:
          if (c < 0x20 || c == 0x7f) {
            std::snprintf(buf, sizeof buf, "\\U%04x", c);
            *out += buf;
          } else {
            out->push_back(static_cast<char>(c));
          }
      }
      continue;
    }
    // Non-ASCII characters appear as \Uxxxx UTF-16 units, as in Foundation's property lists.
    uint32_t cp = nextCodePoint(s, &i);
    if (cp >= 0x10000) {
      cp -= 0x10000;
      std::snprintf(buf, sizeof buf, "\\U%04x\\U%04x", 0xd800 + (cp >> 10), 0xdc00 + (cp & 0x3ff));
    } else {
      std::snprintf(buf, sizeof buf, "\\U%04x", cp);
    }
    *out += buf;
  }
  out->push_back('"');
}

void appendIndent(int level, std::string* out) { out->append(static_cast<size_t>(level) * 4, ' '); }

void describe(const Value& v, int level, bool nested, std::string* out) {
  switch (v.type()) {
    case Value::Type::kNil:
      *out += "(null)";
      return;
    case Value::Type::kNull:
      if (nested) {
        appendQuoted("<null>", out);
      } else {
        *out += "<null>";
      }
      return;
    case Value::Type::kBoolean:
    case Value::Type::kInteger:
    case Value::Type::kReal:
    case Value::Type::kDecimal:
      if (nested) {
        appendQuoted(*v.numberStringValue(), out);
      } else {
        *out += *v.numberStringValue();
      }
      return;
    case Value::Type::kString:
      if (nested) {
        appendQuoted(*v.asString(), out);
      } else {
        *out += *v.asString();
      }
      return;
    case Value::Type::kDate:
      if (nested) {
        appendQuoted(v.asDate()->description(), out);
      } else {
        *out += v.asDate()->description();
      }
      return;
    case Value::Type::kData: {
      // <0011aabb ccdd>: hex in groups of four bytes.
      static constexpr char kHex[] = "0123456789abcdef";
      out->push_back('<');
      const Data& d = *v.asData();
      for (size_t i = 0; i < d.size(); ++i) {
        if (i > 0 && i % 4 == 0) out->push_back(' ');
        out->push_back(kHex[d[i] >> 4]);
        out->push_back(kHex[d[i] & 15]);
      }
      out->push_back('>');
      return;
    }
    case Value::Type::kArray: {
      *out += "(\n";
      const Array& a = *v.asArray();
      for (size_t i = 0; i < a.size(); ++i) {
        appendIndent(level + 1, out);
        describe(a[i], level + 1, true, out);
        if (i + 1 < a.size()) out->push_back(',');
        out->push_back('\n');
      }
      appendIndent(level, out);
      out->push_back(')');
      return;
    }
    case Value::Type::kDictionary: {
      // Keys in ascending order, as NSDictionary lists string keys.
      const Dictionary& d = *v.asDictionary();
      std::vector<const Dictionary::Entry*> entries;
      entries.reserve(d.size());
      for (const auto& e : d) entries.push_back(&e);
      std::sort(entries.begin(), entries.end(),
                [](const auto* x, const auto* y) { return x->first < y->first; });
      *out += "{\n";
      for (const auto* e : entries) {
        appendIndent(level + 1, out);
        appendQuoted(e->first, out);
        *out += " = ";
        describe(e->second, level + 1, true, out);
        *out += ";\n";
      }
      appendIndent(level, out);
      out->push_back('}');
      return;
    }
  }
}

}  // namespace

std::string Value::description() const {
  std::string out;
  describe(*this, 0, false, &out);
  return out;
}

}  // namespace zbiap

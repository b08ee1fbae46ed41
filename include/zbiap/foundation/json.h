// JSON reading into zbiap::Value and writing from it.
//
// Reading is strict RFC 8259 (UTF-8 checked, no trailing commas or comments, one top-level
// value with only white space around it) and never throws: bad input gives nullopt and, when
// `error` is given, a one-line reason. Nesting deeper than kMaxJSONDepth is an error.
// Numbers become integers when they are integral and fit 64 bits, else reals; as NSNumber
// they compare by value. Writing produces compact JSON; dates are written as their
// description text, data as base64, not-a-number decimals as null.
#ifndef ZBIAP_FOUNDATION_JSON_H_
#define ZBIAP_FOUNDATION_JSON_H_

#include <optional>
#include <string>
#include <string_view>

#include "zbiap/export.h"
#include "zbiap/foundation/value.h"

namespace zbiap {

inline constexpr size_t kMaxJSONDepth = 512;

ZBIAP_EXPORT std::optional<Value> parseJSON(std::string_view text, std::string* error = nullptr);
// As parseJSON, for readers that take only a document: a top level that is a bare number,
// string, boolean or null is refused like a syntax error.
inline std::optional<Value> parseJSONDocument(std::string_view text, std::string* error = nullptr) {
  std::optional<Value> value = parseJSON(text, error);
  if (value && value->asArray() == nullptr && value->asDictionary() == nullptr) {
    if (error) {
      *error = "JSON text did not start with array or object and option to allow fragments not set.";
    }
    return std::nullopt;
  }
  return value;
}
ZBIAP_EXPORT std::string toJSON(const Value& value);

}  // namespace zbiap

#endif  // ZBIAP_FOUNDATION_JSON_H_

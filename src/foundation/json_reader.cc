// parseJSON: simdjson's validating DOM parser, its tree walked once into Value.
#include <simdjson.h>

#include <string>

#include "zbiap/foundation/json.h"

namespace zbiap {

namespace {

// One parser per thread keeps its buffers between documents.
simdjson::dom::parser& threadParser() {
  thread_local simdjson::dom::parser parser = [] {
    simdjson::dom::parser p;
    const simdjson::error_code code = p.allocate(4096, kMaxJSONDepth);
    static_cast<void>(code);  // a failed allocation is reported again by parse()
    return p;
  }();
  return parser;
}

Value convert(simdjson::dom::element e) {
  using simdjson::dom::element_type;
  switch (e.type()) {
    case element_type::ARRAY: {
      simdjson::dom::array a = e.get_array().value_unsafe();
      Array out;
      out.reserve(a.size());
      for (simdjson::dom::element child : a) out.push_back(convert(child));
      return Value(std::move(out));
    }
    case element_type::OBJECT: {
      simdjson::dom::object o = e.get_object().value_unsafe();
      Dictionary out;
      out.reserve(o.size());
      for (simdjson::dom::key_value_pair kv : o) {
        out.set(std::string(kv.key), convert(kv.value));
      }
      return Value(std::move(out));
    }
    case element_type::INT64:
      return Value(e.get_int64().value_unsafe());
    case element_type::UINT64:
      return Value(e.get_uint64().value_unsafe());
    case element_type::DOUBLE:
      return Value(e.get_double().value_unsafe());
    case element_type::STRING:
      return Value(e.get_string().value_unsafe());
    case element_type::BOOL:
      return Value(e.get_bool().value_unsafe());
    case element_type::NULL_VALUE:
      return Value::null();
  }
  return Value::null();
}

}  // namespace

std::optional<Value> parseJSON(std::string_view text, std::string* error) {
  simdjson::dom::parser& parser = threadParser();
  simdjson::dom::element root;
  const auto code = parser.parse(text.data(), text.size(), true).get(root);
  if (code != simdjson::SUCCESS) {
    if (error) *error = simdjson::error_message(code);
    return std::nullopt;
  }
  return convert(root);
}

}  // namespace zbiap

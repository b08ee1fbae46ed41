// parseJSON: simdjson's validating DOM parser, its tree walked once into Value.
#include <simdjson.h>

#include <algorithm>
#include <cstring>
#include <memory>
#include <new>
#include <string>

#include "foundation/arena.h"
#include "foundation/value_access.h"
#include "zbiap/foundation/json.h"

namespace zbiap {

namespace {

// One parser per thread, with a padded input buffer of its own: both keep their memory between
// documents, which spares a large allocation (and the allocator's consolidation work) per read.
// Beyond kKeptCapacity bytes of text the keeping stops paying: the copy of the text is dropped as
// soon as it is parsed, and the parser, which sizes its buffers for the worst case (about 14
// bytes per byte of text), shrinks before reading a document far smaller than its buffers. A
// thread holds on to what its recent documents need, not to what its largest ever needed.
struct ThreadParser {
  static constexpr size_t kInitialCapacity = 4096;
  static constexpr size_t kKeptCapacity = size_t{4} << 20;

  simdjson::dom::parser parser;
  std::unique_ptr<char[]> buffer;
  size_t capacity = 0;

  ThreadParser() {
    const simdjson::error_code code = parser.allocate(kInitialCapacity, kMaxJSONDepth);
    static_cast<void>(code);  // a failed allocation is reported again by parse()
  }

  static bool oversized(size_t capacity, size_t needed) {
    return capacity > kKeptCapacity && capacity / 4 > needed;
  }

  simdjson::error_code parse(std::string_view text, simdjson::dom::element* root) {
    const size_t needed = text.size() + simdjson::SIMDJSON_PADDING;
    if (oversized(parser.capacity(), text.size())) {
      const simdjson::error_code code =
          parser.allocate(std::max(text.size(), kInitialCapacity), kMaxJSONDepth);
      static_cast<void>(code);  // parse() grows it again, or reports the failure
    }
    if (needed > capacity) {
      const size_t grown = std::max(needed, capacity * 2);
      buffer.reset(new (std::nothrow) char[grown]);
      capacity = buffer ? grown : 0;
      if (!buffer) return simdjson::MEMALLOC;
    }
    if (!text.empty()) std::memcpy(buffer.get(), text.data(), text.size());
    std::memset(buffer.get() + text.size(), 0, simdjson::SIMDJSON_PADDING);
    const simdjson::error_code code =
        parser.parse(reinterpret_cast<const uint8_t*>(buffer.get()), text.size(), false).get(*root);
    // The parsed tree keeps its own copy of the strings: a copy of a large text is not needed
    // while the tree is converted, nor kept for the next document.
    if (capacity > kKeptCapacity) {
      buffer.reset();
      capacity = 0;
    }
    return code;
  }
};

ThreadParser& threadParser() {
  thread_local ThreadParser parser;
  return parser;
}

// Builds each value in the place it will keep (an array element, a dictionary slot), which
// spares a move and a destruction of a Value per element.
void convert(simdjson::dom::element e, internal::Arena* arena, Value* out) {
  using simdjson::dom::element_type;
  switch (e.type()) {
    case element_type::ARRAY: {
      simdjson::dom::array a = e.get_array().value_unsafe();
      Array* array = internal::ValueAccess::array(arena, out);
      array->reserve(a.size());  // element addresses stay put while they are filled
      for (simdjson::dom::element child : a) convert(child, arena, &array->emplace_back());
      return;
    }
    case element_type::OBJECT: {
      simdjson::dom::object o = e.get_object().value_unsafe();
      Dictionary* dictionary = internal::ValueAccess::dictionary(arena, out);
      dictionary->reserve(o.size());
      for (simdjson::dom::key_value_pair kv : o) {
        // A repeated key keeps its first position and takes the last value.
        convert(kv.value, arena, internal::ValueAccess::slot(dictionary, kv.key));
      }
      return;
    }
    case element_type::INT64:
      *out = Value(e.get_int64().value_unsafe());
      return;
    case element_type::UINT64:
      *out = Value(e.get_uint64().value_unsafe());
      return;
    case element_type::DOUBLE:
      *out = Value(e.get_double().value_unsafe());
      return;
    case element_type::STRING:
      internal::ValueAccess::string(arena, e.get_string().value_unsafe(), out);
      return;
    case element_type::BOOL:
      *out = Value(e.get_bool().value_unsafe());
      return;
    case element_type::NULL_VALUE:
      *out = Value::null();
      return;
  }
  *out = Value::null();
}

bool isDigit(char c) { return c >= '0' && c <= '9'; }

// Whether an integer of these digits (no leading zero) lies outside what simdjson reads as an
// integer: [-2^63, 2^64 - 1].
bool beyond64Bits(bool negative, std::string_view digits) {
  const std::string_view limit = negative ? "9223372036854775808" : "18446744073709551615";
  if (digits.size() != limit.size()) return digits.size() > limit.size();
  return digits > limit;
}

// simdjson refuses integers beyond 64 bits, which JSON allows; they are to become reals. This
// gives them a ".0" so that they read as reals, leaving everything else, strings included,
// byte for byte alone. Only an integer token that stands complete (not followed by a fraction,
// an exponent or more number characters) is touched, so the rewrite accepts nothing the
// original text would not. Returns false when there was nothing to rewrite.
bool widenLongIntegers(std::string_view text, std::string* out) {
  bool changed = false;
  out->clear();
  out->reserve(text.size() + 16);
  size_t i = 0;
  const size_t n = text.size();
  while (i < n) {
    const char c = text[i];
    if (c == '"') {
      // Copy the string through its closing quote, skipping escaped characters.
      size_t j = i + 1;
      while (j < n && text[j] != '"') j += text[j] == '\\' ? 2 : 1;
      j = std::min(j + 1, n);
      out->append(text.substr(i, j - i));
      i = j;
      continue;
    }
    const bool startsNumber = c == '-' || isDigit(c);
    const bool afterNumberChar =
        i > 0 && (isDigit(text[i - 1]) || text[i - 1] == '.' || text[i - 1] == 'e' ||
                  text[i - 1] == 'E' || text[i - 1] == '+' || text[i - 1] == '-');
    if (!startsNumber || afterNumberChar) {
      out->push_back(c);
      ++i;
      continue;
    }
    size_t j = i + (c == '-' ? 1 : 0);
    const size_t digitsStart = j;
    while (j < n && isDigit(text[j])) ++j;
    const size_t digits = j - digitsStart;
    const bool complete = j >= n || !(text[j] == '.' || text[j] == 'e' || text[j] == 'E' ||
                                      text[j] == '+' || text[j] == '-');
    out->append(text.substr(i, j - i));
    if (complete && digits > 0 && text[digitsStart] != '0' &&
        beyond64Bits(c == '-', text.substr(digitsStart, digits))) {
      *out += ".0";
      changed = true;
    }
    i = j;
  }
  return changed;
}

std::optional<Value> parseOnce(std::string_view text, simdjson::error_code* code) {
  simdjson::dom::element root;
  *code = threadParser().parse(text, &root);
  if (*code != simdjson::SUCCESS) return std::nullopt;
  internal::Arena* arena = internal::Arena::create();
  Value value;
  convert(root, arena, &value);
  arena->finishBuilding();  // the nodes hold the arena from here on
  return value;
}

}  // namespace

std::optional<Value> parseJSON(std::string_view text, std::string* error) {
  simdjson::error_code code;
  std::optional<Value> value = parseOnce(text, &code);
  if (!value && code == simdjson::NUMBER_ERROR) {
    std::string widened;
    if (widenLongIntegers(text, &widened)) value = parseOnce(widened, &code);
  }
  if (!value && error) {
    *error = code == simdjson::NUMBER_ERROR ? "a number is malformed or out of range"
                                            : simdjson::error_message(code);
  }
  return value;
}

}  // namespace zbiap

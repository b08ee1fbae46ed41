// zbiap::Value: the one dynamic value of the library, Foundation's `id` for data.
//
// A Value is nil (no value at all: a missing key, an absent object), null (NSNull, a JSON
// null: a present key), a boolean, an integer, a real, a decimal, a string, a date, data, an
// array or a dictionary. Values are immutable in spirit and cheap to copy: arrays, dictionaries,
// strings and data share their storage; the mutating members copy on write.
//
// Foundation's rules hold: a boolean is a number (true is 1); numbers compare by numeric value
// across kinds (@YES == @1 == @1.0 == decimal 1); dictionaries keep insertion order but compare
// as maps; a string never equals a number. Not thread-safe for concurrent mutation; concurrent
// reads of a shared Value are safe.
#ifndef ZBIAP_FOUNDATION_VALUE_H_
#define ZBIAP_FOUNDATION_VALUE_H_

#include <cstdint>
#include <initializer_list>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <variant>
#include <vector>

#include "zbiap/export.h"
#include "zbiap/foundation/date.h"
#include "zbiap/foundation/decimal.h"

namespace zbiap {

class Value;
namespace internal {
class ValueAccess;  // the JSON reader's way to build values without a heap allocation each
}  // namespace internal
using Data = std::vector<uint8_t>;

// Insertion-ordered string-keyed map. Setting an existing key replaces its value in place.
class ZBIAP_EXPORT Dictionary {
 public:
  using Entry = std::pair<std::string, Value>;

  Dictionary();
  Dictionary(std::initializer_list<Entry> entries);
  ~Dictionary();
  Dictionary(const Dictionary&);
  Dictionary(Dictionary&&) noexcept;
  Dictionary& operator=(const Dictionary&);
  Dictionary& operator=(Dictionary&&) noexcept;

  // The inline members are defined after Value, which must be complete for them.
  size_t size() const;
  bool empty() const;
  // Null when absent.
  const Value* find(std::string_view key) const;
  bool contains(std::string_view key) const { return find(key) != nullptr; }
  // Nil (Value()) when absent.
  const Value& operator[](std::string_view key) const;
  void set(std::string key, Value value);
  bool remove(std::string_view key);
  void reserve(size_t n);

  std::vector<Entry>::const_iterator begin() const;
  std::vector<Entry>::const_iterator end() const;
  const std::vector<Entry>& entries() const { return entries_; }

  // Same keys with equal values, order ignored.
  friend bool operator==(const Dictionary& a, const Dictionary& b);

 private:
  friend class internal::ValueAccess;
  // The value under `key`, appended as nil when absent: set() and in-place builders. Valid
  // until the dictionary changes again.
  Value& slot(std::string key);
  void rebuildIndex() const;
  std::vector<Entry> entries_;
  // Built lazily for large dictionaries: key -> position in entries_.
  mutable std::shared_ptr<void> index_;
};

using Array = std::vector<Value>;

class ZBIAP_EXPORT Value {
 public:
  enum class Type {
    kNil,
    kNull,
    kBoolean,
    kInteger,
    kReal,
    kDecimal,
    kString,
    kDate,
    kData,
    kArray,
    kDictionary
  };
  struct Null {
    friend bool operator==(Null, Null) { return true; }
  };

  Value() = default;  // nil
  Value(Null) : v_(Null{}) {}
  Value(bool b) : v_(b) {}
  Value(int v) : v_(static_cast<int64_t>(v)) {}
  Value(int64_t v) : v_(v) {}
  Value(uint64_t v);  // stored as an integer when it fits, else as a decimal
  Value(double v) : v_(v) {}
  Value(Decimal d) : v_(std::move(d)) {}
  Value(const char* s);
  Value(std::string s);
  Value(std::string_view s);
  Value(Date d) : v_(d) {}
  Value(Data d);
  Value(Array a);
  Value(Dictionary d);
  static Value null() { return Value(Null{}); }

  Type type() const;
  bool isNil() const { return type() == Type::kNil; }
  bool isNull() const { return type() == Type::kNull; }
  // Boolean, integer, real or decimal.
  bool isNumber() const;
  bool isBoolean() const { return type() == Type::kBoolean; }
  bool isString() const { return type() == Type::kString; }
  bool isDate() const { return type() == Type::kDate; }
  bool isData() const { return type() == Type::kData; }
  bool isArray() const { return type() == Type::kArray; }
  bool isDictionary() const { return type() == Type::kDictionary; }

  // Typed views: null when the value is of another type.
  const std::string* asString() const;
  const Date* asDate() const;
  const Data* asData() const;
  const Array* asArray() const;
  const Dictionary* asDictionary() const;

  // Number conversions (nullopt when not a number), as NSNumber's accessors: boolValue is
  // true for any non-zero number; int64Value truncates reals toward zero.
  std::optional<bool> boolValue() const;
  std::optional<int64_t> int64Value() const;
  std::optional<double> doubleValue() const;
  // Integers exactly; reals through their shortest round-trip text; booleans as 0 or 1.
  std::optional<Decimal> decimalValue() const;
  // NSNumber's stringValue: "1" for true, "42", shortest text for reals ("9.99"),
  // the decimal's plain text. nullopt for non-numbers.
  std::optional<std::string> numberStringValue() const;

  // Dictionary lookup; nil when this is not a dictionary or the key is absent.
  const Value& operator[](std::string_view key) const;
  // Array element; nil when this is not an array or the index is out of range.
  const Value& operator[](size_t index) const;
  size_t size() const;  // elements of an array or dictionary, bytes of data or a string

  // Copy-on-write mutation; a nil value becomes an empty dictionary / array first.
  void set(std::string key, Value value);
  void append(Value value);

  // Foundation equality (see the file comment) and a hash consistent with it.
  friend bool operator==(const Value& a, const Value& b);
  size_t hash() const;

  // Foundation's description: dictionaries and arrays in the old-style property list form,
  // strings quoted when they need it, dates as Date::description().
  std::string description() const;

 private:
  friend class internal::ValueAccess;
  using Storage =
      std::variant<std::monostate, Null, bool, int64_t, double, Decimal,
                   std::shared_ptr<const std::string>, Date, std::shared_ptr<const Data>,
                   std::shared_ptr<const Array>, std::shared_ptr<const Dictionary>>;
  Storage v_;
};

inline size_t Dictionary::size() const { return entries_.size(); }
inline bool Dictionary::empty() const { return entries_.empty(); }
inline void Dictionary::reserve(size_t n) { entries_.reserve(n); }
inline std::vector<Dictionary::Entry>::const_iterator Dictionary::begin() const {
  return entries_.begin();
}
inline std::vector<Dictionary::Entry>::const_iterator Dictionary::end() const {
  return entries_.end();
}

// The shared nil, for lookups that return references.
ZBIAP_EXPORT const Value& nilValue();

}  // namespace zbiap

template <>
struct std::hash<zbiap::Value> {
  size_t operator()(const zbiap::Value& v) const { return v.hash(); }
};

#endif  // ZBIAP_FOUNDATION_VALUE_H_

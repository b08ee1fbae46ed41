#include "zbiap/foundation/value.h"

#include <cmath>
#include <limits>

#include "foundation/number.h"

namespace zbiap {

namespace {

constexpr size_t kIndexOf(Value::Type t) { return static_cast<size_t>(t); }

// The integer a number is exactly, if any (booleans are 0 or 1).
std::optional<int64_t> exactInteger(const bool* b, const int64_t* i, const double* r,
                                    const Decimal* d) {
  if (b) return *b ? 1 : 0;
  if (i) return *i;
  if (r) return internal::exactInt64(*r);
  if (d) return d->toInt64();
  return std::nullopt;
}

// Truncates a decimal toward zero into int64, saturating at the ends of the range.
int64_t truncateDecimal(const Decimal& d) {
  if (d.isNaN() || d.isZero()) return 0;
  Decimal::Mantissa m = d.mantissa();
  int e = d.exponent();
  while (e < 0 && m != 0) {
    m /= 10;
    ++e;
  }
  const Decimal::Mantissa limit = static_cast<Decimal::Mantissa>(INT64_MAX);
  bool over = false;
  for (; e > 0 && !over; --e) {
    if (m > limit) over = true;
    m *= 10;
  }
  if (over || m > limit + (d.isNegative() ? 1 : 0)) {
    return d.isNegative() ? std::numeric_limits<int64_t>::min()
                          : std::numeric_limits<int64_t>::max();
  }
  if (d.isNegative()) return m == limit + 1 ? INT64_MIN : -static_cast<int64_t>(m);
  return static_cast<int64_t>(m);
}

int64_t truncateDouble(double r) {
  if (std::isnan(r)) return 0;
  if (r >= 9223372036854775807.0) return std::numeric_limits<int64_t>::max();
  if (r <= -9223372036854775808.0) return std::numeric_limits<int64_t>::min();
  return static_cast<int64_t>(r);
}

bool numbersEqual(const Value& a, const Value& b) {
  const auto ta = a.type(), tb = b.type();
  if (ta == Value::Type::kDecimal || tb == Value::Type::kDecimal) {
    const Decimal x = *a.decimalValue(), y = *b.decimalValue();
    // A finite real beyond the decimal's range has no decimal; it equals none.
    if ((ta == Value::Type::kReal && x.isNaN() && !std::isnan(*a.doubleValue())) ||
        (tb == Value::Type::kReal && y.isNaN() && !std::isnan(*b.doubleValue()))) {
      return false;
    }
    return x == y;
  }
  if (ta == Value::Type::kReal && tb == Value::Type::kReal) {
    const double x = *a.doubleValue(), y = *b.doubleValue();
    return x == y || (std::isnan(x) && std::isnan(y));
  }
  if (ta == Value::Type::kReal || tb == Value::Type::kReal) {
    const Value& real = ta == Value::Type::kReal ? a : b;
    const Value& other = ta == Value::Type::kReal ? b : a;
    const auto exact = internal::exactInt64(*real.doubleValue());
    return exact && *exact == *other.int64Value();
  }
  return *a.int64Value() == *b.int64Value();
}

}  // namespace

const Value& nilValue() {
  static const Value kNil;
  return kNil;
}

Value::Value(uint64_t v) {
  if (v <= static_cast<uint64_t>(std::numeric_limits<int64_t>::max())) {
    v_ = static_cast<int64_t>(v);
  } else {
    v_ = Decimal::fromUInt(v);
  }
}

Value::Value(const char* s) {
  if (s) v_ = std::make_shared<const std::string>(s);
}
Value::Value(std::string s) : v_(std::make_shared<const std::string>(std::move(s))) {}
Value::Value(std::string_view s) : v_(std::make_shared<const std::string>(s)) {}
Value::Value(Data d) : v_(std::make_shared<const Data>(std::move(d))) {}
Value::Value(Array a) : v_(std::make_shared<const Array>(std::move(a))) {}
Value::Value(Dictionary d) : v_(std::make_shared<const Dictionary>(std::move(d))) {}

Value::Type Value::type() const { return static_cast<Type>(v_.index()); }

bool Value::isNumber() const {
  switch (type()) {
    case Type::kBoolean:
    case Type::kInteger:
    case Type::kReal:
    case Type::kDecimal:
      return true;
    default:
      return false;
  }
}

const std::string* Value::asString() const {
  auto* p = std::get_if<kIndexOf(Type::kString)>(&v_);
  return p ? p->get() : nullptr;
}
const Date* Value::asDate() const { return std::get_if<kIndexOf(Type::kDate)>(&v_); }
const Data* Value::asData() const {
  auto* p = std::get_if<kIndexOf(Type::kData)>(&v_);
  return p ? p->get() : nullptr;
}
const Array* Value::asArray() const {
  auto* p = std::get_if<kIndexOf(Type::kArray)>(&v_);
  return p ? p->get() : nullptr;
}
const Dictionary* Value::asDictionary() const {
  auto* p = std::get_if<kIndexOf(Type::kDictionary)>(&v_);
  return p ? p->get() : nullptr;
}

std::optional<bool> Value::boolValue() const {
  switch (type()) {
    case Type::kBoolean:
      return std::get<bool>(v_);
    case Type::kInteger:
      return std::get<int64_t>(v_) != 0;
    case Type::kReal:
      return std::get<double>(v_) != 0;
    case Type::kDecimal: {
      const Decimal& d = std::get<Decimal>(v_);
      return !d.isNaN() && !d.isZero();
    }
    default:
      return std::nullopt;
  }
}

std::optional<int64_t> Value::int64Value() const {
  switch (type()) {
    case Type::kBoolean:
      return std::get<bool>(v_) ? 1 : 0;
    case Type::kInteger:
      return std::get<int64_t>(v_);
    case Type::kReal:
      return truncateDouble(std::get<double>(v_));
    case Type::kDecimal:
      return truncateDecimal(std::get<Decimal>(v_));
    default:
      return std::nullopt;
  }
}

std::optional<double> Value::doubleValue() const {
  switch (type()) {
    case Type::kBoolean:
      return std::get<bool>(v_) ? 1.0 : 0.0;
    case Type::kInteger:
      return static_cast<double>(std::get<int64_t>(v_));
    case Type::kReal:
      return std::get<double>(v_);
    case Type::kDecimal:
      return std::get<Decimal>(v_).toDouble();
    default:
      return std::nullopt;
  }
}

std::optional<Decimal> Value::decimalValue() const {
  switch (type()) {
    case Type::kBoolean:
      return Decimal::fromInt(std::get<bool>(v_) ? 1 : 0);
    case Type::kInteger:
      return Decimal::fromInt(std::get<int64_t>(v_));
    case Type::kReal:
      return Decimal::fromDouble(std::get<double>(v_));
    case Type::kDecimal:
      return std::get<Decimal>(v_);
    default:
      return std::nullopt;
  }
}

std::optional<std::string> Value::numberStringValue() const {
  switch (type()) {
    case Type::kBoolean:
      return std::string(std::get<bool>(v_) ? "1" : "0");
    case Type::kInteger:
      return std::to_string(std::get<int64_t>(v_));
    case Type::kReal:
      return internal::shortestDoubleText(std::get<double>(v_));
    case Type::kDecimal:
      return std::get<Decimal>(v_).toString();
    default:
      return std::nullopt;
  }
}

const Value& Value::operator[](std::string_view key) const {
  const Dictionary* d = asDictionary();
  return d ? (*d)[key] : nilValue();
}

const Value& Value::operator[](size_t index) const {
  const Array* a = asArray();
  return a && index < a->size() ? (*a)[index] : nilValue();
}

size_t Value::size() const {
  switch (type()) {
    case Type::kString:
      return asString()->size();
    case Type::kData:
      return asData()->size();
    case Type::kArray:
      return asArray()->size();
    case Type::kDictionary:
      return asDictionary()->size();
    default:
      return 0;
  }
}

void Value::set(std::string key, Value value) {
  auto* p = std::get_if<kIndexOf(Type::kDictionary)>(&v_);
  if (!p) {
    v_ = std::make_shared<const Dictionary>();
    p = std::get_if<kIndexOf(Type::kDictionary)>(&v_);
  } else if (p->use_count() > 1) {
    *p = std::make_shared<const Dictionary>(**p);
  }
  const_cast<Dictionary&>(**p).set(std::move(key), std::move(value));
}

void Value::append(Value value) {
  auto* p = std::get_if<kIndexOf(Type::kArray)>(&v_);
  if (!p) {
    v_ = std::make_shared<const Array>();
    p = std::get_if<kIndexOf(Type::kArray)>(&v_);
  } else if (p->use_count() > 1) {
    *p = std::make_shared<const Array>(**p);
  }
  const_cast<Array&>(**p).push_back(std::move(value));
}

bool operator==(const Value& a, const Value& b) {
  const Value::Type ta = a.type(), tb = b.type();
  if (a.isNumber() && b.isNumber()) return numbersEqual(a, b);
  if (ta != tb) return false;
  switch (ta) {
    case Value::Type::kNil:
    case Value::Type::kNull:
      return true;
    case Value::Type::kString: {
      const std::string *x = a.asString(), *y = b.asString();
      return x == y || *x == *y;
    }
    case Value::Type::kDate:
      return *a.asDate() == *b.asDate();
    case Value::Type::kData: {
      const Data *x = a.asData(), *y = b.asData();
      return x == y || *x == *y;
    }
    case Value::Type::kArray: {
      const Array *x = a.asArray(), *y = b.asArray();
      return x == y || *x == *y;
    }
    case Value::Type::kDictionary: {
      const Dictionary *x = a.asDictionary(), *y = b.asDictionary();
      return x == y || *x == *y;
    }
    default:
      return false;
  }
}

size_t Value::hash() const {
  switch (type()) {
    case Type::kNil:
      return 0;
    case Type::kNull:
      return 0x6e756c6cULL;
    case Type::kBoolean:
    case Type::kInteger:
    case Type::kReal:
    case Type::kDecimal: {
      const auto* r = std::get_if<double>(&v_);
      const auto* d = std::get_if<Decimal>(&v_);
      if (auto exact = exactInteger(std::get_if<bool>(&v_), std::get_if<int64_t>(&v_), r, d)) {
        return internal::hashInt64(*exact);
      }
      if (d) return d->hash();
      // A real equals a decimal exactly when the decimal is its shortest text; NaN equals
      // the decimal not-a-number.
      const Decimal asDecimal = Decimal::fromDouble(*r);
      if (!asDecimal.isNaN() || std::isnan(*r)) return asDecimal.hash();
      return std::hash<double>()(*r);
    }
    case Type::kString:
      return std::hash<std::string>()(*asString());
    case Type::kDate:
      return asDate()->hash();
    case Type::kData:
      return std::hash<std::string_view>()(
          std::string_view(reinterpret_cast<const char*>(asData()->data()), asData()->size()));
    case Type::kArray: {
      // Count plus the first elements: cheap and consistent with element-wise equality.
      size_t h = asArray()->size();
      for (size_t i = 0; i < asArray()->size() && i < 4; ++i) {
        h = h * 31 + (*asArray())[i].hash();
      }
      return h;
    }
    case Type::kDictionary:
      // Order-independent, as equality ignores order: the count and the keys' hashes.
      {
        size_t h = asDictionary()->size() * 0x9e3779b97f4a7c15ULL;
        for (const auto& e : *asDictionary()) h += std::hash<std::string>()(e.first);
        return h;
      }
  }
  return 0;
}

}  // namespace zbiap

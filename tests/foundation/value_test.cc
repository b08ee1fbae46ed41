#include "zbiap/foundation/value.h"

#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <unordered_set>
#include <vector>

namespace zbiap {
namespace {

Value dec(const char* text) { return Value(Decimal::fromString(text)); }

TEST(ValueTest, NumbersCompareByValueAcrossKinds) {
  const Value one[] = {Value(true), Value(1), Value(1.0), Value(uint64_t{1}), dec("1.00")};
  for (const Value& a : one) {
    for (const Value& b : one) {
      EXPECT_EQ(a, b) << a.description() << " vs " << b.description();
      EXPECT_EQ(a.hash(), b.hash()) << a.description() << " vs " << b.description();
    }
  }
  // A real equals the decimal of its shortest text; beyond the decimal's range a real equals
  // no decimal (not even not-a-number); 2^63 as a real is not INT64_MAX.
  // clang-format off
  const std::pair<Value, Value> equal[] = {
      {Value(false), Value(0)}, {Value(0.0), Value(-0.0)}, {Value(9.99), dec("9.99")},
      {Value(1e20), dec("1e20")}, {Value(std::nan("")), Value(Decimal::notANumber())},
      {Value(INT64_MIN), Value(-9223372036854775808.0)},
      {Value(uint64_t{1} << 63), Value(9223372036854775808.0)}, {Value("1"), Value("1")},
  };
  const std::pair<Value, Value> unequal[] = {
      {Value(true), Value(2)}, {Value(1), Value(1.5)}, {Value(1), Value("1")},
      {Value(0), Value::null()}, {Value(0), Value()}, {Value(), Value::null()},
      {Value(9.99), dec("9.990000000000001")}, {Value(1e300), Value(Decimal::notANumber())},
      {Value(INT64_MAX), Value(9223372036854775807.0)}, {Value("1"), Value("2")},
  };
  // clang-format on
  for (const auto& [a, b] : equal) {
    EXPECT_EQ(a, b) << a.description() << " vs " << b.description();
    EXPECT_EQ(a.hash(), b.hash()) << a.description();
  }
  for (const auto& [a, b] : unequal)
    EXPECT_NE(a, b) << a.description() << " vs " << b.description();
  EXPECT_EQ(Value(UINT64_MAX).type(), Value::Type::kDecimal);
  EXPECT_EQ(Value(uint64_t{7}).type(), Value::Type::kInteger);
  std::unordered_set<Value> set{Value(1),   Value(true), Value(1.0),
                                Value("1"), Value(2.5),  dec("2.50")};
  EXPECT_EQ(set.size(), 3u);
}

TEST(ValueTest, ConversionsAndViews) {
  // Truncated toward zero and saturated, the smallest integer exactly.
  // clang-format off
  const std::pair<Value, std::optional<int64_t>> ints[] = {
      {Value(-2.7), -2}, {dec("-2.7"), -2}, {dec("1e30"), INT64_MAX}, {Value(-1e30), INT64_MIN},
      {dec("-1e30"), INT64_MIN}, {dec("-9223372036854775808"), INT64_MIN},
      {dec("-9223372036854775806"), -9223372036854775806}, {dec("9223372036854775808"), INT64_MAX},
      {Value(std::nan("")), 0}, {Value(true), 1}, {Value("5"), std::nullopt},
  };
  const std::pair<Value, std::optional<std::string>> texts[] = {
      {Value(true), "1"}, {Value(-42), "-42"}, {Value(9.99), "9.99"}, {Value(100.0), "100"},
      {Value(1e20), "1e+20"}, {dec("0.50"), "0.5"}, {Value("7"), std::nullopt},
  };
  // clang-format on
  for (const auto& [value, n] : ints) EXPECT_EQ(value.int64Value(), n) << value.description();
  for (const auto& [value, text] : texts) {
    EXPECT_EQ(value.numberStringValue(), text) << value.description();
  }
  EXPECT_EQ(Value(0.1).boolValue(), true);
  EXPECT_EQ(Value(Decimal()).boolValue(), false);
  EXPECT_EQ(dec("2.5").doubleValue(), 2.5);
  EXPECT_EQ(Value(9.99).decimalValue(), Decimal::fromString("9.99"));
  EXPECT_EQ(Value(true).decimalValue(), Decimal::fromInt(1));
  EXPECT_EQ(Value::null().doubleValue(), std::nullopt);
  // Views of the wrong kind are empty.
  const Value array(Array{Value(1), Value("two")});
  EXPECT_EQ(array[1], Value("two"));
  EXPECT_TRUE(array[2].isNil());
  EXPECT_TRUE(array["key"].isNil());
  EXPECT_TRUE(Value()["a"]["b"][size_t{3}].isNil());
  EXPECT_EQ(Value(static_cast<const char*>(nullptr)).type(), Value::Type::kNil);
  EXPECT_EQ(Value("h\xc3\xa9llo").size(), 6u);
  EXPECT_EQ(Value(Data{1, 2, 3}).size(), 3u);
  EXPECT_EQ(Value(42).size(), 0u);
}

TEST(ValueTest, CollectionsCompareByContent) {
  const Value a(Dictionary{{"x", Value(1)}, {"y", Value(Array{Value("z")})}});
  const Value b(Dictionary{{"y", Value(Array{Value("z")})}, {"x", Value(1.0)}});
  EXPECT_EQ(a, b);
  EXPECT_EQ(a.hash(), b.hash());
  EXPECT_EQ(Value(Array{Value(1), Value(2.0)}), Value(Array{Value(true), Value(2)}));
  EXPECT_EQ(Value(Data{1, 2}), Value(Data{1, 2}));
  // A present null is not a missing key.
  const std::pair<Value, Value> unequal[] = {
      {Value(Array{Value(1), Value(2)}), Value(Array{Value(2), Value(1)})},
      {Value(Array{}), Value(Dictionary{})},
      {Value(Data{1, 2}), Value(Data{1, 3})},
      {Value(Data{}), Value("")},
      {a, Value(Dictionary{{"x", Value(1)}})},
      {a, Value(Dictionary{{"x", Value(1)}, {"z", Value(Array{Value("z")})}})},
      {Value(Dictionary{{"k", Value::null()}}), Value(Dictionary{})},
  };
  for (const auto& [x, y] : unequal) EXPECT_NE(x, y) << x.description();
}

TEST(DictionaryTest, KeepsInsertionOrderAndReplacesInPlace) {
  Dictionary d{{"b", Value(1)}, {"a", Value(2)}, {"c", Value(3)}};
  d.set("a", Value("two"));
  d.set("d", Value(4));
  EXPECT_TRUE(d.remove("b"));
  EXPECT_FALSE(d.remove("b"));
  EXPECT_EQ(d.find("zz"), nullptr);
  std::vector<std::string> keys;
  for (const auto& [key, value] : d) keys.push_back(key);
  EXPECT_EQ(keys, (std::vector<std::string>{"a", "c", "d"}));
  EXPECT_EQ(d["a"], Value("two"));
  // Duplicates in an initializer list: the last value wins at the first position.
  Dictionary dup{{"k", Value(1)}, {"j", Value(2)}, {"k", Value(3)}};
  EXPECT_EQ(dup.entries(), (std::vector<Dictionary::Entry>{{"k", Value(3)}, {"j", Value(2)}}));
}

TEST(DictionaryTest, LargeDictionariesStayConsistentThroughCopiesAndRemovals) {
  Dictionary d;
  for (int i = 0; i < 300; ++i) d.set("key" + std::to_string(i), Value(i));
  Dictionary copy = d;
  for (int i = 0; i < 300; i += 3) ASSERT_TRUE(d.remove("key" + std::to_string(i)));
  d.set("extra", Value(-1));
  copy.set("key5", Value("changed"));
  copy.set("late", Value(1));
  for (int i = 0; i < 300; ++i) {
    const std::string key = "key" + std::to_string(i);
    EXPECT_EQ(d[key], i % 3 == 0 ? Value() : Value(i)) << key;
    EXPECT_EQ(copy[key], i == 5 ? Value("changed") : Value(i)) << key;
  }
  EXPECT_EQ(d["extra"], Value(-1));
  EXPECT_TRUE(d["late"].isNil());
  EXPECT_EQ(d.size(), 201u);
  EXPECT_EQ(copy.size(), 301u);
  EXPECT_EQ(copy.entries()[5].second, Value("changed"));
}

TEST(ValueTest, MutationCopiesOnWrite) {
  Value a;
  a.set("k", Value(1));
  Value b = a;
  b.set("k", Value(2));
  b.set("new", Value(3));
  EXPECT_EQ(a, Value(Dictionary{{"k", Value(1)}}));
  EXPECT_EQ(b["k"], Value(2));
  const Dictionary* before = b.asDictionary();
  b.set("more", Value(4));  // sole owner: no copy
  EXPECT_EQ(b.asDictionary(), before);

  Value list;
  list.append(Value(1));
  Value other = list;
  other.append(Value(2));
  EXPECT_EQ(list.size(), 1u);
  EXPECT_EQ(other.size(), 2u);
  Value shared = other;  // copies share storage until written
  EXPECT_EQ(shared.asArray(), other.asArray());
}

TEST(ValueDescriptionTest, PropertyListForm) {
  EXPECT_EQ(Value(Dictionary{}).description(), "{\n}");
  EXPECT_EQ(Value(Array{}).description(), "(\n)");
  // Keys sorted; nesting indents by four spaces.
  const Value nested(
      Dictionary{{"zeta", Value(Array{Value(true), Value(Dictionary{{"a", Value(2.5)}})})},
                 {"alpha", Value::null()}});
  EXPECT_EQ(nested.description(),
            "{\n    alpha = \"<null>\";\n    zeta = (\n        1,\n        {\n"
            "            a = \"2.5\";\n        }\n    );\n}");
}

TEST(ValueDescriptionTest, ScalarsAndQuoting) {
  // At the top level strings are not quoted.
  // clang-format off
  const std::pair<Value, const char*> top[] = {
      {Value(), "(null)"}, {Value::null(), "<null>"}, {Value("plain text"), "plain text"},
      {Value(9.99), "9.99"}, {dec("-1.50"), "-1.5"}, {Value(Data{0xde, 0xad, 0xbe, 0xef, 0x01}),
      "<deadbeef 01>"}, {Value(Date::fromMicrosSince1970(0)), "1970-01-01 00:00:00 +0000"},
  };
  // Inside a collection: malformed UTF-8 does not derail the output.
  const std::pair<Value, const char*> inside[] = {
      {Value("Plain_Word_42"), "Plain_Word_42"}, {Value("com.example.app"), "\"com.example.app\""},
      {Value(7), "7"}, {Value(2.5), "\"2.5\""}, {Value(-3), "\"-3\""}, {Value(""), "\"\""},
      {Value::null(), "\"<null>\""}, {Value("a b"), "\"a b\""},
      {Value("say \"hi\"\\"), "\"say \\\"hi\\\"\\\\\""},
      {Value("line\nbreak\ttab"), "\"line\\nbreak\\ttab\""},
      {Value("caf\xc3\xa9"), "\"caf\\U00e9\""}, {Value(std::string("\x01", 1)), "\"\\U0001\""},
      {Value("\xf0\x9f\x98\x80"), "\"\\Ud83d\\Ude00\""},
      {Value(Date::fromMicrosSince1970(0)), "\"1970-01-01 00:00:00 +0000\""},
      {Value("\xff\xc3"), "\"\\U00ff\\U00c3\""},
  };
  // clang-format on
  for (const auto& [value, text] : top) EXPECT_EQ(value.description(), text);
  for (const auto& [value, text] : inside) {
    EXPECT_EQ(Value(Array{value}).description(), std::string("(\n    ") + text + "\n)");
  }
}

}  // namespace
}  // namespace zbiap

#include "zbiap/foundation/value.h"

#include <gtest/gtest.h>

#include <cmath>
#include <limits>
#include <string>
#include <thread>
#include <unordered_set>
#include <vector>

namespace zbiap {
namespace {

TEST(ValueTest, NumbersCompareByValueAcrossKinds) {
  const Value one[] = {Value(true), Value(1),           Value(int64_t{1}),
                       Value(1.0),  Value(uint64_t{1}), Value(Decimal::fromString("1.00"))};
  for (const Value& a : one) {
    for (const Value& b : one) {
      EXPECT_EQ(a, b) << a.description() << " vs " << b.description();
      EXPECT_EQ(a.hash(), b.hash()) << a.description() << " vs " << b.description();
    }
  }
  EXPECT_EQ(Value(false), Value(0));
  EXPECT_EQ(Value(0.0), Value(-0.0));
  EXPECT_EQ(Value(0.0).hash(), Value(-0.0).hash());
  EXPECT_NE(Value(true), Value(2));
  EXPECT_NE(Value(1), Value(1.5));
  EXPECT_NE(Value(1), Value("1"));
  EXPECT_NE(Value(0), Value::null());
  EXPECT_NE(Value(0), Value());

  // A real equals the decimal of its shortest text.
  EXPECT_EQ(Value(9.99), Value(Decimal::fromString("9.99")));
  EXPECT_EQ(Value(9.99).hash(), Value(Decimal::fromString("9.99")).hash());
  EXPECT_NE(Value(9.99), Value(Decimal::fromString("9.990000000000001")));
  EXPECT_EQ(Value(1e20), Value(Decimal::fromString("100000000000000000000")));
  EXPECT_EQ(Value(1e20).hash(), Value(Decimal::fromString("1e20")).hash());
  // Beyond the decimal's range a real equals no decimal (not even not-a-number).
  EXPECT_NE(Value(1e300), Value(Decimal::notANumber()));
  EXPECT_EQ(Value(std::nan("")), Value(Decimal::notANumber()));
  EXPECT_EQ(Value(std::nan("")).hash(), Value(Decimal::notANumber()).hash());

  // 2^63 as a real is not INT64_MAX.
  EXPECT_NE(Value(std::numeric_limits<int64_t>::max()), Value(9223372036854775807.0));
  EXPECT_EQ(Value(std::numeric_limits<int64_t>::min()), Value(-9223372036854775808.0));
  EXPECT_EQ(Value(uint64_t{1} << 63), Value(9223372036854775808.0));
  EXPECT_EQ(Value(UINT64_MAX).type(), Value::Type::kDecimal);
  EXPECT_EQ(Value(uint64_t{7}).type(), Value::Type::kInteger);

  std::unordered_set<Value> set{Value(1),   Value(true), Value(1.0),
                                Value("1"), Value(2.5),  Value(Decimal::fromString("2.50"))};
  EXPECT_EQ(set.size(), 3u);
}

TEST(ValueTest, NumberConversions) {
  EXPECT_EQ(Value(-2.7).int64Value(), -2);
  EXPECT_EQ(Value(Decimal::fromString("-2.7")).int64Value(), -2);
  EXPECT_EQ(Value(Decimal::fromString("1e30")).int64Value(), INT64_MAX);
  EXPECT_EQ(Value(-1e30).int64Value(), INT64_MIN);
  EXPECT_EQ(Value(std::nan("")).int64Value(), 0);
  EXPECT_EQ(Value(true).int64Value(), 1);
  EXPECT_EQ(Value(0.1).boolValue(), true);
  EXPECT_EQ(Value(0).boolValue(), false);
  EXPECT_EQ(Value(Decimal()).boolValue(), false);
  EXPECT_EQ(Value(Decimal::fromString("2.5")).doubleValue(), 2.5);
  EXPECT_EQ(Value(9.99).decimalValue(), Decimal::fromString("9.99"));
  EXPECT_EQ(Value(true).decimalValue(), Decimal::fromInt(1));
  EXPECT_EQ(Value("5").int64Value(), std::nullopt);
  EXPECT_EQ(Value::null().doubleValue(), std::nullopt);
  EXPECT_EQ(Value().decimalValue(), std::nullopt);

  EXPECT_EQ(Value(true).numberStringValue(), "1");
  EXPECT_EQ(Value(-42).numberStringValue(), "-42");
  EXPECT_EQ(Value(9.99).numberStringValue(), "9.99");
  EXPECT_EQ(Value(100.0).numberStringValue(), "100");
  EXPECT_EQ(Value(1e20).numberStringValue(), "1e+20");
  EXPECT_EQ(Value(Decimal::fromString("0.50")).numberStringValue(), "0.5");
  EXPECT_EQ(Value("7").numberStringValue(), std::nullopt);
}

TEST(ValueTest, TypesAndViews) {
  EXPECT_TRUE(Value().isNil());
  EXPECT_TRUE(Value::null().isNull());
  EXPECT_EQ(Value(), Value());
  EXPECT_NE(Value(), Value::null());
  EXPECT_TRUE(Value(2.5).isNumber());
  EXPECT_FALSE(Value("2.5").isNumber());
  EXPECT_EQ(Value(static_cast<const char*>(nullptr)).type(), Value::Type::kNil);
  EXPECT_EQ(*Value(std::string_view("abc")).asString(), "abc");
  EXPECT_EQ(Value("abc").asDictionary(), nullptr);
  EXPECT_EQ(Value(Data{1, 2, 3}).size(), 3u);
  EXPECT_EQ(Value("héllo").size(), 6u);
  EXPECT_EQ(Value(42).size(), 0u);
  EXPECT_EQ(*Value(Date::fromMicrosSince1970(5)).asDate(), Date::fromMicrosSince1970(5));

  const Value array(Array{Value(1), Value("two")});
  EXPECT_EQ(array[1], Value("two"));
  EXPECT_TRUE(array[2].isNil());
  EXPECT_TRUE(array["key"].isNil());
  EXPECT_TRUE(Value(5)[size_t{0}].isNil());
  EXPECT_TRUE(Value()["a"]["b"][size_t{3}].isNil());
}

TEST(ValueTest, CollectionsCompareByContent) {
  EXPECT_EQ(Value(Array{Value(1), Value(2.0)}), Value(Array{Value(true), Value(2)}));
  EXPECT_NE(Value(Array{Value(1), Value(2)}), Value(Array{Value(2), Value(1)}));
  EXPECT_NE(Value(Array{}), Value(Dictionary{}));
  EXPECT_EQ(Value(Data{1, 2}), Value(Data{1, 2}));
  EXPECT_NE(Value(Data{1, 2}), Value(Data{1, 3}));
  EXPECT_NE(Value(Data{}), Value(""));

  const Value a(Dictionary{{"x", Value(1)}, {"y", Value(Array{Value("z")})}});
  const Value b(Dictionary{{"y", Value(Array{Value("z")})}, {"x", Value(1.0)}});
  EXPECT_EQ(a, b);
  EXPECT_EQ(a.hash(), b.hash());
  EXPECT_NE(a, Value(Dictionary{{"x", Value(1)}}));
  EXPECT_NE(a, Value(Dictionary{{"x", Value(1)}, {"z", Value(Array{Value("z")})}}));
  // A present null is not a missing key.
  EXPECT_NE(Value(Dictionary{{"k", Value::null()}}), Value(Dictionary{}));
}

TEST(DictionaryTest, KeepsInsertionOrderAndReplacesInPlace) {
  Dictionary d{{"b", Value(1)}, {"a", Value(2)}, {"c", Value(3)}};
  d.set("a", Value("two"));
  d.set("d", Value(4));
  std::vector<std::string> keys;
  for (const auto& [key, value] : d) keys.push_back(key);
  EXPECT_EQ(keys, (std::vector<std::string>{"b", "a", "c", "d"}));
  EXPECT_EQ(d["a"], Value("two"));
  EXPECT_TRUE(d["zz"].isNil());
  EXPECT_EQ(d.find("zz"), nullptr);
  EXPECT_TRUE(d.remove("b"));
  EXPECT_FALSE(d.remove("b"));
  EXPECT_EQ(d.entries().front().first, "a");
  EXPECT_EQ(d.size(), 3u);
  // Duplicates in an initializer list: the last value wins at the first position.
  Dictionary dup{{"k", Value(1)}, {"j", Value(2)}, {"k", Value(3)}};
  EXPECT_EQ(dup.size(), 2u);
  EXPECT_EQ(dup.entries()[0], (Dictionary::Entry{"k", Value(3)}));
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
    if (i % 3 == 0) {
      EXPECT_EQ(d.find(key), nullptr) << key;
    } else {
      ASSERT_NE(d.find(key), nullptr) << key;
      EXPECT_EQ(*d.find(key), Value(i));
    }
    ASSERT_NE(copy.find(key), nullptr) << key;
    EXPECT_EQ(*copy.find(key), i == 5 ? Value("changed") : Value(i)) << key;
  }
  EXPECT_EQ(d["extra"], Value(-1));
  EXPECT_TRUE(d["late"].isNil());
  EXPECT_EQ(copy["late"], Value(1));
  EXPECT_EQ(d.size(), 201u);
  EXPECT_EQ(copy.size(), 301u);
  EXPECT_EQ(copy.entries()[5].second, Value("changed"));
}

TEST(ValueTest, MutationCopiesOnWrite) {
  Value a;
  a.set("k", Value(1));
  EXPECT_TRUE(a.isDictionary());
  Value b = a;
  b.set("k", Value(2));
  b.set("new", Value(3));
  EXPECT_EQ(a["k"], Value(1));
  EXPECT_TRUE(a["new"].isNil());
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
  // Copies share storage until written.
  Value shared = other;
  EXPECT_EQ(shared.asArray(), other.asArray());
}

TEST(ValueTest, ConcurrentReadsOfASharedValue) {
  Dictionary d;
  for (int i = 0; i < 100; ++i) d.set("k" + std::to_string(i), Value(i));
  const Value shared(std::move(d));
  std::vector<std::thread> threads;
  std::vector<int> found(4, 0);
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&, t] {
      Value local = shared;  // copies share and read the same storage
      for (int round = 0; round < 200; ++round) {
        for (int i = 0; i < 100; ++i) found[t] += local["k" + std::to_string(i)] == Value(i);
      }
    });
  }
  for (auto& th : threads) th.join();
  for (int n : found) EXPECT_EQ(n, 20000);
}

TEST(ValueDescriptionTest, PropertyListForm) {
  EXPECT_EQ(Value(Dictionary{{"key", Value("value")}}).description(), "{\n    key = value;\n}");
  EXPECT_EQ(Value(Array{Value(1), Value(2)}).description(), "(\n    1,\n    2\n)");
  EXPECT_EQ(Value(Dictionary{}).description(), "{\n}");
  EXPECT_EQ(Value(Array{}).description(), "(\n)");
  // Keys sorted; nesting indents by four spaces.
  const Value nested(
      Dictionary{{"zeta", Value(Array{Value(true), Value(Dictionary{{"a", Value(2.5)}})})},
                 {"alpha", Value::null()}});
  EXPECT_EQ(nested.description(),
            "{\n"
            "    alpha = \"<null>\";\n"
            "    zeta = (\n"
            "        1,\n"
            "        {\n"
            "            a = \"2.5\";\n"
            "        }\n"
            "    );\n"
            "}");
}

TEST(ValueDescriptionTest, ScalarsAndQuoting) {
  EXPECT_EQ(Value().description(), "(null)");
  EXPECT_EQ(Value::null().description(), "<null>");
  EXPECT_EQ(Value("plain text").description(), "plain text");  // unquoted at top level
  EXPECT_EQ(Value(9.99).description(), "9.99");
  EXPECT_EQ(Value(Decimal::fromString("-1.50")).description(), "-1.5");
  EXPECT_EQ(Value(Data{0xde, 0xad, 0xbe, 0xef, 0x01}).description(), "<deadbeef 01>");
  EXPECT_EQ(Value(Date::fromMicrosSince1970(0)).description(), "1970-01-01 00:00:00 +0000");

  auto inArray = [](Value v) {
    const std::string d = Value(Array{std::move(v)}).description();
    return d.substr(6, d.size() - 8);  // strip "(\n    " and "\n)"
  };
  EXPECT_EQ(inArray(Value("Plain_Word_42")), "Plain_Word_42");
  EXPECT_EQ(inArray(Value("com.example.app")), "\"com.example.app\"");
  EXPECT_EQ(inArray(Value(7)), "7");
  EXPECT_EQ(inArray(Value(2.5)), "\"2.5\"");
  EXPECT_EQ(inArray(Value::null()), "\"<null>\"");
  EXPECT_EQ(inArray(Value("")), "\"\"");
  EXPECT_EQ(inArray(Value("a b")), "\"a b\"");
  EXPECT_EQ(inArray(Value("say \"hi\"\\")), "\"say \\\"hi\\\"\\\\\"");
  EXPECT_EQ(inArray(Value("line\nbreak\ttab")), "\"line\\nbreak\\ttab\"");
  EXPECT_EQ(inArray(Value("caf\xc3\xa9")), "\"caf\\U00e9\"");
  EXPECT_EQ(inArray(Value("\xf0\x9f\x98\x80")), "\"\\Ud83d\\Ude00\"");
  EXPECT_EQ(inArray(Value(std::string("\x01", 1))), "\"\\U0001\"");
  EXPECT_EQ(inArray(Value(-3)), "\"-3\"");
  EXPECT_EQ(inArray(Value(Date::fromMicrosSince1970(0))), "\"1970-01-01 00:00:00 +0000\"");
  // Malformed UTF-8 does not derail the output.
  EXPECT_EQ(inArray(Value("\xff\xc3")), "\"\\U00ff\\U00c3\"");
}

}  // namespace
}  // namespace zbiap

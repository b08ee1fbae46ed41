#include "zbiap/foundation/json.h"

#include <fmt/format.h>
#include <gtest/gtest.h>

#include <cmath>
#include <string>
#include <thread>
#include <vector>

namespace zbiap {
namespace {

Value parsed(std::string_view text) {
  std::string error;
  auto v = parseJSON(text, &error);
  EXPECT_TRUE(v.has_value()) << text << ": " << error;
  return v ? *v : Value();
}

void rejected(std::string_view text) {
  std::string error;
  auto v = parseJSON(text, &error);
  EXPECT_FALSE(v.has_value()) << text << " parsed as " << (v ? toJSON(*v) : "");
  EXPECT_FALSE(error.empty()) << text;
}

TEST(JSONReadTest, NumbersBecomeIntegersRealsOrDecimals) {
  // Integers beyond 64 bits are reals; unsigned 64-bit values are kept exactly.
  // clang-format off
  const std::pair<const char*, Value> rows[] = {
      {"-42", Value(-42)}, {"-0", Value(0)}, {"1e-400", Value(0.0)},
      {"9223372036854775807", Value(INT64_MAX)}, {"-9223372036854775808", Value(INT64_MIN)},
      {"9.99", Value(Decimal::fromString("9.99"))},
      {"18446744073709551615", Value(Decimal::fromUInt(UINT64_MAX))},
      {"9223372036854775808", Value(9223372036854775808.0)},
      {"-9223372036854775809", Value(-9223372036854775808.0)},
      {"123456789012345678901234567890", Value(1.2345678901234568e29)},
  };
  // clang-format on
  for (const auto& [text, value] : rows) EXPECT_EQ(parsed(text), value) << text;
  EXPECT_EQ(parsed("-0").type(), Value::Type::kInteger);
  EXPECT_EQ(parsed("4.0").type(), Value::Type::kReal);
  EXPECT_EQ(parsed("-9223372036854775809").type(), Value::Type::kReal);
  const Value mixed = parsed(
      R"({"s":"123456789012345678901234567890","big":[-100000000000000000000000,7],"n":1e5})");
  EXPECT_EQ(mixed["s"], Value("123456789012345678901234567890"));
  EXPECT_EQ(mixed["big"][size_t{0}], Value(-1e23));
  EXPECT_EQ(mixed["big"][size_t{1}].type(), Value::Type::kInteger);
  EXPECT_EQ(mixed["n"], Value(100000));
  // Too large for a double is refused rather than made infinite; the widening does not make
  // malformed numbers acceptable. Then the cases the JSONTestSuite corpus leaves out.
  // clang-format off
  for (const std::string& text : {
           std::string("1e400"), "[-1" + std::string(400, '0') + "]",
           std::string("[0123456789012345678901234]"), std::string("[12345678901234567890123.]"),
           std::string("2n[-"), std::string("[1,-"), std::string(""), std::string("[1]x"),
           std::string("\xef\xbb\xbf[]"), std::string("[1]\0", 4), std::string("[\"a\0\"]", 6),
           std::string("\"\xc0\xaf\""), std::string("\"\\ud800x\""),
           std::string("\"\\ud800\\u0041\""), std::string("\"\\udc00\"")}) {
    rejected(text);
  }
  // clang-format on
  EXPECT_FALSE(parseJSON("[").has_value());  // no error string wanted: still no crash
}

TEST(JSONReadTest, StructureAndStrings) {
  const Value v = parsed(" \t\r\n{\"b\":[true,false,null],\"a\":{\"\":\"x\"}} \n");
  EXPECT_EQ(v.asDictionary()->entries()[0].first, "b");
  EXPECT_EQ(v["b"][size_t{2}], Value::null());
  EXPECT_EQ(v["a"][""], Value("x"));
  // A duplicated key keeps its first position and its last value, also in an object large
  // enough to be looked up through a hash index (the replaced string is freed while the
  // tree is still being built).
  EXPECT_EQ(parsed(R"({"k":1,"j":2,"k":3})").asDictionary()->entries(),
            (std::vector<Dictionary::Entry>{{"k", Value(3)}, {"j", Value(2)}}));
  std::string large = "{";
  for (int i = 0; i < 20; ++i) large += fmt::format(R"("key{}":"value {}",)", i, i);
  large += R"("key3":3,"key17":null})";
  const Value big = parsed(large);
  EXPECT_EQ(big.size(), 20u);
  EXPECT_EQ(big.asDictionary()->entries()[3], (Dictionary::Entry{"key3", Value(3)}));
  EXPECT_EQ(big["key17"], Value::null());
  EXPECT_EQ(big["key19"], Value("value 19"));

  EXPECT_EQ(parsed(R"("\u00e9\ud83d\ude00\/\"\\\b\f\n\r\t")"),
            Value("\xc3\xa9\xf0\x9f\x98\x80/\"\\\b\f\n\r\t"));
  EXPECT_EQ(parsed(R"("a\u0000b")"), Value(std::string("a\0b", 3)));
  EXPECT_EQ(parsed("\"caf\xc3\xa9\""), Value("caf\xc3\xa9"));
}

TEST(JSONReadTest, DepthIsLimited) {
  auto nested = [](size_t depth) { return std::string(depth, '[') + std::string(depth, ']'); };
  EXPECT_TRUE(parseJSON(nested(kMaxJSONDepth)).has_value());
  rejected(nested(kMaxJSONDepth + 1));
  std::string objects;
  for (size_t i = 0; i <= kMaxJSONDepth; ++i) objects += "{\"a\":";
  rejected(objects + "1" + std::string(kMaxJSONDepth + 1, '}'));
  rejected(std::string(1000000, '['));
}

TEST(JSONReadTest, ParsedValuesOutliveTheirDocument) {
  Value kept;
  Value list;
  {
    const Value doc =
        parsed(R"({"products":[{"title":{"en":"A title longer than fifteen bytes","de":"B"}}],)"
               R"("list":["one","two"]})");
    kept = doc["products"][size_t{0}]["title"];
    list = doc["list"];
  }
  kept.set("fr", Value("C"));
  list.append(Value("three"));
  EXPECT_EQ(toJSON(kept), R"({"en":"A title longer than fifteen bytes","de":"B","fr":"C"})");
  EXPECT_EQ(toJSON(list), R"(["one","two","three"])");
  // The last reference may go on another thread.
  std::thread([v = std::move(kept)]() mutable { v = Value(); }).join();
}

TEST(JSONWriteTest, CompactOutput) {
  Value v;
  v.set("b", Value(1));
  v.set("a",
        Value(Array{Value(true), Value::null(), Value(), Value(Array{}), Value(Dictionary{})}));
  // Malformed UTF-8 is replaced, so the output is still JSON; data is base64.
  // clang-format off
  const std::pair<Value, std::string> rows[] = {
      {v, R"({"b":1,"a":[true,null,null,[],{}]})"}, {Value(false), "false"},
      {Value(INT64_MIN), "-9223372036854775808"}, {Value(UINT64_MAX), "18446744073709551615"},
      {Value(0.1), "0.1"}, {Value(1e22), "1e+22"}, {Value(5e-324), "5e-324"}, {Value(-0.0), "-0"},
      {Value(std::nan("")), "null"}, {Value(-INFINITY), "null"},
      {Value(Decimal::fromString("-9.990")), "-9.99"}, {Value(Decimal::notANumber()), "null"},
      {Value(Decimal::fromString("1e40")), "1" + std::string(40, '0')},
      {Value("a/b\"c\\d"), R"("a/b\"c\\d")"},
      {Value(std::string("\x01\x1f\x7f\n\t\0", 6)), "\"\\u0001\\u001f\x7f\\n\\t\\u0000\""},
      {Value("caf\xc3\xa9 \xe2\x80\xa8"), "\"caf\xc3\xa9 \xe2\x80\xa8\""},
      {Value("a\xff" "b\xc3"), "\"a\xef\xbf\xbd" "b\xef\xbf\xbd\""},
      {Value(Date::fromMicrosSince1970(1709634030000000)), "\"2024-03-05 10:20:30 +0000\""},
      {Value(Data{}), "\"\""}, {Value(Data{'f'}), "\"Zg==\""}, {Value(Data{'f', 'o'}), "\"Zm8=\""},
      {Value(Data{0xfb, 0xff, 0xfe, 'b', 'c', 'd'}), "\"+//+YmNk\""},
  };
  // clang-format on
  for (const auto& [value, text] : rows) EXPECT_EQ(toJSON(value), text) << text;
}

}  // namespace
}  // namespace zbiap

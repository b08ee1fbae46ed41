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

std::string rejected(std::string_view text) {
  std::string error;
  auto v = parseJSON(text, &error);
  EXPECT_FALSE(v.has_value()) << text << " parsed as " << (v ? toJSON(*v) : "");
  EXPECT_FALSE(error.empty()) << text;
  return error;
}

TEST(JSONReadTest, NumbersBecomeIntegersRealsOrDecimals) {
  EXPECT_EQ(parsed("42").type(), Value::Type::kInteger);
  EXPECT_EQ(parsed("-42").int64Value(), -42);
  EXPECT_EQ(parsed("9223372036854775807").int64Value(), INT64_MAX);
  EXPECT_EQ(parsed("-9223372036854775808").int64Value(), INT64_MIN);
  EXPECT_EQ(parsed("-0").type(), Value::Type::kInteger);
  EXPECT_EQ(parsed("4.0").type(), Value::Type::kReal);
  EXPECT_EQ(parsed("1e2").type(), Value::Type::kReal);
  EXPECT_EQ(parsed("9.99").doubleValue(), 9.99);
  EXPECT_EQ(parsed("9.99").decimalValue(), Decimal::fromString("9.99"));
  EXPECT_EQ(parsed("1e-400").doubleValue(), 0.0);
  // Unsigned 64-bit values are kept exactly.
  EXPECT_EQ(parsed("18446744073709551615"), Value(Decimal::fromUInt(UINT64_MAX)));
  EXPECT_EQ(parsed("9223372036854775808"), Value(9223372036854775808.0));
  // Integers beyond 64 bits are reals, even inside larger documents.
  EXPECT_EQ(parsed("123456789012345678901234567890"), Value(1.2345678901234568e29));
  EXPECT_EQ(parsed("-9223372036854775809"), Value(-9223372036854775808.0));
  EXPECT_EQ(parsed("-9223372036854775809").type(), Value::Type::kReal);
  const Value mixed = parsed(
      R"({"s":"123456789012345678901234567890","big":[-100000000000000000000000,7],"n":1e5})");
  EXPECT_EQ(mixed["s"], Value("123456789012345678901234567890"));
  EXPECT_EQ(mixed["big"][size_t{0}], Value(-1e23));
  EXPECT_EQ(mixed["big"][size_t{1}].type(), Value::Type::kInteger);
  EXPECT_EQ(mixed["n"], Value(100000));
  // Numbers too large for a double are refused rather than made infinite.
  rejected("1e400");
  rejected("[-1" + std::string(400, '0') + "]");
  // The widening does not make malformed numbers acceptable.
  rejected("[0123456789012345678901234]");
  rejected("[12345678901234567890123.]");
  rejected("[-]");
  rejected("2n[-");
  rejected("[1,-");
}

TEST(JSONReadTest, StructureAndStrings) {
  const Value v = parsed(" \t\r\n{\"b\":[true,false,null],\"a\":{\"\":\"x\"}} \n");
  ASSERT_TRUE(v.isDictionary());
  EXPECT_EQ(v.asDictionary()->entries()[0].first, "b");
  EXPECT_EQ(v["b"][size_t{2}], Value::null());
  EXPECT_EQ(v["a"][""], Value("x"));
  // A duplicated key keeps its first position and its last value.
  const Value dup = parsed(R"({"k":1,"j":2,"k":3})");
  EXPECT_EQ(dup.size(), 2u);
  EXPECT_EQ(dup.asDictionary()->entries()[0], (Dictionary::Entry{"k", Value(3)}));
  // The same in an object large enough to be looked up through a hash index; the replaced
  // string is freed while the tree is still being built.
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
  EXPECT_EQ(parsed("\"  \""), Value("  "));
}

TEST(JSONReadTest, RejectsWhatRFC8259Rejects) {
  for (const char* text :
       {"",          " ",      "[1,]",           "{\"a\":1,}", "[1 2]",
        "{\"a\" 1}", "{a:1}",  "['a']",          "[1]x",       "1 2",
        "[01]",      "[1.]",   "[.5]",           "[+1]",       "[1e]",
        "[0x10]",    "[NaN]",  "[Infinity]",     "[tru]",      "[truex]",
        "[nul]",     "\"\t\"", "\"\\x41\"",      "\"\\u12\"",  "[\"unterminated]",
        "/*c*/[]",   "[]//",   "\xef\xbb\xbf[]", "{\"a\":1}}", "[[]"}) {
    rejected(text);
  }
  rejected(std::string("[1]\0", 4));
  rejected(std::string("[\"a\0\"]", 6));
  // Malformed UTF-8 and unpaired surrogates.
  for (const char* text : {"\"\xff\"", "\"\xc3\"", "\"\xed\xa0\x80\"", "\"\xc0\xaf\"",
                           "\"\\ud800\"", "\"\\udc00\"", "\"\\ud800\\u0041\"", "\"\\ud800x\""}) {
    rejected(text);
  }
  // No error string wanted: still no crash.
  EXPECT_FALSE(parseJSON("[").has_value());
}

TEST(JSONReadTest, DepthIsLimited) {
  const std::string deepest = std::string(kMaxJSONDepth, '[') + std::string(kMaxJSONDepth, ']');
  EXPECT_TRUE(parseJSON(deepest).has_value());
  const std::string deeper =
      std::string(kMaxJSONDepth + 1, '[') + std::string(kMaxJSONDepth + 1, ']');
  rejected(deeper);
  std::string objects;
  for (size_t i = 0; i <= kMaxJSONDepth; ++i) objects += "{\"a\":";
  objects += "1" + std::string(kMaxJSONDepth + 1, '}');
  rejected(objects);
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
  EXPECT_EQ(kept["en"], Value("A title longer than fifteen bytes"));
  kept.set("fr", Value("C"));
  list.append(Value("three"));
  EXPECT_EQ(toJSON(kept), R"({"en":"A title longer than fifteen bytes","de":"B","fr":"C"})");
  EXPECT_EQ(toJSON(list), R"(["one","two","three"])");
  // The last reference may go on another thread.
  std::thread([v = std::move(kept)]() mutable { v = Value(); }).join();
}

TEST(JSONReadTest, ParsesOnManyThreadsAtOnce) {
  std::vector<std::thread> threads;
  std::vector<int> ok(4, 0);
  for (int t = 0; t < 4; ++t) {
    threads.emplace_back([&ok, t] {
      for (int i = 0; i < 500; ++i) {
        const std::string text = "{\"n\":" + std::to_string(i * t) + ",\"s\":[\"x\"]}";
        auto v = parseJSON(text);
        ok[t] += v && (*v)["n"] == Value(i * t);
      }
    });
  }
  for (auto& th : threads) th.join();
  for (int n : ok) EXPECT_EQ(n, 500);
}

TEST(JSONWriteTest, CompactOutput) {
  Value v;
  v.set("b", Value(1));
  v.set("a", Value(Array{Value(true), Value::null(), Value(), Value("x"), Value(Array{}),
                         Value(Dictionary{})}));
  EXPECT_EQ(toJSON(v), R"({"b":1,"a":[true,null,null,"x",[],{}]})");
}

TEST(JSONWriteTest, Numbers) {
  EXPECT_EQ(toJSON(Value(INT64_MIN)), "-9223372036854775808");
  EXPECT_EQ(toJSON(Value(false)), "false");
  EXPECT_EQ(toJSON(Value(0.1)), "0.1");
  EXPECT_EQ(toJSON(Value(9.99)), "9.99");
  EXPECT_EQ(toJSON(Value(1e22)), "1e+22");
  EXPECT_EQ(toJSON(Value(5e-324)), "5e-324");
  EXPECT_EQ(toJSON(Value(-0.0)), "-0");
  EXPECT_EQ(toJSON(Value(std::nan(""))), "null");
  EXPECT_EQ(toJSON(Value(-INFINITY)), "null");
  EXPECT_EQ(toJSON(Value(Decimal::fromString("-9.990"))), "-9.99");
  EXPECT_EQ(toJSON(Value(Decimal::fromString("1e40"))), "1" + std::string(40, '0'));
  EXPECT_EQ(toJSON(Value(Decimal::notANumber())), "null");
  EXPECT_EQ(toJSON(Value(UINT64_MAX)), "18446744073709551615");
}

TEST(JSONWriteTest, StringsDatesAndData) {
  EXPECT_EQ(toJSON(Value("a/b\"c\\d")), R"("a/b\"c\\d")");
  EXPECT_EQ(toJSON(Value(std::string("\x01\x1f\x7f\n\t\0", 6))), R"("\u0001\u001f)"
                                                                 "\x7f"
                                                                 R"(\n\t\u0000")");
  EXPECT_EQ(toJSON(Value("caf\xc3\xa9 \xe2\x80\xa8")), "\"caf\xc3\xa9 \xe2\x80\xa8\"");
  // Malformed UTF-8 is replaced, so the output is still JSON.
  EXPECT_EQ(toJSON(Value("a\xff"
                         "b\xc3")),
            "\"a\xef\xbf\xbd"
            "b\xef\xbf\xbd\"");
  EXPECT_EQ(toJSON(Value(Date::fromMicrosSince1970(1709634030000000))),
            "\"2024-03-05 10:20:30 +0000\"");
  EXPECT_EQ(toJSON(Value(Data{})), "\"\"");
  EXPECT_EQ(toJSON(Value(Data{'f'})), "\"Zg==\"");
  EXPECT_EQ(toJSON(Value(Data{'f', 'o'})), "\"Zm8=\"");
  EXPECT_EQ(toJSON(Value(Data{'f', 'o', 'o'})), "\"Zm9v\"");
  EXPECT_EQ(toJSON(Value(Data{0xfb, 0xff, 0xfe, 'b'})), "\"+//+Yg==\"");
}

TEST(JSONRoundTripTest, ValuesSurviveWritingAndReading) {
  Dictionary product;
  product.set("identifier", Value("com.example.pro"));
  product.set("title", Value(Dictionary{{"en", Value("Pro \xe2\x9c\xa8")}, {"de", Value("Pro")}}));
  product.set("sort_key", Value(10));
  product.set("old_price", Value(Decimal::fromString("19.99")));
  product.set("ratio", Value(1.0 / 3.0));
  product.set("tiny", Value(-2.2250738585072014e-308));
  product.set("flags", Value(Array{Value(true), Value(false), Value::null()}));
  product.set("control", Value(std::string("\x00\x01 \" \\ /", 8)));
  for (int i = 0; i < 40; ++i) product.set("k" + std::to_string(i), Value(i * 1.5));
  const Value original(Array{Value(std::move(product)), Value(INT64_MAX), Value(""),
                             Value(Decimal::fromString("-0.000001"))});
  const std::string text = toJSON(original);
  const Value back = parsed(text);
  EXPECT_EQ(back, original);
  // Decimals come back as reals, so the text settles after one round.
  EXPECT_EQ(toJSON(parsed(toJSON(back))), toJSON(back));
  EXPECT_EQ(back[size_t{0}].asDictionary()->entries()[1].first, "title");
}

}  // namespace
}  // namespace zbiap

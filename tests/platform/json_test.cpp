#include <cmath>
#include <cstdint>
#include <limits>
#include <string>

#include <gtest/gtest.h>

#include "vesk/variant/variant.h"

using namespace vesk::variant;

namespace {

Variant Parse(const std::string& text) {
  Variant v;
  std::string error;
  EXPECT_TRUE(Variant::FromJson(text, v, error)) << text << ": " << error;
  return v;
}

std::string ParseError(const std::string& text) {
  Variant v("previous");
  std::string error;
  EXPECT_FALSE(Variant::FromJson(text, v, error)) << text;
  EXPECT_TRUE(v.IsUndefined());
  return error;
}

}  // namespace

TEST(VariantJson, RoundTripOfANestedDocumentWithSortedKeys) {
  Variant v = Parse(
      "{ \"video\": {\"width\": 1920, \"fps\": 29.97, \"enabled\": true},\n"
      "  \"destinations\": [\"tcp://127.0.0.1:1935\", \"file:///tmp/a.flv\"],\n"
      "  \"audio\": null, \"empty\": {}, \"none\": [], \"neg\": -12 }");
  EXPECT_EQ(V_INT64, v["video"]["width"].GetType());
  EXPECT_EQ(V_DOUBLE, v["video"]["fps"].GetType());
  EXPECT_EQ(V_BOOL, v["video"]["enabled"].GetType());
  EXPECT_TRUE(v["audio"].IsNull());
  EXPECT_TRUE(v["destinations"].IsArray());
  EXPECT_TRUE(v["empty"].IsMap());
  EXPECT_TRUE(v["none"].IsArray());
  EXPECT_EQ(
      "{\"audio\":null,\"destinations\":[\"tcp://127.0.0.1:1935\",\"file:///tmp/a.flv\"],"
      "\"empty\":{},\"neg\":-12,\"none\":[],\"video\":{\"enabled\":true,\"fps\":29.97,\"width\":1920}}",
      v.ToJson());
  EXPECT_EQ(v, Parse(v.ToJson(true)));

  Variant small;
  small["b"][0] = 1;  // a map with a numeric key prints as an object
  small["a"] = "x";
  small["c"].PushToArray(Variant(true));
  EXPECT_EQ("{\n  \"a\": \"x\",\n  \"b\": {\n    \"0\": 1\n  },\n  \"c\": [\n    true\n  ]\n}", small.ToJson(true));
}

TEST(VariantJson, IntegerWidthsAndEveryScalarKind) {
  Variant v = Parse(
      "[-1, 9223372036854775807, 9223372036854775808, 18446744073709551615,"
      " -9223372036854775808, 18446744073709551616, 1.0, 1e2]");
  const VariantType types[] = {V_INT64, V_INT64, V_UINT64, V_UINT64, V_INT64, V_DOUBLE, V_DOUBLE, V_DOUBLE};
  for (int i = 0; i < 8; i++) EXPECT_EQ(types[i], v[i].GetType()) << i;  // beyond 64 bits: a double
  EXPECT_EQ(std::numeric_limits<unsigned long long>::max(), (unsigned long long)v[3]);
  EXPECT_EQ(std::numeric_limits<long long>::min(), (long long)v[4]);
  EXPECT_EQ(
      "[-1,9223372036854775807,9223372036854775808,18446744073709551615,"
      "-9223372036854775808,1.8446744073709552e+19,1.0,100.0]",
      v.ToJson());

  Variant s;
  s["u8"] = (unsigned char)200;
  s["i8"] = (signed char)-100;
  s["d"] = 0.1;
  s["third"] = 1.0 / 3.0;
  s["nan"] = std::nan("");
  s["inf"] = std::numeric_limits<double>::infinity();
  s["t"] = timeval{1700000000, 123999};
  s["undef"];
  EXPECT_EQ(
      "{\"d\":0.1,\"i8\":-100,\"inf\":null,\"nan\":null,\"t\":1700000000123,"
      "\"third\":0.3333333333333333,\"u8\":200,\"undef\":null}",
      s.ToJson());
  EXPECT_EQ(1.0 / 3.0, (double)Parse(s.ToJson())["third"]);

  // An array with a gap is printed as an object.
  Variant sparse;
  sparse.IsArray(true);
  sparse[0] = 1;
  sparse[2] = 3;
  EXPECT_EQ("{\"0\":1,\"2\":3}", sparse.ToJson());
}

TEST(VariantJson, StringsAreEscapedAndReadBack) {
  std::string raw = "quote\" backslash\\ slash/ nl\n cr\r tab\t bs\b ff\f ctl\x01 e\xC3\xA9 end";
  EXPECT_EQ("\"quote\\\" backslash\\\\ slash/ nl\\n cr\\r tab\\t bs\\b ff\\f ctl\\u0001 e\xC3\xA9 end\"",
            Variant(raw).ToJson());
  EXPECT_EQ(raw, (std::string)Parse(Variant(raw).ToJson()));
  Variant key;
  key["a\"b"] = 1;
  EXPECT_EQ("{\"a\\\"b\":1}", key.ToJson());

  // Bytes that are not UTF-8 cannot appear in JSON: they become U+FFFD.
  Variant bad(std::string("a\xFF" "b\xC3"));
  EXPECT_EQ("\"a\\ufffdb\\ufffd\"", bad.ToJson());
  EXPECT_EQ("\xE2\x82\xAC", (std::string)Parse("\"\\u20ac\""));
}

TEST(VariantJson, SyntaxErrorsNameLineAndColumn) {
  struct {
    std::string text, where;
  } cases[] = {
      {"{\n  \"a\": 1,\n  \"b\": ]\n}", "line 3, column 8"}, {"[1,]", "line 1, column 4"}, {"", "line 1, column 1"},
      {"{\"a\": 1} 5", "line 1, column 10"}, {"\n\n\"unterminated", "line 3"}, {"{\"a\": tru}", "line 1"},
      {"[1e999]", "line 1"}, {"{\"a\" 1}", "line 1"}, {std::string("\"nul \0 inside\"", 14), "line 1"},
      // Deep nesting is refused rather than recursing without bound.
      {std::string(100000, '['), "nesting"},
  };
  for (const auto& c : cases) {
    std::string error = ParseError(c.text);
    EXPECT_NE(std::string::npos, error.find(c.where)) << c.text.substr(0, 20) << ": " << error;
  }
  EXPECT_NE(std::string::npos, ParseError("{\n  \"a\": 1,\n  \"b\": ]\n}").find("unexpected ']'"));
  Parse(std::string(100, '[') + std::string(100, ']'));
}

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
  EXPECT_EQ("", error);
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
  const std::string text =
      "{ \"video\": {\"width\": 1920, \"height\": 1080, \"fps\": 29.97, \"enabled\": true},\n"
      "  \"destinations\": [\"tcp://127.0.0.1:1935\", \"file:///tmp/a.flv\"],\n"
      "  \"audio\": null, \"empty\": {}, \"none\": [], \"neg\": -12 }";
  Variant v = Parse(text);
  EXPECT_TRUE(v.IsMap());
  EXPECT_EQ(V_INT64, v["video"]["width"].GetType());
  EXPECT_EQ(1920, (int)v["video"]["width"]);
  EXPECT_EQ(V_DOUBLE, v["video"]["fps"].GetType());
  EXPECT_EQ(V_BOOL, v["video"]["enabled"].GetType());
  EXPECT_TRUE(v["audio"].IsNull());
  EXPECT_TRUE(v["destinations"].IsArray());
  EXPECT_EQ(2u, v["destinations"].NumericKeysCount());
  EXPECT_EQ("file:///tmp/a.flv", (std::string)v["destinations"][1]);
  EXPECT_TRUE(v["empty"].IsMap());
  EXPECT_TRUE(v["none"].IsArray());

  const std::string compact =
      "{\"audio\":null,\"destinations\":[\"tcp://127.0.0.1:1935\",\"file:///tmp/a.flv\"],"
      "\"empty\":{},\"neg\":-12,\"none\":[],"
      "\"video\":{\"enabled\":true,\"fps\":29.97,\"height\":1080,\"width\":1920}}";
  EXPECT_EQ(compact, v.ToJson());
  EXPECT_EQ(v, Parse(v.ToJson()));
  EXPECT_EQ(v, Parse(v.ToJson(true)));

  Variant small;
  small["b"][0] = 1;  // a map with a numeric key prints as an object
  small["a"] = "x";
  small["c"].PushToArray(Variant(true));
  EXPECT_EQ(
      "{\n"
      "  \"a\": \"x\",\n"
      "  \"b\": {\n"
      "    \"0\": 1\n"
      "  },\n"
      "  \"c\": [\n"
      "    true\n"
      "  ]\n"
      "}",
      small.ToJson(true));
}

TEST(VariantJson, IntegerWidthsAndBigUnsignedValues) {
  Variant v = Parse(
      "[0, -1, 9223372036854775807, 9223372036854775808, 18446744073709551615,"
      " -9223372036854775808, 18446744073709551616, 1.0, 1e2, -0.5]");
  EXPECT_EQ(V_INT64, v[0].GetType());
  EXPECT_EQ(V_INT64, v[1].GetType());
  EXPECT_EQ(-1LL, (long long)v[1]);
  EXPECT_EQ(V_INT64, v[2].GetType());
  EXPECT_EQ(std::numeric_limits<long long>::max(), (long long)v[2]);
  EXPECT_EQ(V_UINT64, v[3].GetType());
  EXPECT_EQ(9223372036854775808ULL, (unsigned long long)v[3]);
  EXPECT_EQ(V_UINT64, v[4].GetType());
  EXPECT_EQ(std::numeric_limits<unsigned long long>::max(), (unsigned long long)v[4]);
  EXPECT_EQ(V_INT64, v[5].GetType());
  EXPECT_EQ(std::numeric_limits<long long>::min(), (long long)v[5]);
  EXPECT_EQ(V_DOUBLE, v[6].GetType());  // beyond 64 bits
  EXPECT_EQ(V_DOUBLE, v[7].GetType());
  EXPECT_EQ(V_DOUBLE, v[8].GetType());
  EXPECT_EQ(100.0, (double)v[8]);

  EXPECT_EQ(
      "[0,-1,9223372036854775807,9223372036854775808,18446744073709551615,"
      "-9223372036854775808,1.8446744073709552e+19,1.0,100.0,-0.5]",
      v.ToJson());
  EXPECT_EQ(v.ToJson(), Parse(v.ToJson()).ToJson());
}

TEST(VariantJson, PrintsEveryScalarKind) {
  Variant v;
  v["u8"] = (unsigned char)200;
  v["i8"] = (signed char)-100;
  v["d"] = 0.1;
  v["third"] = 1.0 / 3.0;
  v["nan"] = std::nan("");
  v["inf"] = std::numeric_limits<double>::infinity();
  struct timeval tv = {1700000000, 123999};
  v["t"] = tv;
  v["undef"];
  EXPECT_EQ(
      "{\"d\":0.1,\"i8\":-100,\"inf\":null,\"nan\":null,\"t\":1700000000123,"
      "\"third\":0.3333333333333333,\"u8\":200,\"undef\":null}",
      v.ToJson());
  EXPECT_EQ(1.0 / 3.0, (double)Parse(v.ToJson())["third"]);

  // An array with a gap or with string keys is printed as an object.
  Variant sparse;
  sparse.IsArray(true);
  sparse[0] = 1;
  sparse[2] = 3;
  EXPECT_EQ("{\"0\":1,\"2\":3}", sparse.ToJson());
  EXPECT_EQ("1.5", Variant(1.5).ToJson());
  EXPECT_EQ("\"x\"", Variant("x").ToJson());
}

TEST(VariantJson, StringsAreEscapedAndReadBack) {
  std::string raw = "quote\" backslash\\ slash/ nl\n cr\r tab\t bs\b ff\f ctl\x01 e\xC3\xA9 end";
  Variant v(raw);
  EXPECT_EQ(
      "\"quote\\\" backslash\\\\ slash/ nl\\n cr\\r tab\\t bs\\b ff\\f ctl\\u0001 "
      "e\xC3\xA9 end\"",
      v.ToJson());
  EXPECT_EQ(raw, (std::string)Parse(v.ToJson()));

  Variant key;
  key["a\"b"] = 1;
  EXPECT_EQ("{\"a\\\"b\":1}", key.ToJson());
  EXPECT_EQ(1, (int)Parse(key.ToJson())["a\"b"]);

  // Bytes that are not UTF-8 cannot appear in JSON: they become U+FFFD.
  Variant bad(std::string("a\xFF" "b\xC3"));
  EXPECT_EQ("\"a\\ufffdb\\ufffd\"", bad.ToJson());
  EXPECT_EQ("a\xEF\xBF\xBD" "b\xEF\xBF\xBD", (std::string)Parse(bad.ToJson()));

  EXPECT_EQ("\xE2\x82\xAC", (std::string)Parse("\"\\u20ac\""));
}

TEST(VariantJson, SyntaxErrorsNameLineAndColumn) {
  std::string error = ParseError("{\n  \"a\": 1,\n  \"b\": ]\n}");
  EXPECT_NE(std::string::npos, error.find("line 3, column 8")) << error;
  EXPECT_NE(std::string::npos, error.find("unexpected ']'")) << error;

  error = ParseError("[1,]");
  EXPECT_NE(std::string::npos, error.find("line 1, column 4")) << error;

  error = ParseError("");
  EXPECT_NE(std::string::npos, error.find("line 1, column 1")) << error;

  error = ParseError("{\"a\": 1} 5");
  EXPECT_NE(std::string::npos, error.find("line 1, column 10")) << error;

  error = ParseError("\n\n\"unterminated");
  EXPECT_NE(std::string::npos, error.find("line 3")) << error;

  ParseError("{\"a\": tru}");
  ParseError("[1e999]");
  ParseError("{\"a\" 1}");
  ParseError(std::string("\"nul \0 inside\"", 14));

  // Deep nesting is refused rather than recursing without bound.
  std::string deep(100000, '[');
  error = ParseError(deep);
  EXPECT_NE(std::string::npos, error.find("nesting")) << error;
  Parse(std::string(100, '[') + std::string(100, ']'));
}

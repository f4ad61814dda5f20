// Variant serialisation: JSON both ways, AMF0 out.
#include <cmath>
#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "vesk/utils/iobuffer.h"
#include "vesk/variant/variant.h"

using vesk::utils::IOBuffer;
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

typedef std::vector<uint8_t> bytes_t;

bytes_t Amf(const Variant& v) {
  IOBuffer buffer;
  EXPECT_TRUE(v.ToAMF(buffer));
  return bytes_t(buffer.GetPointer(), buffer.GetPointer() + buffer.GetAvailable());
}

// Concatenates byte lists and texts.
bytes_t Cat(std::initializer_list<bytes_t> parts) {
  bytes_t out;
  for (const auto& p : parts) out.insert(out.end(), p.begin(), p.end());
  return out;
}
bytes_t Text(const std::string& s) { return bytes_t(s.begin(), s.end()); }

}  // namespace

TEST(VariantJson, RoundTripOfANestedDocumentWithSortedKeys) {
  Variant v = Parse(
      "{ \"video\": {\"width\": 1920, \"fps\": 29.97, \"enabled\": true},\n"
      "  \"destinations\": [\"tcp://127.0.0.1:1935\", \"file:///tmp/a.flv\"],\n"
      "  \"audio\": null, \"empty\": {}, \"none\": [], \"neg\": -12 }");
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

TEST(VariantAmf, ScalarsAreByteExact) {
  EXPECT_EQ(Cat({{0x02, 0x00, 0x0A}, Text("onMetaData")}), Amf(Variant("onMetaData")));
  EXPECT_EQ((bytes_t{0x00, 0x3F, 0xF0, 0, 0, 0, 0, 0, 0}), Amf(Variant(1.0)));
  EXPECT_EQ(Amf(Variant(1.0)), Amf(Variant((unsigned char)1))) << "every numeric kind is an AMF0 number";
  EXPECT_EQ((bytes_t{0x00, 0xC0, 0x00, 0, 0, 0, 0, 0, 0}), Amf(Variant(-2)));
  EXPECT_EQ((bytes_t{0x00, 0x40, 0x8F, 0x40, 0, 0, 0, 0, 0}), Amf(Variant(1000ULL)));
  EXPECT_EQ((bytes_t{0x01, 0x01}), Amf(Variant(true)));
  EXPECT_EQ((bytes_t{0x01, 0x00}), Amf(Variant(false)));
  Variant null;
  null.Reset();
  EXPECT_EQ((bytes_t{0x05}), Amf(null));
  EXPECT_EQ((bytes_t{0x06}), Amf(Variant()));
  struct timeval tv = {1, 500000};  // 1500 ms
  EXPECT_EQ((bytes_t{0x0B, 0x40, 0x97, 0x70, 0, 0, 0, 0, 0, 0x00, 0x00}), Amf(Variant(tv)));
}

TEST(VariantAmf, ObjectsWriteSortedKeysNumericFirstAndTheEndMarker) {
  Variant map;
  map["width"] = 1.0;
  map["hasAudio"] = true;
  map["a"]["inner"] = "b";
  map[10] = false;
  map[2] = false;
  EXPECT_EQ(Cat({{0x03},
                 {0x00, 0x01}, Text("2"), {0x01, 0x00},
                 {0x00, 0x02}, Text("10"), {0x01, 0x00},
                 {0x00, 0x01}, Text("a"), {0x03, 0x00, 0x05}, Text("inner"), {0x02, 0x00, 0x01}, Text("b"),
                 {0x00, 0x00, 0x09},
                 {0x00, 0x08}, Text("hasAudio"), {0x01, 0x01},
                 {0x00, 0x05}, Text("width"), {0x00, 0x3F, 0xF0, 0, 0, 0, 0, 0, 0},
                 {0x00, 0x00, 0x09}}),
            Amf(map));
}

TEST(VariantAmf, LongStringsAndArrays) {
  bytes_t shortForm = Amf(Variant(std::string(65535, 'x')));
  ASSERT_EQ(3u + 65535u, shortForm.size());
  EXPECT_EQ((bytes_t{0x02, 0xFF, 0xFF}), bytes_t(shortForm.begin(), shortForm.begin() + 3));
  bytes_t longForm = Amf(Variant(std::string(70000, 'y')));
  ASSERT_EQ(5u + 70000u, longForm.size());
  EXPECT_EQ((bytes_t{0x0C, 0x00, 0x01, 0x11, 0x70}), bytes_t(longForm.begin(), longForm.begin() + 5));

  Variant array;
  array.PushToArray(Variant("a"));
  array.PushToArray(Variant(true));
  EXPECT_EQ(Cat({{0x0A, 0x00, 0x00, 0x00, 0x02}, {0x02, 0x00, 0x01}, Text("a"), {0x01, 0x01}}), Amf(array));
}

TEST(VariantAmf, ValuesWithoutAnAmf0FormFailAndLeaveTheBufferAlone) {
  IOBuffer buffer;
  ASSERT_TRUE(buffer.ReadFromString("head"));
  Variant longKey;  // an object key is limited to 16 bits of length
  longKey["ok"] = 1;
  longKey[std::string(65536, 'k')] = 1;
  Variant named;  // a strict array carries neither string keys nor gaps
  named.IsArray(true);
  named[0] = 1;
  named["name"] = 2;
  Variant gap;
  gap.IsArray(true);
  gap[0] = 1;
  gap[2] = 3;
  Variant outer;  // a failure deep inside a map fails the whole value
  outer["a"] = "fine";
  outer["z"] = gap;
  for (const Variant* v : {&longKey, &named, &gap, &outer}) EXPECT_FALSE(v->ToAMF(buffer));
  EXPECT_EQ("head", std::string((const char*)buffer.GetPointer(), buffer.GetAvailable()));

  EXPECT_TRUE(Variant(false).ToAMF(buffer));
  EXPECT_EQ(6u, buffer.GetAvailable()) << "appends after what is there";
}

#include <cstdint>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "vesk/utils/iobuffer.h"
#include "vesk/variant/variant.h"

using vesk::utils::IOBuffer;
using namespace vesk::variant;

namespace {

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

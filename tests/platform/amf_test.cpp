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

bytes_t Text(const std::string& s) { return bytes_t(s.begin(), s.end()); }

bytes_t Cat(std::initializer_list<bytes_t> parts) {
  bytes_t out;
  for (const auto& p : parts) out.insert(out.end(), p.begin(), p.end());
  return out;
}

}  // namespace

TEST(VariantAmf, ScalarsAreByteExact) {
  EXPECT_EQ(Cat({{0x02, 0x00, 0x0A}, Text("onMetaData")}), Amf(Variant("onMetaData")));
  EXPECT_EQ((bytes_t{0x00, 0x3F, 0xF0, 0, 0, 0, 0, 0, 0}), Amf(Variant(1.0)));
  // Every numeric kind is an AMF0 number.
  EXPECT_EQ(Amf(Variant(1.0)), Amf(Variant((unsigned char)1)));
  EXPECT_EQ(Amf(Variant(1.0)), Amf(Variant(1ULL)));
  EXPECT_EQ((bytes_t{0x00, 0xC0, 0x00, 0, 0, 0, 0, 0, 0}), Amf(Variant(-2)));
  EXPECT_EQ((bytes_t{0x00, 0x40, 0x8F, 0x40, 0, 0, 0, 0, 0}), Amf(Variant(1000u)));
  EXPECT_EQ((bytes_t{0x01, 0x01}), Amf(Variant(true)));
  EXPECT_EQ((bytes_t{0x01, 0x00}), Amf(Variant(false)));
  Variant null;
  null.Reset();
  EXPECT_EQ((bytes_t{0x05}), Amf(null));
  EXPECT_EQ((bytes_t{0x06}), Amf(Variant()));
  EXPECT_EQ((bytes_t{0x02, 0x00, 0x00}), Amf(Variant("")));
  struct timeval tv = {1, 500000};  // 1500 ms
  EXPECT_EQ((bytes_t{0x0B, 0x40, 0x97, 0x70, 0, 0, 0, 0, 0, 0x00, 0x00}), Amf(Variant(tv)));
}

TEST(VariantAmf, ObjectsWriteSortedKeysAndTheEndMarker) {
  Variant map;
  map["width"] = 1.0;
  map["hasAudio"] = true;
  bytes_t expected = Cat({{0x03},
                          {0x00, 0x08}, Text("hasAudio"), {0x01, 0x01},
                          {0x00, 0x05}, Text("width"), {0x00, 0x3F, 0xF0, 0, 0, 0, 0, 0, 0},
                          {0x00, 0x00, 0x09}});
  EXPECT_EQ(expected, Amf(map));

  // Numeric keys come first, as decimal text.
  Variant mixed;
  mixed["a"] = "b";
  mixed[10] = false;
  mixed[2] = false;
  EXPECT_EQ(Cat({{0x03},
                 {0x00, 0x01}, Text("2"), {0x01, 0x00},
                 {0x00, 0x02}, Text("10"), {0x01, 0x00},
                 {0x00, 0x01}, Text("a"), {0x02, 0x00, 0x01}, Text("b"),
                 {0x00, 0x00, 0x09}}),
            Amf(mixed));

  Variant nested;
  nested["inner"].IsArray(false);
  EXPECT_EQ(Cat({{0x03, 0x00, 0x05}, Text("inner"), {0x03, 0x00, 0x00, 0x09}, {0x00, 0x00, 0x09}}),
            Amf(nested));

  // The clock-sync map of an FLV stream: the keys land at fixed offsets.
  Variant clock;
  clock["streamClockBase"] = 0.0;
  clock["streamClock"] = 0.0;
  clock["wallClock"] = 0.0;
  bytes_t c = Amf(clock);
  ASSERT_EQ(72u, c.size());
  EXPECT_EQ(Cat({{0x00, 0x0B}, Text("streamClock"), {0x00}}), bytes_t(c.begin() + 1, c.begin() + 15));
  EXPECT_EQ(Cat({{0x00, 0x0F}, Text("streamClockBase"), {0x00}}),
            bytes_t(c.begin() + 23, c.begin() + 41));
  EXPECT_EQ(Cat({{0x00, 0x09}, Text("wallClock"), {0x00}}), bytes_t(c.begin() + 49, c.begin() + 61));
  EXPECT_EQ((bytes_t{0x00, 0x00, 0x09}), bytes_t(c.end() - 3, c.end()));
}

TEST(VariantAmf, LongStringsAndArrays) {
  std::string limit(65535, 'x');
  bytes_t shortForm = Amf(Variant(limit));
  ASSERT_EQ(3u + 65535u, shortForm.size());
  EXPECT_EQ((bytes_t{0x02, 0xFF, 0xFF}), bytes_t(shortForm.begin(), shortForm.begin() + 3));

  std::string longText(70000, 'y');
  bytes_t longForm = Amf(Variant(longText));
  ASSERT_EQ(5u + 70000u, longForm.size());
  EXPECT_EQ((bytes_t{0x0C, 0x00, 0x01, 0x11, 0x70}), bytes_t(longForm.begin(), longForm.begin() + 5));
  EXPECT_EQ('y', longForm.back());

  Variant array;
  array.PushToArray(Variant("a"));
  array.PushToArray(Variant(true));
  EXPECT_EQ(Cat({{0x0A, 0x00, 0x00, 0x00, 0x02}, {0x02, 0x00, 0x01}, Text("a"), {0x01, 0x01}}),
            Amf(array));
}

TEST(VariantAmf, ValuesWithoutAnAmf0FormFailAndLeaveTheBufferAlone) {
  IOBuffer buffer;
  ASSERT_TRUE(buffer.ReadFromString("head"));

  // An object key is limited to 16 bits of length.
  Variant longKey;
  longKey["ok"] = 1;
  longKey[std::string(65536, 'k')] = 1;
  EXPECT_FALSE(longKey.ToAMF(buffer));

  // A strict array carries neither string keys nor gaps.
  Variant named;
  named.IsArray(true);
  named[0] = 1;
  named["name"] = 2;
  EXPECT_FALSE(named.ToAMF(buffer));
  Variant gap;
  gap.IsArray(true);
  gap[0] = 1;
  gap[2] = 3;
  EXPECT_FALSE(gap.ToAMF(buffer));

  // The failure deep inside a map fails the whole value.
  Variant outer;
  outer["a"] = "fine";
  outer["z"] = gap;
  EXPECT_FALSE(outer.ToAMF(buffer));

  EXPECT_EQ(4u, buffer.GetAvailable());
  EXPECT_EQ("head", std::string((const char*)buffer.GetPointer(), buffer.GetAvailable()));

  // Appends after what is there.
  EXPECT_TRUE(Variant(false).ToAMF(buffer));
  EXPECT_EQ(6u, buffer.GetAvailable());
}

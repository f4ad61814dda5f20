#include <cctype>
#include <climits>
#include <cmath>
#include <cstdint>
#include <limits>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "vesk/variant/basevariantcontainer.h"
#include "vesk/variant/camerainfo.h"
#include "vesk/variant/uri.h"
#include "vesk/variant/variant.h"

using namespace vesk::variant;

TEST(Variant, TypeBitsOfEveryKindAndTheMasks) {
  struct timeval tv = {1, 0};
  Variant null, map, array;
  null.Reset();
  map["a"] = 1;
  array.PushToArray(Variant(1));
  struct {
    Variant value;
    uint32_t type;
  } cases[] = {
      {Variant(), 0x8001},          {null, 0x8002},          {Variant(true), 0x8003},
      {Variant((signed char)-1), 0x4020}, {Variant((short)-1), 0x4021}, {Variant(-1), 0x4022},
      {Variant(-1LL), 0x4023},      {Variant((long)-1), 0x4023}, {Variant((unsigned char)1), 0x4024},
      {Variant((unsigned short)1), 0x4025}, {Variant(1u), 0x4026}, {Variant(1ULL), 0x4027},
      {Variant((unsigned long)1), 0x4027}, {Variant(1.5), 0x4028}, {Variant(tv), 0x2040},
      {Variant("text"), 0x100e},    {Variant(std::string("text")), 0x100e}, {map, 0x1010}, {array, 0x1011},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.type);
    VariantType t = c.value.GetType();
    EXPECT_EQ(c.type, (uint32_t)t);
    EXPECT_EQ(c.type == 0x1010 || c.type == 0x1011, TypeIsContainer(t));
    EXPECT_EQ(!TypeIsContainer(t), TypeIsNotContainer(t));
    EXPECT_EQ(c.type == 0x100e, TypeIsString(t));
    EXPECT_EQ(c.type == 0x8003, TypeIsBool(t));
    EXPECT_EQ((c.type & 0xF000) == 0x4000, TypeIsNumeric(t));
  }
}

TEST(Variant, NumericAndStringKeysIterateSeparatelyInAscendingOrder) {
  Variant map;
  map[10] = "ten";
  map["b"] = 2;
  map[2] = "two";
  map["a"] = 1;
  map[7u] = "seven";
  map["c"] = 3;
  EXPECT_EQ(6u, map.MapSize());
  std::vector<uint32_t> numKeys;
  for (auto it = map.num_begin(); it != map.num_end(); ++it) numKeys.push_back(it->first);
  EXPECT_EQ((std::vector<uint32_t>{2, 7, 10}), numKeys);
  std::vector<std::string> strKeys;
  for (auto it = map.str_begin(); it != map.str_end(); ++it) strKeys.push_back(it->first);
  EXPECT_EQ((std::vector<std::string>{"a", "b", "c"}), strKeys);

  // A scalar iterates as empty.
  const Variant scalar(5);
  EXPECT_TRUE(scalar.num_begin() == scalar.num_end());
  EXPECT_TRUE(scalar.str_begin() == scalar.str_end());

  Variant array;
  array.PushToArray(Variant("x"));
  array[5] = "z";
  array.PushToArray(Variant("w"));  // after the largest index
  EXPECT_EQ("w", (std::string)array[6]);
  EXPECT_EQ(3u, array.NumericKeysCount());
}

TEST(Variant, ConversionsAcrossWidthsSignsAndKinds) {
  Variant v300(300);
  EXPECT_EQ(44, (int)(unsigned char)v300);  // C cast: modulo 256
  EXPECT_EQ(44, (int)(signed char)v300);
  EXPECT_EQ(0xFFFFFFFFu, (unsigned int)Variant(-1));
  EXPECT_EQ(std::numeric_limits<unsigned long long>::max(), (unsigned long long)Variant(-1));
  EXPECT_DOUBLE_EQ(18446744073709551615.0, (double)Variant(std::numeric_limits<unsigned long long>::max()));
  EXPECT_EQ(0x23456789u, (unsigned int)Variant(0x123456789LL));

  // Doubles truncate towards zero and saturate instead of overflowing.
  EXPECT_EQ(3, (int)Variant(3.9));
  EXPECT_EQ(-3, (int)Variant(-3.9));
  EXPECT_EQ(INT_MIN, (int)Variant(-1e30));
  EXPECT_EQ(0u, (unsigned int)Variant(-5.0));
  EXPECT_EQ(255, (int)(unsigned char)Variant(1e9));
  EXPECT_EQ(0, (int)Variant(std::nan("")));
  EXPECT_TRUE((bool)Variant(0.25));

  // Wrong kinds give defaults: no parsing of text, a time value is not a number.
  EXPECT_EQ(0, (int)Variant("123"));
  EXPECT_FALSE((bool)Variant("123"));
  EXPECT_EQ("", (std::string)Variant(42));
  struct timeval when = {1700000000, 123456};
  EXPECT_EQ(0, (long long)Variant(when));
  struct timeval back = Variant(when);
  EXPECT_EQ(1700000000, back.tv_sec);
  EXPECT_EQ(123000, back.tv_usec) << "kept to the millisecond";
}

TEST(Variant, EqualityComparesNumbersByValueAndContainersDeeply) {
  EXPECT_EQ(Variant(1), Variant(1ULL));
  EXPECT_EQ(Variant((unsigned char)1), Variant(1.0));
  EXPECT_NE(Variant(-1), Variant(std::numeric_limits<unsigned long long>::max()));
  EXPECT_NE(Variant(1), Variant(true));
  EXPECT_NE(Variant(1), Variant("1"));
  Variant null;
  null.Reset();
  EXPECT_NE(Variant(), null);

  Variant a;
  a["x"]["y"] = 1;
  a[3] = "three";
  Variant b = a;
  EXPECT_EQ(a, b);
  b["x"]["y"] = 2;  // a deep copy: a is unchanged
  EXPECT_NE(a, b);
  EXPECT_EQ(1, (int)a["x"]["y"]);
  Variant array = a;
  array.IsArray(true);
  EXPECT_EQ(V_ARRAY, array.GetType());
  EXPECT_EQ("three", (std::string)array[3]) << "the kind changed, the content stayed";
  EXPECT_NE(a, array) << "same content, other kind";
}

TEST(Variant, AssignmentFromOwnChild) {
  Variant v;
  v["child"]["leaf"] = "value";
  v["other"] = 1;
  v = v["child"];
  EXPECT_EQ(1u, v.MapSize());
  EXPECT_EQ("value", (std::string)v["leaf"]);

  Variant w;
  w["child"]["leaf"] = 5;
  w = std::move(w["child"]);
  EXPECT_EQ(5, (int)w["leaf"]);
}

TEST(Variant, MapAccessKeyChainRemovalAndReset) {
  Variant scalar(3);
  scalar["now"] = "a map";  // a scalar becomes a map on write access
  EXPECT_EQ(1u, scalar.MapSize());

  const Variant& constMap = scalar;
  EXPECT_TRUE(constMap["missing"].IsUndefined());
  EXPECT_EQ(1u, scalar.MapSize()) << "const reads insert nothing";
  EXPECT_FALSE(scalar.HasKey("NOW"));
  EXPECT_TRUE(scalar.HasKey("NOW", false));

  Variant tree;
  tree["parameters"]["streamName"] = "cam";
  tree["parameters"]["count"] = 4;
  EXPECT_EQ("cam", (std::string)*tree.GetKeyChain(V_STRING, "parameters/streamName"));
  EXPECT_EQ(nullptr, tree.GetKeyChain(V_INT64, "parameters/count")) << "stored as INT32";
  EXPECT_NE(nullptr, tree.GetKeyChain(V_INT32, "parameters/count"));
  EXPECT_EQ(nullptr, tree.GetKeyChain(V_STRING, "parameters/streamName/deeper"));
  EXPECT_EQ(nullptr, tree.GetKeyChain(V_STRING, "Parameters/StreamName"));
  EXPECT_NE(nullptr, tree.GetKeyChain(V_STRING, "Parameters/StreamName", false));
  *tree.GetKeyChain(V_STRING, "parameters/streamName") = "changed";
  EXPECT_EQ("changed", (std::string)tree["parameters"]["streamName"]);

  EXPECT_FALSE(tree["parameters"].RemoveValue("STREAMNAME"));
  EXPECT_TRUE(tree["parameters"].RemoveValue("STREAMNAME", false));
  EXPECT_TRUE(tree["parameters"].RemoveValue("count"));
  EXPECT_FALSE(tree["parameters"].RemoveValue("count"));
  EXPECT_EQ(0u, tree["parameters"].MapSize());

  tree.Free();
  EXPECT_TRUE(tree.IsUndefined());
  tree.IsArray(false);
  EXPECT_TRUE(tree.IsMap());
  EXPECT_EQ(0u, tree.MapSize());
}

TEST(Variant, ValidateNumericReplacesOnlyWhenAsked) {
  Variant v;
  v["fps"] = 30;
  v["name"] = "x";
  EXPECT_TRUE(v.ValidateNumeric("fps", 1, 60, 25, true));
  EXPECT_EQ(V_INT32, v["fps"].GetType()) << "left alone when valid";
  EXPECT_FALSE(v.ValidateNumeric("fps", 1, 29, 25, false));
  EXPECT_EQ(30, (int)v["fps"]);
  EXPECT_FALSE(v.ValidateNumeric("fps", 1, 29, 25, true));
  EXPECT_EQ(V_DOUBLE, v["fps"].GetType());
  EXPECT_EQ(25.0, (double)v["fps"]);
  EXPECT_FALSE(v.ValidateNumeric("name", 0, 100, 7, true));
  EXPECT_EQ(7, (int)v["name"]);
  EXPECT_TRUE(v.ValidateNumeric("fps", 25, 25, 0, false)) << "bounds inclusive";
}

TEST(BaseVariantContainer, IsAMapNormalizeRepairsANonMapStrictReadersRead) {
  EXPECT_TRUE(BaseVariantContainer().IsMap());
  BaseVariantContainer fromScalar(Variant(5));
  EXPECT_TRUE(fromScalar.NormalizeFields());
  EXPECT_TRUE(fromScalar.IsMap());
  EXPECT_EQ(0u, fromScalar.MapSize());

  // A map is kept as it is. (StreamInfo's tests read the other strict kinds.)
  BaseVariantContainer strict;
  strict["child"]["x"] = 1;
  EXPECT_TRUE(strict.NormalizeFields());
  EXPECT_EQ(1, (int)strict.StrictMap("child")["x"]);
}

TEST(BaseVariantContainerDeathTest, StrictReadersEndTheProcessWithTheirMessage) {
  testing::FLAGS_gtest_death_test_style = "threadsafe";
  BaseVariantContainer c;
  c["channelId"] = "not a number";
  c["enabled"] = 1;
  EXPECT_DEATH(c.StrictNumeric("streamId"), "Key \"streamId\" not available");
  EXPECT_DEATH(c.StrictNumeric("channelId"), "Key \"channelId\" has a different type than expected");
  EXPECT_DEATH(c.StrictBool("enabled"), "Key \"enabled\" has a different type than expected");
  EXPECT_DEATH(c.StrictMap("channelId"), "Key \"channelId\" has a different type than expected");
  EXPECT_DEATH(c.StrictString("enabled"), "Key \"enabled\" has a different type than expected");
  BaseVariantContainer notAMap(Variant(1));
  EXPECT_DEATH(notAMap.StrictString("hwaddr"), "Invalid variant type detected");
}

TEST(Uri, GoodUrisGiveEveryKey) {
  struct {
    const char* text;
    bool resolve;
    const char* expected;
  } cases[] = {
      {"  FILE:///var/rec/my%20clip.flv?continuous  ", false,
       R"({"fullDocumentPath":"/var/rec/my clip.flv","fullUri":"file:///var/rec/my%20clip.flv?continuous",)"
       R"("originalUri":"  FILE:///var/rec/my%20clip.flv?continuous  ","parameters":{"continuous":""},"schema":"file"})"},
      {"tcp://127.0.0.1:1935/live/cam?a=1&b&c=%41+z&&encrypted=true", true,
       R"({"fullDocumentPath":"/live/cam","fullUri":"tcp://127.0.0.1:1935/live/cam?a=1&b&c=%41+z&&encrypted=true",)"
       R"("host":"127.0.0.1","ip":"127.0.0.1","originalUri":"tcp://127.0.0.1:1935/live/cam?a=1&b&c=%41+z&&encrypted=true",)"
       R"("parameters":{"a":"1","b":"","c":"A z","encrypted":"true"},"port":1935,"schema":"tcp"})"},
      {"UDP://10.1.2.3:65535", false,
       R"({"fullDocumentPath":"/","fullUri":"udp://10.1.2.3:65535","host":"10.1.2.3","ip":"10.1.2.3",)"
       R"("originalUri":"UDP://10.1.2.3:65535","parameters":{},"port":65535,"schema":"udp"})"},
      {"tcp://localhost:9000", true,
       R"({"fullDocumentPath":"/","fullUri":"tcp://localhost:9000","host":"localhost","ip":"127.0.0.1",)"
       R"("originalUri":"tcp://localhost:9000","parameters":{},"port":9000,"schema":"tcp"})"},
      // Without resolving, a name is kept and the address left empty.
      {"tcp://localhost:9000", false,
       R"({"fullDocumentPath":"/","fullUri":"tcp://localhost:9000","host":"localhost","ip":"",)"
       R"("originalUri":"tcp://localhost:9000","parameters":{},"port":9000,"schema":"tcp"})"},
  };
  for (const auto& c : cases) {
    URI uri;
    ASSERT_TRUE(URI::FromString(c.text, c.resolve, uri)) << c.text;
    EXPECT_EQ(c.expected, uri.ToJson());
  }
}

TEST(Uri, BadInputIsRefused) {
  for (const char* text : {"", "   ", "no schema here", "/tmp/a.flv", "http://127.0.0.1:80/", "://127.0.0.1:80",
                           "1tcp://127.0.0.1:80", "tcp://127.0.0.1", "tcp://127.0.0.1:", "tcp://:80",
                           "tcp://127.0.0.1:0", "tcp://127.0.0.1:65536", "tcp://127.0.0.1:99999999999",
                           "tcp://127.0.0.1:8o", "udp://10.0.0.300:5000", "udp://bad host:5000", "tcp://[::1]:80",
                           "file://relative/a.flv", "file://", "file:///tmp/a%zz.flv", "file:///tmp/a%4",
                           "file:///tmp/a%00b", "file:///tmp/a.flv?x=%G0", "file:///tmp/a.flv?=value"}) {
    URI uri;
    uri["leftover"] = 1;
    EXPECT_FALSE(URI::FromString(text, true, uri)) << text;
    EXPECT_TRUE(uri.IsMap()) << text;
    EXPECT_EQ(0u, uri.MapSize()) << text;
  }
}

TEST(CameraInfo, DetectedIdentityOverridesAndFailures) {
  CameraInfo detected;
  ASSERT_TRUE(detected.Init());
  const std::string hwaddr = detected.StrictString("hwaddr");
  EXPECT_EQ(12u, hwaddr.size());
  for (char c : hwaddr) EXPECT_TRUE(isdigit((unsigned char)c) || (c >= 'A' && c <= 'F')) << hwaddr;
  EXPECT_NE("000000000000", hwaddr);

  CameraInfo::OverrideHwaddr("aabbccddeeff");
  CameraInfo info;
  ASSERT_TRUE(info.Init());
  EXPECT_EQ("AABBCCDDEEFF", (std::string)info["hwaddr"]);
  EXPECT_EQ(0xCCDDEEFFu, (unsigned int)info["sysid"]);  // follows the address
  CameraInfo::OverrideSysid(42);
  ASSERT_TRUE(info.Init());
  EXPECT_EQ(42u, (unsigned int)info["sysid"]);
  CameraInfo::OverrideHwaddr("");
  ASSERT_TRUE(info.Init());
  EXPECT_EQ(detected["hwaddr"], info["hwaddr"]);
  EXPECT_EQ(42u, (unsigned int)info["sysid"]);
  CameraInfo::OverrideSysid(-1);
  ASSERT_TRUE(info.Init());
  EXPECT_EQ(detected, info);

  // A failing platform call or an override that is not a 12-digit hex address is refused.
  CameraInfo failed;
  CameraInfo::SetFailInit(true);
  EXPECT_FALSE(failed.Init());
  CameraInfo::SetFailInit(false);
  for (const char* bad : {"XYZ", "AABBCCDDEEFF00"}) {
    CameraInfo::OverrideHwaddr(bad);
    EXPECT_FALSE(failed.Init()) << bad;
  }
  EXPECT_FALSE(failed.HasKey("hwaddr"));
  CameraInfo::OverrideHwaddr("");
  EXPECT_TRUE(failed.Init());
}

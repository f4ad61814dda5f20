#include <gtest/gtest.h>

#include "vesk/streaminfo.h"

using vesk::encoder::StreamInfo;
using vesk::variant::Variant;

TEST(StreamInfo, NormalisingAnEmptyMapGivesEveryKeyWithItsDefault) {
  StreamInfo info;
  ASSERT_TRUE(info.NormalizeFields());
  EXPECT_EQ(13u, info.MapSize());
  EXPECT_EQ("", info.uri());
  EXPECT_EQ("", info.streamName());
  EXPECT_EQ(0u, info.channelId());
  EXPECT_EQ(0u, info.streamId());
  EXPECT_FALSE(info.hasVideo());
  EXPECT_EQ(0u, info.videoWidth());
  EXPECT_EQ(0u, info.videoHeight());
  EXPECT_EQ(0u, info.videoFps());
  EXPECT_EQ(0u, info.videoBandwidth());
  EXPECT_FALSE(info.hasAudio());
  EXPECT_EQ(0u, info.audioChannels());
  EXPECT_EQ(0u, info.audioFrequency());
  EXPECT_EQ(0u, info.audioBandwidth());
}

TEST(StreamInfo, WrongTypesAreReplacedAndGoodValuesKept) {
  Variant v;
  v["uri"] = 5;                  // wrong type
  v["streamName"] = "cam_1";     // kept
  v["videoWidth"] = (uint64_t)1920;  // any numeric kind is accepted
  v["hasVideo"] = "yes";         // wrong type
  v["extra"] = "left alone";
  StreamInfo info(v);
  info.NormalizeFields();
  EXPECT_EQ("", info.uri());
  EXPECT_EQ("cam_1", info.streamName());
  EXPECT_EQ(1920u, info.videoWidth());
  EXPECT_FALSE(info.hasVideo());
  EXPECT_EQ("left alone", (std::string)info["extra"]);

  // A value that is not a map at all becomes a full default record.
  StreamInfo scalar(Variant(42));
  scalar.NormalizeFields();
  EXPECT_EQ(13u, scalar.MapSize());
}

TEST(StreamInfoDeathTest, StrictReadersEndTheProcessWithTheKeyName) {
  StreamInfo missing;
  EXPECT_DEATH(missing.channelId(), "Key \"channelId\" not available");
  StreamInfo wrong;
  wrong["channelId"] = "zero";
  EXPECT_DEATH(wrong.channelId(), "Key \"channelId\" has a different type than expected");
  StreamInfo notMap;
  notMap = Variant("text");
  EXPECT_DEATH(notMap.uri(), "Invalid variant type detected");
}

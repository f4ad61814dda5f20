#include <gtest/gtest.h>

#include "vesk/streaminfo.h"

using vesk::encoder::StreamInfo;
using vesk::variant::Variant;

TEST(StreamInfo, NormalisationFillsDefaultsReplacesWrongTypesAndKeepsTheRest) {
  Variant expected;
  std::string error;
  ASSERT_TRUE(Variant::FromJson(R"({"uri": "", "streamName": "", "channelId": 0, "streamId": 0,
      "hasVideo": false, "videoWidth": 0, "videoHeight": 0, "videoFps": 0, "videoBandwidth": 0,
      "hasAudio": false, "audioChannels": 0, "audioFrequency": 0, "audioBandwidth": 0})", expected, error));
  StreamInfo empty;
  ASSERT_TRUE(empty.NormalizeFields());
  EXPECT_TRUE(empty == expected) << empty.ToJson();
  StreamInfo scalar(Variant(42));  // not a map at all
  scalar.NormalizeFields();
  EXPECT_TRUE(scalar == expected) << scalar.ToJson();
  EXPECT_EQ(0u, empty.audioFrequency());  // the strict readers accept the stored kinds

  Variant v;
  v["uri"] = 5;                      // wrong type
  v["streamName"] = "cam_1";         // kept
  v["videoWidth"] = (uint64_t)1920;  // any numeric kind is accepted
  v["hasVideo"] = "yes";             // wrong type
  v["extra"] = "left alone";
  StreamInfo info(v);
  info.NormalizeFields();
  EXPECT_EQ("", info.uri());
  EXPECT_EQ("cam_1", info.streamName());
  EXPECT_EQ(1920u, info.videoWidth());
  EXPECT_FALSE(info.hasVideo());
  EXPECT_EQ("left alone", (std::string)info["extra"]);
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

#include <gtest/gtest.h>

#include "vesk/records.h"
#include "vesk/streaminfo.h"

using namespace vesk::encoder;
using vesk::variant::Variant;

TEST(Timestamp, RescaleRoundsHalfUpAndComparesInTheFirstTimescale) {
  EXPECT_EQ(17, RescaleTimestamp(1500, 90000, 1000)) << "(1500*1000 + 45000) / 90000";
  EXPECT_EQ(16, RescaleTimestamp(1454, 90000, 1000));
  EXPECT_EQ(90000, RescaleTimestamp(1000, 1000, 90000));
  EXPECT_EQ(100000000000LL, RescaleTimestamp(9000000000000LL, 90000, 1000)) << "exact in 64 bits";

  timestamp_t unset;
  EXPECT_EQ(-1, unset.value);
  EXPECT_FALSE(unset.IsSet());
  timestamp_t video(90000, 90000), audio(16000, 16000), later(16512, 16000);
  EXPECT_EQ(0, video.Compare(audio));
  EXPECT_EQ(90000 - 92880, video.Compare(later)) << "other converted to 90 kHz first";
}

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

  // "uri" and "hasVideo" of the wrong type; any numeric kind is accepted for a number.
  Variant v;
  ASSERT_TRUE(Variant::FromJson(R"({"uri": 5, "streamName": "cam_1", "videoWidth": 1920, "hasVideo": "yes",
      "extra": "left alone"})", v, error));
  StreamInfo info(v);
  info.NormalizeFields();
  EXPECT_EQ("", info.uri());
  EXPECT_EQ("cam_1", info.streamName());
  EXPECT_EQ(1920u, info.videoWidth());
  EXPECT_FALSE(info.hasVideo());
  EXPECT_EQ("left alone", (std::string)info["extra"]);
}

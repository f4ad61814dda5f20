// Each normalising rule at its boundary values, the type tests, the double
// pass over "type" and idempotence.
#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "settings_test_util.h"
#include "vesk/messages.h"
#include "vesk/settings.h"

namespace vesk {
namespace test {
namespace {

using namespace vesk::encoder;
using vesk::ipc::messages::AVSerializer;
using vesk::ipc::messages::VideoSettingsElement;

struct case_t {
  Variant input;
  Variant expected;
};

// Normalises {key: input} as T and checks what is stored under key.
template <typename T>
void ExpectStored(const char* key, const std::vector<case_t>& cases) {
  for (const case_t& c : cases) {
    T container;
    container[key] = c.input;
    container.NormalizeFields();
    EXPECT_TRUE(container[key] == c.expected) << key << ": " << c.input.ToString() << " gave "
                                              << container[key].ToString() << ", expected " << c.expected.ToString();
  }
}

TEST(SettingsRules, TablesClampsAndZeroReplacement) {
  // Number tables keep the largest entry not above the value.
  ExpectStored<H264VideoEncoderSettings>("gopModel", {{0, 0}, {4, 4}, {5, 4}, {6, 6}, {7, 7}, {8, 7}, {1000, 7}});
  ExpectStored<AudioEncoderSettings>("sampleRate", {{0, 8000}, {7000, 8000}, {8000, 8000}, {11024, 8000},
                                                    {12000, 12000}, {44099, 32000}, {44100, 44100},
                                                    {47999, 44100}, {48000, 48000}, {96000, 48000}});
  // Zero replaced, then lowered to the upper bound.
  ExpectStored<H264VideoEncoderSettings>("M", {{0, 1}, {1, 1}, {3, 3}, {4, 3}});
  ExpectStored<H264VideoEncoderSettings>("N", {{0, 1}, {250, 250}, {4294967295ll, 4294967295ll}});
  ExpectStored<H264VideoEncoderSettings>("nMultiplier", {{0, 1}, {10, 10}, {11, 10}});
  ExpectStored<AudioEncoderSettings>("channels", {{0, 1}, {2, 2}, {3, 2}});
  // Clamps of the audio block.
  ExpectStored<AudioEncoderSettings>("bitRate", {{0, 7999}, {7998, 7999}, {7999, 7999}, {8000, 8000},
                                                 {160000, 160000}, {160001, 160000}});
  ExpectStored<AudioEncoderSettings>("mode", {{0, 0}, {2, 2}, {3, 2}});
  ExpectStored<AudioEncoderSettings>("quality", {{2, 2}, {3, 2}});
  ExpectStored<AudioEncoderSettings>("volume", {{0, 0}, {100, 100}, {101, 100}});
  // The rule sees the value as its declared type: 258 read as unsigned char is 2.
  ExpectStored<AudioEncoderSettings>("mode", {{258, 2}});
  ExpectStored<MJPGVideoEncoderSettings>("quality", {{100, 100}, {101, 100}});
  // Tri-state chip switches.
  const std::vector<case_t> triState = {{-128, -1}, {-7, -1}, {-1, -1}, {0, 0}, {1, 1}, {5, 1}};
  ExpectStored<BaseChipDebugSettings>("check_disable", triState);
  ExpectStored<BaseChipCommonSettings>("vsync_detection_disable", triState);
}

TEST(SettingsRules, ConfiguredAndRequestedBitRatesHaveDifferentBounds) {
  for (const char* key : {"bitRateVbrMax", "bitRateCbrAvg"}) {
    // Configured: floored at 16384, no ceiling.
    ExpectStored<H264VideoEncoderSettings>(key, {{1000, 16384}, {16383, 16384}, {16384, 16384},
                                                 {100000000, 100000000}});
    // Requested at run time: floored at 16383 (its "not requested" default), capped.
    ExpectStored<VideoSettingsElement>(key, {{1000, 16383}, {16383, 16383}, {16384, 16384},
                                             {16000000, 16000000}, {16000001, 16000000}});
  }
  ExpectStored<H264VideoEncoderSettings>("validBitrateRangeMin", {{16383, 16384}});
  ExpectStored<MJPGVideoEncoderSettings>("validBitrateRangeMax", {{0, 16384}, {7000000, 7000000}});
  // Configured adaptation floors: negative becomes 0; requested: negative becomes -1.
  ExpectStored<H264VideoEncoderSettings>("minClientAdaptiveBitRate", {{-5, 0}, {0, 0}, {7, 7}});
  ExpectStored<MJPGVideoEncoderSettings>("minMotionAdaptiveBitRate", {{-1, 0}, {64000, 64000}});
  ExpectStored<VideoSettingsElement>("minClientAdaptiveBitRate", {{-5, -1}, {0, 0}, {7, 7}});
  ExpectStored<VideoSettingsElement>("minMotionAdaptiveBitRate", {{-100, -1}, {9, 9}});
}

TEST(SettingsRules, StringTablesMatchWholeTextIgnoringCaseDerivedThenBase) {
  ExpectStored<BaseEncoderSettings>("type", {{"MJPG", "mjpg"}, {"AaC", "aac"}, {"h264", "h264"}, {"xyz", "h264"},
                                             {"mjp", "h264"}, {"mjpg ", "h264"}, {"", "h264"}});
  ExpectStored<AVSerializer>("type", {{"EXTENDEDFLV", "extendedFlv"}, {"flvx", "unknown"},
                                      {"PassThrough", "passThrough"}, {"VESK", "vesk"}, {"rtmp", "rtmp"},
                                      {"fl", "unknown"}});
  // The derived table decides first; the base table then lets its result pass.
  ExpectStored<H264VideoEncoderSettings>("type", {{"mjpg", "h264"}, {"H264", "h264"}});
  ExpectStored<MJPGVideoEncoderSettings>("type", {{"MJPG", "mjpg"}, {"h264", "mjpg"}});
  ExpectStored<AudioEncoderSettings>("type", {{"h264", "aac"}, {"AAC", "aac"}});
  // Alone, the video base refuses "aac" while the encoder base keeps it.
  ExpectStored<BaseVideoEncoderSettings>("type", {{"aac", "h264"}, {"Mjpg", "mjpg"}});
  ExpectStored<BaseEncoderSettings>("type", {{"aac", "aac"}});
}

TEST(SettingsRules, WrongTypesAreReplacedNotConvertedAndPlainContainersKept) {
  ExpectStored<AudioEncoderSettings>("enabled", {{"true", false}, {1, false}, {true, true}});
  ExpectStored<H264VideoEncoderSettings>("M", {{true, 2}, {"1", 2}, {2.9, 2}});
  ExpectStored<H264VideoEncoderSettings>("gopModel", {{"6", 0}, {Json("[6]"), 0}});
  ExpectStored<H264VideoEncoderSettings>("width", {{"1920", 4294967295ll}, {1920.0, 1920}});
  ExpectStored<EncoderSettings>("firmwarePath", {{5, "/lib/firmware/"}, {"/opt/fw/", "/opt/fw/"}});
  ExpectStored<BaseChipDebugSettings>("check_disable", {{false, -1}, {"0", -1}});
  // Any numeric kind is accepted for a numeric key.
  ExpectStored<BaseVinSettings>("fps", {{30.0, 30}, {(unsigned long long)60, 60}});

  const Variant list = Json(R"(["tcp://127.0.0.1:1935/live", "file:///tmp/a.flv"])");
  const Variant map = Json(R"({"1": "udp://127.0.0.1:5000", "b": "file:///dev/null"})");
  ExpectStored<AVSerializer>("destinations", {{list, list}, {map, map}, {"tcp://x", Json("{}")}, {7, Json("{}")}});
  ExpectStored<AVSerializer>("parameters", {{list, list}, {map, map}, {true, Json("{}")}});
  // A child container must be a map: an array is replaced by a default block.
  ExpectStored<H264VideoEncoderSettings>(
      "avSerializer", {{Json("[]"), Json(R"({"type": "unknown", "parameters": {}, "destinations": {}})")}});
}

TEST(SettingsRules, NormalisingTwiceEqualsOnce) {
  const char* messy = R"({"firmwarePath": 3, "extra": {"x": [1, 2]},
      "audio": {"type": "MP3", "sampleRate": 44099, "bitRate": 1, "channels": 0, "volume": 300},
      "video": {"vinFps": 70000, "video1": {"M": 0, "N": 0, "gopModel": 5, "type": "MJPG",
                 "bitRateVbrMax": 5, "minClientAdaptiveBitRate": -9, "width": -1,
                 "avSerializer": {"type": "FLV", "destinations": ["file:///tmp/x.flv"]}},
                "mjpg2": {"quality": 250, "enabled": "yes"}},
      "chip": {"debug": {"check_disable": 9}, "vin0": {"hdrMode": 300, "fps": -2},
               "canvas3": {"source1": {"enabled": 1, "chanId": 1}}}})";
  EncoderSettings once = Normalized<EncoderSettings>(messy);
  EXPECT_EQ(Normalized<EncoderSettings>(once).ToJson(true), once.ToJson(true));
  // The messy values were really repaired on the first pass.
  EXPECT_EQ(once["audio"]["type"], "aac");
  EXPECT_EQ((int)once["video"]["video1"]["gopModel"], 4);
  EXPECT_EQ(once["video"]["video1"]["avSerializer"]["type"], "flv");
}

}  // namespace
}  // namespace test
}  // namespace vesk

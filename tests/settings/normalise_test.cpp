// Normalisation of the settings tree: what it makes of missing, empty or
// non-map settings (the full default tree, every value stored as its declared
// C type), each rule at its boundary values, the type tests, the double pass
// over "type" and idempotence.
#include <gtest/gtest.h>

#include <string>

#include "settings_test_util.h"
#include "vesk/messages.h"
#include "vesk/settings.h"

namespace vesk {
namespace test {
namespace {

using namespace vesk::encoder;
using namespace vesk::variant;
using vesk::ipc::messages::AVSerializer;
using vesk::ipc::messages::VideoSettingsElement;

// The expected default blocks, composed the way the tree nests them.
const std::string kChipTail = R"("description": "", "enabled": false, "id": 0)";
const std::string kVideoTail =
    R"("width": 4294967295, "height": 4294967295, "fps": 255, "bitRateVbrMax": 500000,
       "bitRateCbrAvg": 500000, "validBitrateRangeMin": 32000, "validBitrateRangeMax": 6000000,
       "minClientAdaptiveBitRate": 0, "minMotionAdaptiveBitRate": 0, "isCbr": false,
       "avSerializer": {"type": "unknown", "parameters": {}, "destinations": {}},
       "description": "", "enabled": false})";
const std::string kH264 = R"({"type": "h264", "verticalFlip": false, "horizontalFlip": false,
    "M": 2, "N": 30, "nMultiplier": 1, "gopModel": 0, )" + kVideoTail;
const std::string kMjpg = R"({"type": "mjpg", "quality": 0, )" + kVideoTail;
const std::string kAudio = R"({"type": "aac", "mode": 1, "channels": 1, "sampleRate": 11025,
    "bitRate": 7999, "quality": 0, "enableTemporalNoiseShaping": false, "volume": 50,
    "description": "", "enabled": false})";
const std::string kBuffer = R"({"max_output": {"width": 0, "height": 0},
    "output": {"x": 0, "y": 0, "width": 0, "height": 0}, )" + kChipTail + "}";

std::string Numbered(const char* prefix, int count, const std::string& block) {
  std::string text;
  for (int i = 0; i < count; i++) text += (i ? ", \"" : "\"") + std::string(prefix) + std::to_string(i) + "\": " + block;
  return text;
}

std::string ExpectedTree() {
  std::string vin = R"({"vsrcId": 0, "width": 0, "height": 0, "vsrcCtxSwitch": 0, "hdrMode": 0, "fps": 0, )" +
                    kChipTail + "}";
  std::string chan = R"({"vinId": 0, "vsrcCtx": 0, "imgStatsSrcChan": 0, "idspFps": 0, "largeDownscale": 0,
      "sensorCtrl": 0, )" + Numbered("buffer", 5, kBuffer) + ", " + kChipTail + "}";
  std::string canvas = R"({"extraDramBuf": 0, "canvasId": 0, )" +
                       Numbered("source", 2, R"({"chanId": 0, "bufferId": 0, "enabled": false})") + ", " +
                       kChipTail + "}";
  std::string chip = R"({"debug": {"check_disable": -1}, "common": {"vsync_detection_disable": -1}, )" +
                     Numbered("vin", 2, vin) + ", " + Numbered("chan", 2, chan) + ", " +
                     Numbered("canvas", 5, canvas) + "}";
  std::string video = R"({"enableHrd": false, "lowDelay": false, "hdrMode": 0, "vinFps": 0)";
  for (const char* name : {"video1", "video2", "video3"}) video += ", \"" + std::string(name) + "\": " + kH264;
  for (const char* name : {"mjpg", "mjpg1", "mjpg2"}) video += ", \"" + std::string(name) + "\": " + kMjpg;
  return R"({"firmwarePath": "/lib/firmware/", "chip": )" + chip + ", \"audio\": " + kAudio +
         ", \"video\": " + video + "}}";
}

TEST(SettingsDefaults, EmptyOrNonMapRootAndChildrenBecomeDefaults) {
  const Variant expected = Json(ExpectedTree());
  for (const char* root : {"{}", "[1, 2]", "\"settings\"", "null", "42"}) {
    EXPECT_EQ(Normalized<EncoderSettings>(root).ToJson(true), expected.ToJson(true)) << root;
  }
  EXPECT_TRUE(Normalized<EncoderSettings>(Variant()) == expected);

  EncoderSettings settings = Normalized<EncoderSettings>(
      R"({"audio": [1, 2], "video": {"video2": "off", "mjpg1": 7, "video1": {"avSerializer": 3}},
          "chip": {"chan1": {"buffer4": true, "buffer2": {"output": []}}}})");
  EXPECT_TRUE(settings["audio"] == Json(kAudio));
  EXPECT_TRUE(settings["video"]["video2"] == Json(kH264));
  EXPECT_TRUE(settings["video"]["mjpg1"] == Json(kMjpg));
  EXPECT_TRUE(settings["video"]["video1"] == Json(kH264));
  EXPECT_TRUE(settings["chip"]["chan1"]["buffer4"] == Json(kBuffer));
  EXPECT_TRUE(settings["chip"]["chan1"]["buffer2"] == Json(kBuffer));
}

TEST(SettingsDefaults, ValuesAreStoredAsTheirDeclaredTypesAndUnknownKeysLeftUntouched) {
  EncoderSettings settings = Normalized<EncoderSettings>(
      R"({"custom": [1, "two"], "audio": {"mode": 2, "sampleRate": 16000.0, "codecHint": 1.5},
          "video": {"vinFps": 30, "note": {"a": 1}, "video1": {"minClientAdaptiveBitRate": 5, "width": 1280,
                    "streamId": "x", "avSerializer": {"extra": -3}}},
          "chip": {"debug": {"check_disable": 1}, "chan0": {"idspFps": 30, "buffer3": {"label": "b3"}}}})");
  struct {
    const Variant& value;
    VariantType type;
  } cases[] = {
      {settings["audio"]["mode"], V_UINT8},
      {settings["audio"]["sampleRate"], V_UINT32},
      {settings["video"]["vinFps"], V_UINT16},
      {settings["video"]["video1"]["minClientAdaptiveBitRate"], V_INT32},
      {settings["chip"]["debug"]["check_disable"], V_INT8},
  };
  for (const auto& c : cases) EXPECT_EQ(c.value.GetType(), c.type) << c.value.ToString();
  EXPECT_EQ((unsigned int)settings["audio"]["sampleRate"], 16000u);

  EXPECT_TRUE(settings["custom"] == Json(R"([1, "two"])"));
  EXPECT_TRUE(settings["video"]["note"] == Json(R"({"a": 1})"));
  EXPECT_EQ(settings["video"]["video1"]["streamId"], "x");
  EXPECT_EQ((int)settings["video"]["video1"]["avSerializer"]["extra"], -3);
  EXPECT_EQ(settings["chip"]["chan0"]["buffer3"]["label"], "b3");
  EXPECT_EQ((double)settings["audio"]["codecHint"], 1.5);
}

TEST(SettingsDefaults, AccessorsGetOrInsertAndChildrenAreUsedInPlace) {
  H264VideoEncoderSettings video;
  EXPECT_EQ(video.width(), 4294967295u);
  EXPECT_TRUE(video.HasKey("width"));
  video["height"] = "720";  // a string is not converted
  EXPECT_EQ(video.height(), 4294967295u);

  // The reference is the stored child, as an object of the child's class: its own rules run.
  EncoderSettings settings;
  BaseVariantContainer& mjpg1 = settings.video().mjpg1();
  mjpg1["type"] = "H264";
  mjpg1.NormalizeFields();
  EXPECT_EQ(settings["video"]["mjpg1"]["type"], "mjpg");

  // A child that is not a map is replaced by an empty one.
  settings["audio"] = "none";
  EXPECT_EQ(settings.audio().MapSize(), 0u);
  EXPECT_EQ(settings.audio().sampleRate(), 11025u);

  // A copy of the tree is independent of the in-place children.
  EncoderSettings copy(settings);
  copy.chip().vin1()["width"] = 1920;
  EXPECT_EQ((int)copy["chip"]["vin1"]["width"], 1920);
  EXPECT_FALSE(settings.HasKey("chip"));
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

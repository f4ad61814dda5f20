// What normalisation makes of missing, empty or non-map settings: the full
// default tree, with every value stored as its declared C type.
#include <gtest/gtest.h>

#include <string>

#include "settings_test_util.h"
#include "vesk/settings.h"

namespace vesk {
namespace test {
namespace {

using namespace vesk::encoder;
using namespace vesk::variant;

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

TEST(SettingsDefaults, ValuesAreStoredAsTheirDeclaredTypes) {
  EncoderSettings settings = Normalized<EncoderSettings>(
      R"({"audio": {"mode": 2, "sampleRate": 16000.0}, "video": {"vinFps": 30,
          "video1": {"minClientAdaptiveBitRate": 5, "width": 1280}},
          "chip": {"debug": {"check_disable": 1}, "chan0": {"idspFps": 30}}})");
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
}

TEST(SettingsDefaults, UnknownKeysAreLeftUntouchedAtEveryLevel) {
  EncoderSettings settings = Normalized<EncoderSettings>(
      R"({"custom": [1, "two"], "video": {"note": {"a": 1},
          "video1": {"streamId": "x", "avSerializer": {"extra": -3}}},
          "chip": {"chan0": {"buffer3": {"label": "b3"}}}, "audio": {"codecHint": 1.5}})");
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

  EncoderSettings settings;
  settings.video().video1()["fps"] = 25;
  EXPECT_EQ((int)settings["video"]["video1"]["fps"], 25);
  // The reference is an object of the child's class: its own rules run.
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

}  // namespace
}  // namespace test
}  // namespace vesk

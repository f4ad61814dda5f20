// The IPC message classes: the envelope of requests and events, the forced
// "functionName", and the runtime-change blocks whose defaults mean "not requested".
#include "vesk/messages.h"

#include <gtest/gtest.h>
#include <sys/time.h>

#include <set>
#include <string>

#include "settings_test_util.h"
#include "vesk/utils/utils.h"

namespace vesk {
namespace test {
namespace {

using namespace vesk::ipc::messages;

std::set<std::string> Keys(const Variant& map) {
  std::set<std::string> keys;
  for (auto it = map.str_begin(); it != map.str_end(); ++it) keys.insert(it->first);
  return keys;
}

long long Ms(const struct timeval& tv) { return (long long)tv.tv_sec * 1000 + tv.tv_usec / 1000; }

TEST(Messages, EnvelopeDefaults) {
  long long before = Ms(vesk::utils::now());
  BaseRequestMessage request = Normalized<BaseRequestMessage>("{}");
  long long after = Ms(vesk::utils::now());
  EXPECT_EQ(request["timeStamp"].GetType(), vesk::variant::V_TIMESTAMP);
  long long stamp = Ms((struct timeval)request["timeStamp"]);
  EXPECT_GE(stamp, before);
  EXPECT_LE(stamp, after);
  request.RemoveValue("timeStamp");
  EXPECT_TRUE(request == Json(R"({"id": 0, "from": "", "to": "", "functionName": "", "queueIfDestUnavailable": true,
                                  "responseExpected": false, "transactionId": -1, "isBroadcast": false})"))
      << request.ToJson();

  // Given values are kept; a time given as a number is not a time value.
  BaseMessage message;
  message["timeStamp"] = timeval{1700000000, 250000};
  message["id"] = 1ull << 40;
  message.NormalizeFields();
  EXPECT_EQ(Ms(message.timeStamp()), 1700000000250ll);
  EXPECT_EQ(message.id(), 1ull << 40);
  message["timeStamp"] = 5;
  EXPECT_GE(Ms(message.timeStamp()), before);
}

template <typename T>
void ExpectForcedName(const char* name) {
  std::string lower = "{\"functionName\": \"" + vesk::utils::lowerCase(name) + "\"}";
  for (const char* input : {"{}", R"({"functionName": "Other"})", R"({"functionName": 4})", lower.c_str()}) {
    T message = Normalized<T>(input);
    EXPECT_EQ(message["functionName"], name) << input;
    EXPECT_EQ((int)message["transactionId"], -1);
  }
}

TEST(Messages, RequestsAndEventsForceTheirFunctionNamePlainBlocksCarryNoEnvelope) {
  ExpectForcedName<EventIavStateEnterIdle>("EventIavStateEnterIdle");
  ExpectForcedName<EventIavStateEnterPreview>("EventIavStateEnterPreview");
  ExpectForcedName<EventIavStateEnterEncode>("EventIavStateEnterEncode");
  ExpectForcedName<EventIavStateExitEncode>("EventIavStateExitEncode");
  ExpectForcedName<ChangeVideoSettings>("ChangeVideoSettings");
  ExpectForcedName<RestartStreams>("RestartStreams");

  EXPECT_EQ(Keys(Normalized<AVSerializer>("{}")), (std::set<std::string>{"type", "parameters", "destinations"}));
  EXPECT_EQ(Keys(Normalized<AudioSettings>("{}")), (std::set<std::string>{"volume", "bitRate"}));
  EXPECT_EQ(Keys(Normalized<ChipSettings>("{}")), (std::set<std::string>{"vin0", "vin1"}));
  EXPECT_EQ(Keys(Normalized<ChipVinSettingsElement>("{}")), (std::set<std::string>{"hdrMode"}));
  EXPECT_EQ(Keys(Normalized<VideoSettings>("{}")),
            (std::set<std::string>{"hdrMode", "video1", "video2", "video3", "mjpg", "mjpg1", "mjpg2"}));
}

TEST(Messages, ChangeVideoSettingsDefaultsMeanNotRequested) {
  ChangeVideoSettings request = Normalized<ChangeVideoSettings>(R"({"audio": {}})");
  EXPECT_TRUE(request["audio"] == Json(R"({"volume": -1, "bitRate": 7999})"));
  EXPECT_TRUE(request["chip"] == Json(R"({"vin0": {"hdrMode": -1}, "vin1": {"hdrMode": -1}})"));
  const Variant element = Json(R"({"fps": 0, "bitRateVbrMax": 16383, "bitRateCbrAvg": 16383,
      "minClientAdaptiveBitRate": -1, "minMotionAdaptiveBitRate": -1, "nMultiplier": 0, "quality": 0,
      "isCbr": false, "avSerializer": {"type": "unknown", "parameters": {}, "destinations": {}}})");
  EXPECT_EQ((int)request["video"]["hdrMode"], -1);
  for (const char* stream : {"video1", "video2", "video3", "mjpg", "mjpg1", "mjpg2"}) {
    EXPECT_EQ(request["video"][stream].ToJson(), element.ToJson()) << stream;
  }
  // The typed child is the stored one.
  request.video().video2()["fps"] = 60;
  request.NormalizeFields();
  EXPECT_EQ((int)request["video"]["video2"]["fps"], 30);

  // Normalising twice equals once.
  ChangeVideoSettings once = Normalized<ChangeVideoSettings>(
      R"({"functionName": "x", "id": 7, "transactionId": "t", "note": 1, "audio": {"volume": 300, "bitRate": 1},
          "chip": {"vin1": {"hdrMode": -9}, "vin0": []}, "video": {"hdrMode": 5, "mjpg2": {"quality": 1000,
          "fps": 255, "avSerializer": {"type": "VESK", "destinations": {"0": "udp://1.2.3.4:5"}}}}})");
  EXPECT_EQ(Normalized<ChangeVideoSettings>(once).ToJson(true), once.ToJson(true));
  EXPECT_EQ(once["video"]["mjpg2"]["avSerializer"]["type"], "vesk");
}

TEST(Messages, RuntimeRules) {
  AudioSettings audio = Normalized<AudioSettings>(R"({"volume": 120, "bitRate": 7000})");
  EXPECT_TRUE(audio == Json(R"({"volume": 100, "bitRate": 7999})"));
  audio = Normalized<AudioSettings>(R"({"volume": -5, "bitRate": 200000})");
  EXPECT_TRUE(audio == Json(R"({"volume": -5, "bitRate": 160000})")) << "negative: leave the volume as it is";

  VideoSettingsElement element = Normalized<VideoSettingsElement>(
      R"({"fps": 60, "nMultiplier": 11, "quality": 101, "isCbr": "yes"})");
  EXPECT_EQ((int)element["fps"], 30);
  EXPECT_EQ((int)element["nMultiplier"], 10);
  EXPECT_EQ((int)element["quality"], 100);
  EXPECT_TRUE(element["isCbr"] == Variant(false));
  element = Normalized<VideoSettingsElement>(R"({"fps": 30, "nMultiplier": 0, "quality": 100})");
  EXPECT_EQ((int)element["fps"], 30);
  EXPECT_EQ((int)element["nMultiplier"], 0);
  EXPECT_EQ((int)element["quality"], 100);

  for (auto hdr : {std::make_pair(-3, -1), {-1, -1}, {0, 0}, {2, 2}}) {
    Variant input;
    input["hdrMode"] = hdr.first;
    EXPECT_EQ((int)Normalized<VideoSettings>(input)["hdrMode"], hdr.second) << hdr.first;
    EXPECT_EQ((int)Normalized<ChipVinSettingsElement>(input)["hdrMode"], hdr.second) << hdr.first;
  }

  RestartStreams restart = Normalized<RestartStreams>(R"({"video2": true, "mjpg": "yes", "mjpg2": 1})");
  EXPECT_TRUE(restart.video2());
  for (const char* name : {"video1", "video3", "mjpg", "mjpg1", "mjpg2"}) {
    EXPECT_TRUE(restart[name] == Variant(false)) << name;
  }
}

}  // namespace
}  // namespace test
}  // namespace vesk

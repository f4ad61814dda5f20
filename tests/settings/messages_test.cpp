// The IPC message classes: the envelope of requests and events, the forced
// "functionName", and the runtime-change blocks whose defaults mean "not requested".
#include "vesk/messages.h"

#include <gtest/gtest.h>
#include <sys/time.h>

#include <string>

#include "settings_test_util.h"
#include "vesk/utils/utils.h"

namespace vesk {
namespace test {
namespace {

using namespace vesk::ipc::messages;

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

TEST(Messages, RequestsAndEventsForceTheirFunctionName) {
  ExpectForcedName<EventIavStateEnterIdle>("EventIavStateEnterIdle");
  ExpectForcedName<EventIavStateEnterPreview>("EventIavStateEnterPreview");
  ExpectForcedName<EventIavStateEnterEncode>("EventIavStateEnterEncode");
  ExpectForcedName<EventIavStateExitEncode>("EventIavStateExitEncode");
  ExpectForcedName<ChangeVideoSettings>("ChangeVideoSettings");
  ExpectForcedName<RestartStreams>("RestartStreams");
}

// The plain blocks inside the request carry no envelope keys.
TEST(Messages, ChangeVideoSettingsDefaultsMeanNotRequested) {
  ChangeVideoSettings request = Normalized<ChangeVideoSettings>(R"({"audio": {}})");
  EXPECT_TRUE(request["audio"] == Json(R"({"volume": -1, "bitRate": 7999})"));
  EXPECT_TRUE(request["chip"] == Json(R"({"vin0": {"hdrMode": -1}, "vin1": {"hdrMode": -1}})"));
  const Variant element = Json(R"({"fps": 0, "bitRateVbrMax": 16383, "bitRateCbrAvg": 16383,
      "minClientAdaptiveBitRate": -1, "minMotionAdaptiveBitRate": -1, "nMultiplier": 0, "quality": 0,
      "isCbr": false, "avSerializer": {"type": "unknown", "parameters": {}, "destinations": {}}})");
  Variant video = Json(R"({"hdrMode": -1})");
  for (const char* stream : {"video1", "video2", "video3", "mjpg", "mjpg1", "mjpg2"}) video[stream] = element;
  EXPECT_TRUE(request["video"] == video) << request["video"].ToJson();
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
  ExpectStored<AudioSettings>("volume", {{120, 100}, {-5, -5}});  // negative: leave the volume as it is
  ExpectStored<AudioSettings>("bitRate", {{7000, 7999}, {200000, 160000}});
  ExpectStored<VideoSettingsElement>("fps", {{60, 30}, {30, 30}});
  ExpectStored<VideoSettingsElement>("nMultiplier", {{11, 10}, {0, 0}});
  ExpectStored<VideoSettingsElement>("quality", {{101, 100}, {100, 100}});
  ExpectStored<VideoSettingsElement>("isCbr", {{"yes", false}});
  const std::vector<case_t> hdr = {{-3, -1}, {-1, -1}, {0, 0}, {2, 2}};
  ExpectStored<VideoSettings>("hdrMode", hdr);
  ExpectStored<ChipVinSettingsElement>("hdrMode", hdr);

  RestartStreams restart = Normalized<RestartStreams>(R"({"video2": true, "mjpg": "yes", "mjpg2": 1})");
  EXPECT_TRUE(restart.video2());
  for (const char* name : {"video1", "video3", "mjpg", "mjpg1", "mjpg2"}) {
    EXPECT_TRUE(restart[name] == Variant(false)) << name;
  }
}

}  // namespace
}  // namespace test
}  // namespace vesk

// The IPC message classes: the envelope of requests and events, the forced
// "functionName", and the runtime-change blocks whose defaults mean "not
// requested".
#include "vesk/messages.h"

#include <gtest/gtest.h>
#include <sys/time.h>

#include <cstdlib>
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
  EXPECT_EQ(Keys(request), (std::set<std::string>{"id", "timeStamp", "from", "to", "functionName",
                                                  "queueIfDestUnavailable", "responseExpected",
                                                  "transactionId", "isBroadcast"}));
  EXPECT_EQ((unsigned long long)request["id"], 0u);
  EXPECT_EQ(request["timeStamp"].GetType(), vesk::variant::V_TIMESTAMP);
  long long stamp = Ms((struct timeval)request["timeStamp"]);
  EXPECT_GE(stamp, before);
  EXPECT_LE(stamp, after);
  EXPECT_EQ(request["from"], "");
  EXPECT_EQ(request["to"], "");
  EXPECT_EQ(request["functionName"], "");
  EXPECT_TRUE(request["queueIfDestUnavailable"] == Variant(true));
  EXPECT_TRUE(request["responseExpected"] == Variant(false));
  EXPECT_EQ((int)request["transactionId"], -1);
  EXPECT_TRUE(request["isBroadcast"] == Variant(false));

  // Given values are kept; a time given as a number is not a time value.
  struct timeval given = {1700000000, 250000};
  BaseMessage message;
  message["timeStamp"] = given;
  message["id"] = 1ull << 40;
  message["functionName"] = "Anything";
  message.NormalizeFields();
  EXPECT_EQ(Ms(message.timeStamp()), 1700000000250ll);
  EXPECT_EQ(message.id(), 1ull << 40);
  EXPECT_EQ(message.functionName(), "Anything");
  message["timeStamp"] = 5;
  EXPECT_GE(Ms(message.timeStamp()), before);
}

template <typename T>
void ExpectForcedName(const char* name) {
  const char* inputs[] = {"{}", R"({"functionName": "Other"})", R"({"functionName": 4})"};
  for (const char* input : inputs) {
    T message = Normalized<T>(input);
    EXPECT_EQ(message["functionName"], name) << input;
    EXPECT_TRUE(message["responseExpected"] == Variant(false));
    EXPECT_TRUE(message.HasKey("timeStamp"));
    EXPECT_EQ((int)message["transactionId"], -1);
  }
  std::string lower = vesk::utils::lowerCase(name);
  T message = Normalized<T>(Json("{\"functionName\": \"" + lower + "\"}"));
  EXPECT_EQ(message["functionName"], name);
}

TEST(Messages, RequestsAndEventsForceTheirFunctionName) {
  ExpectForcedName<EventIavStateEnterIdle>("EventIavStateEnterIdle");
  ExpectForcedName<EventIavStateEnterPreview>("EventIavStateEnterPreview");
  ExpectForcedName<EventIavStateEnterEncode>("EventIavStateEnterEncode");
  ExpectForcedName<EventIavStateExitEncode>("EventIavStateExitEncode");
  ExpectForcedName<ChangeVideoSettings>("ChangeVideoSettings");
  ExpectForcedName<RestartStreams>("RestartStreams");
}

TEST(Messages, PlainBlocksCarryNoEnvelope) {
  EXPECT_EQ(Keys(Normalized<AVSerializer>("{}")),
            (std::set<std::string>{"type", "parameters", "destinations"}));
  EXPECT_EQ(Keys(Normalized<AudioSettings>("{}")), (std::set<std::string>{"volume", "bitRate"}));
  EXPECT_EQ(Keys(Normalized<ChipSettings>("{}")), (std::set<std::string>{"vin0", "vin1"}));
  EXPECT_EQ(Keys(Normalized<ChipVinSettingsElement>("{}")), (std::set<std::string>{"hdrMode"}));
  EXPECT_EQ(
      Keys(Normalized<VideoSettings>("{}")),
      (std::set<std::string>{"hdrMode", "video1", "video2", "video3", "mjpg", "mjpg1", "mjpg2"}));
  EXPECT_EQ(Keys(Normalized<VideoSettingsElement>("{}")),
            (std::set<std::string>{"fps", "bitRateVbrMax", "bitRateCbrAvg",
                                   "minClientAdaptiveBitRate", "minMotionAdaptiveBitRate",
                                   "nMultiplier", "quality", "isCbr", "avSerializer"}));
}

TEST(Messages, ChangeVideoSettingsDefaultsMeanNotRequested) {
  ChangeVideoSettings request = Normalized<ChangeVideoSettings>(R"({"audio": {}})");
  EXPECT_TRUE(request["audio"] == Json(R"({"volume": -1, "bitRate": 7999})"));
  EXPECT_TRUE(request["chip"] == Json(R"({"vin0": {"hdrMode": -1}, "vin1": {"hdrMode": -1}})"));
  const Variant element = Json(R"({"fps": 0, "bitRateVbrMax": 16383, "bitRateCbrAvg": 16383,
      "minClientAdaptiveBitRate": -1, "minMotionAdaptiveBitRate": -1, "nMultiplier": 0,
      "quality": 0, "isCbr": false,
      "avSerializer": {"type": "unknown", "parameters": {}, "destinations": {}}})");
  EXPECT_EQ((int)request["video"]["hdrMode"], -1);
  const char* streams[] = {"video1", "video2", "video3", "mjpg", "mjpg1", "mjpg2"};
  for (const char* stream : streams) {
    EXPECT_EQ(request["video"][stream].ToJson(), element.ToJson()) << stream;
  }
  // The typed child is the stored one.
  request.video().video2()["fps"] = 60;
  request.NormalizeFields();
  EXPECT_EQ((int)request["video"]["video2"]["fps"], 30);
}

TEST(Messages, RuntimeRules) {
  AudioSettings audio = Normalized<AudioSettings>(R"({"volume": 120, "bitRate": 7000})");
  EXPECT_EQ((int)audio["volume"], 100);
  EXPECT_EQ((int)audio["bitRate"], 7999);
  audio = Normalized<AudioSettings>(R"({"volume": -5, "bitRate": 200000})");
  EXPECT_EQ((int)audio["volume"], -5);  // negative: leave the volume as it is
  EXPECT_EQ((int)audio["bitRate"], 160000);

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

  const char* hdrInputs[][2] = {{"-3", "-1"}, {"-1", "-1"}, {"0", "0"}, {"2", "2"}};
  for (const auto& hdr : hdrInputs) {
    std::string input = std::string("{\"hdrMode\": ") + hdr[0] + "}";
    EXPECT_EQ((int)Normalized<VideoSettings>(Json(input))["hdrMode"], atoi(hdr[1])) << input;
    EXPECT_EQ((int)Normalized<ChipVinSettingsElement>(Json(input))["hdrMode"], atoi(hdr[1]));
  }
}

TEST(Messages, NormalisingARequestTwiceEqualsOnce) {
  ChangeVideoSettings once = Normalized<ChangeVideoSettings>(
      R"({"functionName": "x", "id": 7, "to": "encoder", "transactionId": "t", "note": 1,
          "audio": {"volume": 300, "bitRate": 1},
          "chip": {"vin1": {"hdrMode": -9}, "vin0": []},
          "video": {"hdrMode": 5, "mjpg2": {"quality": 1000, "fps": 255,
                    "avSerializer": {"type": "VESK", "destinations": {"0": "udp://1.2.3.4:5"}}}}})");
  ChangeVideoSettings twice = Normalized<ChangeVideoSettings>(once);
  EXPECT_EQ(twice.ToJson(true), once.ToJson(true));
  EXPECT_TRUE(twice == once);
  EXPECT_EQ((int)once["video"]["mjpg2"]["quality"], 100);
  EXPECT_EQ(once["video"]["mjpg2"]["avSerializer"]["type"], "vesk");
  EXPECT_EQ((int)once["note"], 1);
}

TEST(Messages, RestartStreamsNamesStreamsByBool) {
  RestartStreams request =
      Normalized<RestartStreams>(R"({"video2": true, "mjpg": "yes", "mjpg2": 1})");
  EXPECT_TRUE(request.video2());
  EXPECT_FALSE(request.video1());
  EXPECT_FALSE(request.video3());
  EXPECT_FALSE(request.mjpg());
  EXPECT_FALSE(request.mjpg1());
  EXPECT_FALSE(request.mjpg2());
  EXPECT_TRUE(request["mjpg"] == Variant(false));
  EXPECT_TRUE(request["mjpg2"] == Variant(false));
}

}  // namespace
}  // namespace test
}  // namespace vesk

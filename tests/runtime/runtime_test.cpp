// Runtime changes of the Encoder on the virtual camera's manual clock: H.264
// streams recorded or sent over TCP, change requests, and the output read
// back with ffprobe and ffmpeg.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <sstream>
#include <string>
#include <vector>

#include "audio_util.h"
#include "basetrackencodervideo.h"
#include "camera_fixture.h"
#include "log_capture.h"
#include "osdrate.h"
#include "outstream.h"
#include "tcp_peer_util.h"
#include "vesk/device/iav.h"
#include "vesk/encoder.h"

namespace vesk {
namespace test {
namespace {

using encoder::Encoder;
using encoder::EncoderSettings;
using encoder::internal::OutStream;
using ipc::messages::ChangeVideoSettings;
using variant::Variant;

// One packet of an FLV file as ffprobe reads it.
struct flv_packet_t {
  double time;  // seconds
  bool key;
  long size;  // bytes
};

Variant Json(const std::string& text) {
  Variant v;
  std::string error;
  EXPECT_TRUE(Variant::FromJson(text, v, error)) << error;
  return v;
}

// One source buffer of size x size, no audio, VIN at 30 frames per second.
EncoderSettings Base(unsigned width = 320, unsigned height = 180) {
  std::string size = "{\"width\": " + std::to_string(width) + ", \"height\": " + std::to_string(height) + "}";
  return EncoderSettings(Json(R"({"chip": {"vin0": {"enabled": true},
      "chan0": {"enabled": true, "buffer0": {"enabled": true, "max_output": )" + size + R"(, "output": )" + size +
                              R"(}}},
      "audio": {"enabled": false, "mode": 0, "sampleRate": 16000, "channels": 1, "bitRate": 32000},
      "video": {"vinFps": 30}})"));
}

// An H.264 stream of 320x180 on the first buffer to an FLV output at uri
// (none when empty): M 1, IDR pictures only (one per second), 400 kbit/s.
void AddH264(EncoderSettings& settings, const char* key, const std::string& uri, unsigned fps = 30) {
  Variant& e = settings["video"][key];
  e = Json(R"({"enabled": true, "sourceId": 0, "width": 320, "height": 180, "M": 1, "N": 1000, "nMultiplier": 1,
               "bitRateVbrMax": 400000, "avSerializer": {"type": "flv", "destinations": []}})");
  e["fps"] = (unsigned char)fps;
  if (!uri.empty()) e["avSerializer"]["destinations"].PushToArray(Variant(uri));
}

std::string FileUri(const std::string& path) {
  unlink(path.c_str());
  return "file://" + path + "?continuous";
}

// The video packets of an FLV file, in file order.
std::vector<flv_packet_t> VideoPackets(const std::string& path) {
  std::istringstream text(RunCommand("ffprobe -v error -select_streams v -show_entries "
                                     "packet=pts_time,flags,size -of csv=p=0 " + path + " 2>/dev/null"));
  std::vector<flv_packet_t> packets;
  std::string line;
  flv_packet_t p;
  char flags[16];
  while (std::getline(text, line))
    if (sscanf(line.c_str(), "%lf,%ld,%15s", &p.time, &p.size, flags) == 3) packets.push_back({p.time, flags[0] == 'K', p.size});
  return packets;
}

// Bits per second of the packets in [from, to) seconds.
double BitsPerSecond(const std::vector<flv_packet_t>& packets, double from, double to) {
  long bytes = 0;
  for (const flv_packet_t& p : packets)
    if (p.time >= from && p.time < to) bytes += p.size;
  return bytes * 8.0 / (to - from);
}

// Median spacing in milliseconds of consecutive (key) packets in [from, to).
double MedianSpacingMs(const std::vector<flv_packet_t>& packets, bool keyOnly, double from, double to) {
  std::vector<double> times, gaps;
  for (const flv_packet_t& p : packets)
    if (!keyOnly || p.key) times.push_back(p.time);
  for (size_t i = 1; i < times.size(); i++)
    if (times[i - 1] >= from && times[i] < to) gaps.push_back((times[i] - times[i - 1]) * 1000.0);
  if (gaps.empty()) return 0;
  std::sort(gaps.begin(), gaps.end());
  return gaps[gaps.size() / 2];
}

class RuntimeTest : public CameraTest {
 protected:
  void SetUp() override {
    CameraTest::SetUp();
    UseVirtualSoundCard("free=0");
  }

  // Pumps while the camera's clock advances by ms, one frame period at a
  // time; realTime also lets the sound card's real clock run along.
  static int Pump(Encoder& encoder, unsigned ms, bool realTime = false) {
    int moved = 0;
    for (unsigned t = 0; t < ms; t += 33) {
      vcam_advance_ms(33);
      if (realTime) usleep(33000);
      for (int i = 0, n; i < 8 && (n = encoder.EncodeFrames()) > 0; i++) moved += n;
    }
    return moved;
  }

  // Applies one change request, by default after clearing the captured lines.
  bool Update(Encoder& encoder, const std::string& json, bool clearLog = true) {
    if (clearLog) log_.Clear();
    ChangeVideoSettings request(Json(json));
    return encoder.UpdateSettings(request);
  }

  static const Variant& Current(Encoder& encoder, const char* key) { return encoder.GetCurrentSettings()["video"][key]; }

  LogCapture log_;
};

TEST_F(RuntimeTest, FrameRateThenIdrMultiplierChangeWhileRecording) {
  std::string path = "/tmp/vesk_runtime_fps.flv";
  EncoderSettings settings = Base();
  AddH264(settings, "video1", FileUri(path));
  Encoder encoder;
  ASSERT_TRUE(encoder.Configure(settings, false));
  EXPECT_TRUE(log_.Has("drift allowed on channel video1: 267 ms"));
  const OutStream* stream = encoder.GetOutStream(0);
  Pump(encoder, 2000);

  ASSERT_TRUE(Update(encoder, R"({"video": {"video1": {"fps": 15}}})"));
  EXPECT_TRUE(log_.Has("Changed fps on channel video1: 30 -> 15"));
  EXPECT_FALSE(log_.Contains("Changed nMultiplier"));
  // The slower stream widens the drift allowance: 8 x 6000 ticks of 90 kHz.
  EXPECT_TRUE(log_.Has("drift allowed on channel video1: 533 ms"));
  EXPECT_EQ(stream, encoder.GetOutStream(0)) << "a frame-rate change rebuilds no stream";
  // Programmed at the VIN rate: twice the rate, so that 400 kbit/s is delivered.
  EXPECT_EQ(800000u, StreamStatus(0).targetBitrate);
  Pump(encoder, 3000);

  // A new IDR multiplier alone logs only its line.
  ASSERT_TRUE(Update(encoder, R"({"video": {"video1": {"nMultiplier": 3}}})"));
  std::vector<std::string> changed;
  for (const std::string& m : log_.Messages())
    if (m.find("Changed") == 0 || m.find("drift") == 0) changed.push_back(m);
  EXPECT_EQ(changed, std::vector<std::string>({"Changed nMultiplier on channel video1: 1 -> 3"}));
  Pump(encoder, 8000);
  encoder.Close();

  // The rates and the IDR cadence (one per second at 15, then every 3 s) in the recording.
  std::vector<flv_packet_t> packets = VideoPackets(path);
  ASSERT_GT(packets.size(), 200u);
  double start = packets[0].time;
  EXPECT_NEAR(33.3, MedianSpacingMs(packets, false, start, start + 1.9), 1.0);
  EXPECT_NEAR(66.7, MedianSpacingMs(packets, false, start + 2.2, 1e9), 1.0);
  EXPECT_NEAR(1000.0, MedianSpacingMs(packets, true, start, start + 4.9), 40.0);
  EXPECT_NEAR(3000.0, MedianSpacingMs(packets, true, start + 5.1, 1e9), 40.0);
}

TEST_F(RuntimeTest, NewMaximumBitRateReachesTheOutputAndTheElementsStatistics) {
  std::string path = "/tmp/vesk_runtime_bitrate.flv";
  EncoderSettings settings = Base();
  // video2 alone: the chip's stream 0, the statistics' second line.
  AddH264(settings, "video2", FileUri(path));
  settings["video"]["video2"]["bitRateVbrMax"] = 800000u;
  Encoder encoder;
  ASSERT_TRUE(encoder.Configure(settings, false));
  ASSERT_EQ(0u, (unsigned)Current(encoder, "video2")["streamOrdinal"]);
  // Level 0: statistics off, even stale lines stay.
  std::vector<std::string> lines = {"stale"};
  encoder.GetChannelsOSDStats(0, lines);
  EXPECT_EQ(std::vector<std::string>({"stale"}), lines);
  Pump(encoder, 4000);

  const OutStream* stream = encoder.GetOutStream(0);
  long long rate = (long long)stream->GetOutputBitrate();
  ASSERT_GE(rate, 128);
  std::string suffix = "; R: " + std::to_string(rate >> 7);
  encoder.GetChannelsOSDStats(2, lines);
  EXPECT_EQ(std::vector<std::string>(
                {"", "CS: [  32 -  800 -  800]; SP: [    not enabled   ]; M: [    not enabled   ]; T: 800" + suffix, ""}),
            lines);
  encoder.GetChannelsOSDStats(1, lines);
  EXPECT_EQ("800 kbps" + suffix, lines[1]);

  ASSERT_TRUE(Update(encoder, R"({"video": {"video2": {"bitRateVbrMax": 100000}}})"));
  EXPECT_TRUE(log_.Has("Changed bitRateVbrMax/bitRateCbrAvg on channel video2. VBR: 800000 -> 100000; "
                       "CBR: 500000 -> 500000; isCbr: 0 -> 0"));
  EXPECT_FALSE(log_.Contains("Changed fps"));
  EXPECT_EQ(100000u, StreamStatus(0).targetBitrate);
  encoder.GetChannelsOSDStats(2, lines);
  EXPECT_EQ(0u, lines[1].find("CS: [  32 -  100 -  100]; SP: [    not enabled   ]; M: [    not enabled   ]; T: 100"))
      << lines[1];
  Pump(encoder, 4000);
  // A new player resets the measured output rate: no suffix until it is known again.
  EXPECT_TRUE(encoder.AdaptServerPlayerBitrate(0, 0, -8, true));
  EXPECT_EQ(-1, stream->GetOutputBitrate());
  encoder.GetChannelsOSDStats(1, lines);
  EXPECT_EQ("100 kbps", lines[1]);
  encoder.Close();

  std::vector<flv_packet_t> packets = VideoPackets(path);
  ASSERT_GT(packets.size(), 200u);
  double start = packets[0].time;
  double before = BitsPerSecond(packets, start + 1.0, start + 4.0);
  double after = BitsPerSecond(packets, start + 5.0, start + 8.0);
  // The still-ish test scene does not fill 800 kbit/s; 100 kbit/s it does.
  EXPECT_GT(before, 2 * after) << before << " then " << after;
  EXPECT_NEAR(after, 100000.0, 30000.0);
}

TEST_F(RuntimeTest, RefusedChangesLeaveTheSettingsAsTheyWere) {
  EncoderSettings settings = Base();
  AddH264(settings, "video1", "");
  Encoder encoder;
  ASSERT_TRUE(encoder.Configure(settings, false));
  const char* bitRate = R"({"video": {"video1": {"bitRateVbrMax": 200000, "isCbr": true}}})";
  vcam_fault_request(IAV_IOC_GET_STREAM_CONFIG, EIO, 1);
  EXPECT_TRUE(Update(encoder, bitRate)) << "a track failure does not stop the update";
  EXPECT_TRUE(log_.Has("Unable to update the bitrate"));
  EXPECT_TRUE(log_.Has("Unable to change bit rate on channel video1. VBR: 400000 -> 200000; "
                       "CBR: 500000 -> 500000; isCbr: 0 -> 1"));
  EXPECT_TRUE(log_.Has("Updating the video settings failed"));
  EXPECT_EQ(400000u, (unsigned)Current(encoder, "video1")["bitRateVbrMax"]);
  EXPECT_EQ(400000u, StreamStatus(0).targetBitrate);

  // The same request again is compared with the truth and goes through.
  EXPECT_TRUE(Update(encoder, bitRate));
  EXPECT_TRUE(log_.Has("Changed bitRateVbrMax/bitRateCbrAvg on channel video1. VBR: 400000 -> 200000; "
                       "CBR: 500000 -> 500000; isCbr: 0 -> 1"));
  EXPECT_EQ(200000u, StreamStatus(0).targetBitrate);
  EXPECT_TRUE((bool)Current(encoder, "video1")["isCbr"]);

  // A refused IDR cadence names itself and keeps the old one.
  vcam_fault_request(IAV_IOC_SET_STREAM_CONFIG, EIO, 1);
  EXPECT_TRUE(Update(encoder, R"({"video": {"video1": {"nMultiplier": 2}}})"));
  EXPECT_TRUE(log_.Has("Unable to change IDR interval on channel video1: 1 -> 2"));
  EXPECT_FALSE(log_.Contains("Changed nMultiplier"));
  EXPECT_EQ(1u, (unsigned)Current(encoder, "video1")["nMultiplier"]);

  // "isCbr" alone, without a bit rate, is not a request.
  EXPECT_TRUE(Update(encoder, R"({"video": {"video1": {"isCbr": false}}})"));
  EXPECT_FALSE(log_.Contains("Changed"));
  EXPECT_TRUE((bool)Current(encoder, "video1")["isCbr"]);
}

TEST_F(RuntimeTest, VolumeRequestTouchesNoVideoAndMutingIsOneWay) {
  std::string path = "/tmp/vesk_runtime_volume.flv";
  EncoderSettings settings = Base();
  settings["audio"]["enabled"] = true;
  AddH264(settings, "video1", FileUri(path));
  Encoder encoder;
  ASSERT_TRUE(encoder.Configure(settings, false));
  const OutStream* stream = encoder.GetOutStream(0);
  Pump(encoder, 1500, true);
  uint32_t setConfigs = vcam_request_count(IAV_IOC_SET_STREAM_CONFIG);

  ASSERT_TRUE(Update(encoder, R"({"audio": {"volume": 0}})"));
  EXPECT_TRUE(log_.Has("PCM volume set to 0%"));
  ASSERT_TRUE(Update(encoder, R"({"audio": {"volume": 50}})", false));  // the mute line stays captured
  EXPECT_TRUE(log_.Has("Camera is currently muted. Attempt to set the volume to 50 is not allowed"));
  EXPECT_FALSE(log_.Contains("Changed"));
  EXPECT_FALSE(log_.Contains("drift allowed"));
  EXPECT_EQ(setConfigs, vcam_request_count(IAV_IOC_SET_STREAM_CONFIG)) << "no video setting touched";
  EXPECT_EQ(stream, encoder.GetOutStream(0)) << "no stream rebuilt";
  EXPECT_EQ(0u, (unsigned)encoder.GetCurrentSettings()["audio"]["volume"]);
  Pump(encoder, 2500, true);
  encoder.Close();

  // The tone before the mute, silence after it.
  std::vector<int16_t> samples = DecodeMono(path);
  ASSERT_GT(samples.size(), 16000u * 3);
  EXPECT_GT(Rms(std::vector<int16_t>(samples.begin() + 4000, samples.begin() + 16000), 0), 500.0);
  EXPECT_LT(Rms(std::vector<int16_t>(samples.end() - 16000, samples.end()), 0), 20.0);
}

TEST_F(RuntimeTest, RestartOfVideo2ReconnectsOnlyItsPeer) {
  Listener peer1;
  Listener peer2;
  EncoderSettings settings = Base();
  AddH264(settings, "video1", peer1.Uri());
  AddH264(settings, "video2", peer2.Uri());
  Encoder encoder;
  ASSERT_TRUE(encoder.Configure(settings, false));
  int first1 = peer1.Accept(5000);
  int first2 = peer2.Accept(5000);
  ASSERT_GE(first1, 0);
  ASSERT_GE(first2, 0);
  Pump(encoder, 300);
  const std::vector<uint8_t> flv = {'F', 'L', 'V'};
  EXPECT_EQ(flv, ReadBytes(first1, 3, 5000));
  EXPECT_EQ(flv, ReadBytes(first2, 3, 5000));
  const OutStream* stream1 = encoder.GetOutStream(0);
  const OutStream* stream2 = encoder.GetOutStream(1);
  ReadBytes(first1, 1u << 26, 300);  // what video1 sent so far

  Variant named;
  named["video2"] = true;
  ipc::messages::RestartStreams restart(named);
  ASSERT_TRUE(encoder.RestartStreams(restart));
  EXPECT_EQ(stream1, encoder.GetOutStream(0));
  EXPECT_NE(stream2, encoder.GetOutStream(1));
  EXPECT_NE(nullptr, encoder.GetOutStream(1));
  int second2 = peer2.Accept(5000);
  ASSERT_GE(second2, 0) << "video2 connects again";
  Pump(encoder, 300);
  EXPECT_EQ(flv, ReadBytes(second2, 3, 5000)) << "a new FLV header";
  EXPECT_TRUE(WaitForClose(first2, 5000)) << "the old video2 connection is closed";

  // video1 keeps its one connection and its data keeps coming.
  EXPECT_LT(peer1.Accept(200), 0);
  Pump(encoder, 300);
  EXPECT_FALSE(ReadBytes(first1, 1000, 2000).empty());
  EXPECT_EQ(1u, encoder.GetOutStream(0)->GetTransports().size());
  close(first1);
  close(first2);
  close(second2);
}

TEST_F(RuntimeTest, FailedVideoUpdateStillRebuildsStreamsAndDrift) {
  std::string path2 = "/tmp/vesk_runtime_fail2.flv";
  EncoderSettings settings = Base();
  AddH264(settings, "video1", FileUri("/tmp/vesk_runtime_fail1.flv"));
  Encoder encoder;
  ASSERT_TRUE(encoder.Configure(settings, false));
  const OutStream* stream = encoder.GetOutStream(0);
  Pump(encoder, 300);

  vcam_fault_request(IAV_IOC_SET_STREAM_CONFIG, EIO, VCAM_FAULT_ALWAYS);
  EXPECT_TRUE(Update(encoder, R"({"video": {"video1": {"fps": 15, "avSerializer": {"type": "flv",
      "destinations": [")" + FileUri(path2) + R"("]}}}})"));
  vcam_clear_faults();
  EXPECT_TRUE(log_.Has("Unable to change FPS on channel video1: 30 -> 15"));
  EXPECT_TRUE(log_.Has("Updating the video settings failed"));
  EXPECT_FALSE(log_.Contains("Changed fps"));
  EXPECT_EQ(30, (int)(unsigned char)Current(encoder, "video1")["fps"]);
  // The stream is rebuilt on its new output and gets its allowance.
  EXPECT_NE(stream, encoder.GetOutStream(0));
  EXPECT_TRUE(log_.Has("drift allowed on channel video1: 267 ms"));
  std::string output = Current(encoder, "video1")["avSerializer"].ToString();
  EXPECT_NE(std::string::npos, output.find(path2)) << "kept for later restarts: " << output;
  Pump(encoder, 300);
  encoder.Close();
  EXPECT_EQ(0, access(path2.c_str(), F_OK));
}

TEST_F(RuntimeTest, BudgetRefusesAFrameRateTheChipCannotTake) {
  // S2L_22M (216000): 1920x1080 fits at 25 frames per second, not at 30.
  vcam_set_chip_id(0);
  EncoderSettings settings = Base(1920, 1080);
  AddH264(settings, "video1", "", 15);
  settings["video"]["video1"]["width"] = 1920u;
  settings["video"]["video1"]["height"] = 1080u;
  Encoder encoder;
  ASSERT_TRUE(encoder.Configure(settings, false));
  uint32_t setConfigs = vcam_request_count(IAV_IOC_SET_STREAM_CONFIG);
  EXPECT_TRUE(Update(encoder, R"({"video": {"video1": {"fps": 30}}})"));
  EXPECT_TRUE(log_.Has("Mbps exceeded: wanted: 244800; max: 216000"));
  EXPECT_TRUE(log_.Has("Unable to set the new values on MPMA"));
  EXPECT_TRUE(log_.Has("Updating the video settings failed"));
  EXPECT_EQ(setConfigs, vcam_request_count(IAV_IOC_SET_STREAM_CONFIG)) << "nothing reached the chip";
  EXPECT_EQ(15u, StreamStatus(0).fpsNumerator);
  EXPECT_EQ(15, (int)(unsigned char)Current(encoder, "video1")["fps"]);
  EXPECT_EQ(1080u, (unsigned)Current(encoder, "video1")["height"]);

  // 29 is brought down to 25, which fits (204000).
  EXPECT_TRUE(Update(encoder, R"({"video": {"video1": {"fps": 29}}})"));
  EXPECT_TRUE(log_.Has("FPS value corrected. Max FPS: 30; Wanted FPS: 29; Correct FPS: 25"));
  EXPECT_TRUE(log_.Has("Changed fps on channel video1: 15 -> 25"));
  EXPECT_EQ(25u, StreamStatus(0).fpsNumerator);
}

TEST_F(RuntimeTest, AdaptiveMinimaChangeOnlyTheAdaptation) {
  EncoderSettings settings = Base();
  AddH264(settings, "video1", "");
  Encoder encoder;
  ASSERT_TRUE(encoder.Configure(settings, false));
  uint32_t formats = vcam_request_count(IAV_IOC_SET_STREAM_FORMAT);
  uint32_t h264 = vcam_request_count(IAV_IOC_SET_H264_CONFIG);
  uint32_t idrs = StreamStatus(0).forcedIdrs;

  ASSERT_TRUE(Update(encoder,
                     R"({"video": {"video1": {"minClientAdaptiveBitRate": 200000, "minMotionAdaptiveBitRate": 100000}}})"));
  EXPECT_TRUE(log_.Has("Changed newMinClientAdaptiveBitRate on channel video1. 0 -> 200000"));
  EXPECT_TRUE(log_.Has("Changed newMinMotionAdaptiveBitRate on channel  video1: 0 -> 100000"));
  EXPECT_EQ(formats, vcam_request_count(IAV_IOC_SET_STREAM_FORMAT));
  EXPECT_EQ(h264, vcam_request_count(IAV_IOC_SET_H264_CONFIG));
  EXPECT_EQ(idrs, StreamStatus(0).forcedIdrs);
  EXPECT_EQ(200000, (int)Current(encoder, "video1")["minClientAdaptiveBitRate"]);
  EXPECT_EQ(400000u, StreamStatus(0).targetBitrate) << "every side still at its maximum";

  // A player joins: the server-player side starts at its new minimum.
  EXPECT_TRUE(encoder.AdaptServerPlayerBitrate(0, 0, -8, true));
  EXPECT_EQ(200000u, StreamStatus(0).targetBitrate);
  std::vector<std::string> lines;
  encoder.GetChannelsOSDStats(2, lines);
  EXPECT_EQ("CS: [  32 -  400 -  400]; SP: (255)[ 200 -  200 -  400]; M: [ 100 -  400 -  400]; T: 200", lines[0]);

  // Unchanged values and the "not requested" -1 log nothing.
  ASSERT_TRUE(Update(encoder, R"({"video": {"video1": {"minClientAdaptiveBitRate": 200000, "minMotionAdaptiveBitRate": -1}}})"));
  EXPECT_FALSE(log_.Contains("Changed"));
}

TEST_F(RuntimeTest, MjpegQualityAndHdrMode) {
  EncoderSettings settings = Base();
  AddH264(settings, "video1", "");
  settings["video"]["mjpg1"] =
      Json(R"({"enabled": true, "sourceId": 0, "width": 320, "height": 180, "fps": 10, "quality": 50})");
  Encoder encoder;
  ASSERT_TRUE(encoder.Configure(settings, false));
  ASSERT_EQ(50u, StreamStatus(1).quality);

  ASSERT_TRUE(Update(encoder, R"({"video": {"mjpg1": {"quality": 80}}})"));
  EXPECT_TRUE(log_.Has("Changed quality on channel  mjpg1: 50 -> 80"));
  EXPECT_EQ(80u, StreamStatus(1).quality);
  EXPECT_EQ(80u, (unsigned)Current(encoder, "mjpg1")["quality"]);
  EXPECT_GT(Pump(encoder, 500), 0) << "the stream keeps encoding";

  // A quality the chip refuses is reported with the element and not kept.
  vcam_fault_request(IAV_IOC_SET_STREAM_CONFIG, EIO, 1);
  EXPECT_TRUE(Update(encoder, R"({"video": {"mjpg1": {"quality": 30}}})"));
  EXPECT_TRUE(log_.Contains("Unable to update settings encoding:"));
  EXPECT_TRUE(log_.Has("Updating the video settings failed"));
  EXPECT_EQ(80u, StreamStatus(1).quality);
  EXPECT_EQ(80u, (unsigned)Current(encoder, "mjpg1")["quality"]);

  // HDR mode: -1 is no request; a new mode waits for the next start, once.
  const char* requests[] = {R"({"video": {"hdrMode": -1}})", R"({"video": {"hdrMode": 1}})",
                            R"({"video": {"hdrMode": 1}})"};
  for (int i = 0; i < 3; i++) {
    ASSERT_TRUE(Update(encoder, requests[i]));
    EXPECT_EQ(log_.Has("Vin[0]: Changed hdrMode. 0 -> 1, restart to take effect"), i == 1);
    EXPECT_EQ(log_.Contains("hdrMode"), i == 1);
    EXPECT_EQ(i == 0 ? 0u : 1u, (unsigned)encoder.GetCurrentSettings()["video"]["hdrMode"]);
  }
  EXPECT_EQ(0u, Status().vinHdrMode);
}

TEST(OutputRateSuffix, KibibitsFromTheMeasuredBytes) {
  // 128000 bytes per second.
  std::string line = "T: 1000";
  encoder::internal::AppendOutputRate(line, 128000);
  EXPECT_EQ("T: 1000; R: 1000", line);
  // Unknown and zero rates add nothing; a rate under 128 shows as 0.
  line.clear();
  encoder::internal::AppendOutputRate(line, -1);
  encoder::internal::AppendOutputRate(line, 0);
  EXPECT_EQ("", line);
  encoder::internal::AppendOutputRate(line, 127);
  EXPECT_EQ("; R: 0", line);
}

}  // namespace
}  // namespace test
}  // namespace vesk

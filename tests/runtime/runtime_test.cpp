#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <string>
#include <vector>

#include "basetrackencodervideo.h"
#include "osdrate.h"
#include "outstream.h"
#include "runtime_fixture.h"
#include "tcp_test_util.h"
#include "vesk/device/iav.h"

using vesk::encoder::Encoder;
using vesk::encoder::EncoderSettings;
using vesk::ipc::messages::ChangeVideoSettings;
using vesk::test::flv_packet_t;
using vesk::test::RuntimeTest;
using vesk::variant::Variant;

namespace {

// Bits per second of the packets in [from, to) seconds.
double BitsPerSecond(const std::vector<flv_packet_t>& packets, double from, double to) {
  long bytes = 0;
  for (const flv_packet_t& p : packets)
    if (p.time >= from && p.time < to) bytes += p.size;
  return bytes * 8.0 / (to - from);
}

// Median spacing in milliseconds of consecutive packets in [from, to).
double MedianSpacingMs(const std::vector<double>& times, double from, double to) {
  std::vector<double> gaps;
  for (size_t i = 1; i < times.size(); i++)
    if (times[i - 1] >= from && times[i] < to) gaps.push_back((times[i] - times[i - 1]) * 1000.0);
  if (gaps.empty()) return 0;
  std::sort(gaps.begin(), gaps.end());
  return gaps[gaps.size() / 2];
}

std::vector<double> Times(const std::vector<flv_packet_t>& packets, bool keyOnly) {
  std::vector<double> times;
  for (const flv_packet_t& p : packets)
    if (!keyOnly || p.key) times.push_back(p.time);
  return times;
}

}  // namespace

TEST_F(RuntimeTest, LowerFrameRateWhileRecording) {
  std::string path = "/tmp/vesk_runtime_fps.flv";
  unlink(path.c_str());
  EncoderSettings settings = Base();
  AddH264(settings, "video1", FileUri(path));
  Encoder encoder;
  ASSERT_TRUE(encoder.Configure(settings, false));
  EXPECT_TRUE(log_.Has("drift allowed on channel video1: 267 ms"));
  const vesk::encoder::internal::OutStream* stream = encoder.GetOutStream(0);
  Pump(encoder, 2000);

  log_.Clear();
  ChangeVideoSettings request = Request(R"({"video": {"video1": {"fps": 15}}})");
  ASSERT_TRUE(encoder.UpdateSettings(request));
  EXPECT_TRUE(log_.Has("Changed fps on channel video1: 30 -> 15"));
  EXPECT_FALSE(log_.Contains("Changed nMultiplier"));
  // The slower stream widens the drift allowance: 8 x 6000 ticks of 90 kHz.
  EXPECT_TRUE(log_.Has("drift allowed on channel video1: 533 ms"));
  EXPECT_EQ(stream, encoder.GetOutStream(0)) << "a frame-rate change rebuilds no stream";
  EXPECT_EQ(15, (int)(unsigned char)encoder.GetCurrentSettings()["video"]["video1"]["fps"]);
  vcam_stream_status_t status = StreamStatus(0);
  EXPECT_EQ(15u, status.fpsNumerator);
  EXPECT_EQ(30u, status.fpsDenominator);
  EXPECT_EQ(15u, status.idrInterval) << "one IDR picture per second at the new rate";
  // Programmed at the VIN rate: twice the rate, so that 400 kbit/s is delivered.
  EXPECT_EQ(800000u, status.targetBitrate);
  Pump(encoder, 3000);
  encoder.Close();

  std::vector<double> times = Times(VideoPackets(path), false);
  ASSERT_GT(times.size(), 90u);
  double change = times[0] + 2.0;
  EXPECT_NEAR(33.3, MedianSpacingMs(times, times[0], change - 0.1), 1.0);
  EXPECT_NEAR(66.7, MedianSpacingMs(times, change + 0.2, 1e9), 1.0);

  // A frame rate above the stream's maximum is brought down to it.
  // (reconfigured: the recording above is closed)
  ASSERT_TRUE(encoder.Configure(settings, false));
  log_.Clear();
  request = Request(R"({"video": {"video1": {"fps": 29}}})");
  ASSERT_TRUE(encoder.UpdateSettings(request));
  EXPECT_TRUE(log_.Has("FPS value corrected. Max FPS: 30; Wanted FPS: 29; Correct FPS: 25"));
  EXPECT_TRUE(log_.Has("Changed fps on channel video1: 30 -> 25"));
}

TEST_F(RuntimeTest, NewIdrMultiplierAloneChangesTheKeyFrameSpacing) {
  std::string path = "/tmp/vesk_runtime_idr.flv";
  unlink(path.c_str());
  EncoderSettings settings = Base();
  AddH264(settings, "video1", FileUri(path));
  Encoder encoder;
  ASSERT_TRUE(encoder.Configure(settings, false));
  Pump(encoder, 3000);

  log_.Clear();
  ChangeVideoSettings request = Request(R"({"video": {"video1": {"nMultiplier": 3}}})");
  ASSERT_TRUE(encoder.UpdateSettings(request));
  std::vector<std::string> changed;
  for (const std::string& m : log_.Messages())
    if (m.find("Changed") == 0 || m.find("drift") == 0) changed.push_back(m);
  ASSERT_EQ(1u, changed.size());
  EXPECT_EQ("Changed nMultiplier on channel video1: 1 -> 3", changed[0]);
  EXPECT_EQ(90u, StreamStatus(0).idrInterval);
  EXPECT_EQ(3u, (unsigned)encoder.GetCurrentSettings()["video"]["video1"]["nMultiplier"]);
  Pump(encoder, 7000);
  encoder.Close();

  std::vector<double> keys = Times(VideoPackets(path), true);
  ASSERT_GE(keys.size(), 5u);
  double change = keys[0] + 3.0;
  EXPECT_NEAR(1000.0, MedianSpacingMs(keys, keys[0], change - 0.1), 40.0);
  EXPECT_NEAR(3000.0, MedianSpacingMs(keys, change + 0.1, 1e9), 40.0);
}

TEST_F(RuntimeTest, NewMaximumBitRateReachesTheOutputAndTheStatistics) {
  std::string path = "/tmp/vesk_runtime_bitrate.flv";
  unlink(path.c_str());
  EncoderSettings settings = Base();
  AddH264(settings, "video1", FileUri(path));
  settings["video"]["video1"]["bitRateVbrMax"] = 800000u;
  Encoder encoder;
  ASSERT_TRUE(encoder.Configure(settings, false));
  std::vector<std::string> lines;
  encoder.GetChannelsOSDStats(2, lines);
  ASSERT_EQ(3u, lines.size());
  EXPECT_EQ(0u, lines[0].find("CS: [  32 -  800 -  800]; SP: [    not enabled   ]; "
                              "M: [    not enabled   ]; T: 800"))
      << lines[0];
  Pump(encoder, 4000);

  log_.Clear();
  ChangeVideoSettings request = Request(R"({"video": {"video1": {"bitRateVbrMax": 100000}}})");
  ASSERT_TRUE(encoder.UpdateSettings(request));
  EXPECT_TRUE(log_.Has("Changed bitRateVbrMax/bitRateCbrAvg on channel video1. VBR: 800000 -> 100000; "
                       "CBR: 500000 -> 500000; isCbr: 0 -> 0"));
  EXPECT_FALSE(log_.Contains("Changed fps"));
  EXPECT_EQ(100000u, StreamStatus(0).targetBitrate);
  encoder.GetChannelsOSDStats(2, lines);
  EXPECT_EQ(0u, lines[0].find("CS: [  32 -  100 -  100]; SP: [    not enabled   ]; "
                              "M: [    not enabled   ]; T: 100"))
      << lines[0];
  encoder.GetChannelsOSDStats(1, lines);
  EXPECT_EQ(0u, lines[0].find("100 kbps")) << lines[0];
  Pump(encoder, 4000);
  encoder.Close();

  std::vector<flv_packet_t> packets = VideoPackets(path);
  ASSERT_GT(packets.size(), 200u);
  double start = packets[0].time;
  double before = BitsPerSecond(packets, start + 1.0, start + 4.0);
  double after = BitsPerSecond(packets, start + 5.0, start + 8.0);
  // The still-ish test scene does not fill 800 kbit/s; 100 kbit/s it does.
  EXPECT_GT(before, 2 * after) << before << " then " << after;
  EXPECT_GT(after, 70000.0);
  EXPECT_LT(after, 130000.0);
}

TEST_F(RuntimeTest, RefusedChangesLeaveTheSettingsAsTheyWere) {
  EncoderSettings settings = Base();
  AddH264(settings, "video1", "");
  Encoder encoder;
  ASSERT_TRUE(encoder.Configure(settings, false));
  vcam_fault_request(IAV_IOC_GET_STREAM_CONFIG, EIO, 1);
  log_.Clear();
  ChangeVideoSettings request = Request(R"({"video": {"video1": {"bitRateVbrMax": 200000, "isCbr": true}}})");
  EXPECT_TRUE(encoder.UpdateSettings(request)) << "a track failure does not stop the update";
  EXPECT_TRUE(log_.Has("Unable to update the bitrate"));
  EXPECT_TRUE(log_.Has("Unable to change bit rate on channel video1. VBR: 400000 -> 200000; "
                       "CBR: 500000 -> 500000; isCbr: 0 -> 1"));
  EXPECT_TRUE(log_.Has("Updating the video settings failed"));
  EXPECT_EQ(400000u, (unsigned)encoder.GetCurrentSettings()["video"]["video1"]["bitRateVbrMax"]);
  EXPECT_EQ(400000u, StreamStatus(0).targetBitrate);

  // The same request again is compared with the truth and goes through.
  log_.Clear();
  request = Request(R"({"video": {"video1": {"bitRateVbrMax": 200000, "isCbr": true}}})");
  EXPECT_TRUE(encoder.UpdateSettings(request));
  EXPECT_TRUE(log_.Has("Changed bitRateVbrMax/bitRateCbrAvg on channel video1. VBR: 400000 -> 200000; "
                       "CBR: 500000 -> 500000; isCbr: 0 -> 1"));
  EXPECT_EQ(200000u, StreamStatus(0).targetBitrate);
  EXPECT_TRUE((bool)encoder.GetCurrentSettings()["video"]["video1"]["isCbr"]);

  // A refused IDR cadence names itself and keeps the old one.
  vcam_fault_request(IAV_IOC_SET_STREAM_CONFIG, EIO, 1);
  log_.Clear();
  request = Request(R"({"video": {"video1": {"nMultiplier": 2}}})");
  EXPECT_TRUE(encoder.UpdateSettings(request));
  EXPECT_TRUE(log_.Has("Unable to change IDR interval on channel video1: 1 -> 2"));
  EXPECT_FALSE(log_.Contains("Changed nMultiplier"));
  EXPECT_EQ(1u, (unsigned)encoder.GetCurrentSettings()["video"]["video1"]["nMultiplier"]);

  // "isCbr" alone, without a bit rate, is not a request.
  log_.Clear();
  request = Request(R"({"video": {"video1": {"isCbr": false}}})");
  EXPECT_TRUE(encoder.UpdateSettings(request));
  EXPECT_FALSE(log_.Contains("Changed"));
  EXPECT_TRUE((bool)encoder.GetCurrentSettings()["video"]["video1"]["isCbr"]);
}

TEST_F(RuntimeTest, VolumeRequestTouchesNoVideoAndMutingIsOneWay) {
  std::string path = "/tmp/vesk_runtime_volume.flv";
  unlink(path.c_str());
  EncoderSettings settings = Base();
  settings["audio"]["enabled"] = true;
  AddH264(settings, "video1", FileUri(path));
  Encoder encoder;
  ASSERT_TRUE(encoder.Configure(settings, false));
  const vesk::encoder::internal::OutStream* stream = encoder.GetOutStream(0);
  Pump(encoder, 1500, true);
  uint32_t setConfigs = vcam_request_count(IAV_IOC_SET_STREAM_CONFIG);

  log_.Clear();
  ChangeVideoSettings request = Request(R"({"audio": {"volume": 0}})");
  ASSERT_TRUE(encoder.UpdateSettings(request));
  EXPECT_TRUE(log_.Has("PCM volume set to 0%"));
  request = Request(R"({"audio": {"volume": 50}})");
  ASSERT_TRUE(encoder.UpdateSettings(request));
  EXPECT_TRUE(log_.Has("Camera is currently muted. Attempt to set the volume to 50 is not allowed"));
  EXPECT_FALSE(log_.Contains("Changed"));
  EXPECT_FALSE(log_.Contains("drift allowed"));
  EXPECT_EQ(setConfigs, vcam_request_count(IAV_IOC_SET_STREAM_CONFIG)) << "no video setting touched";
  EXPECT_EQ(stream, encoder.GetOutStream(0)) << "no stream rebuilt";
  EXPECT_EQ(0u, (unsigned)encoder.GetCurrentSettings()["audio"]["volume"]);
  Pump(encoder, 2500, true);
  encoder.Close();

  int status = 0;
  std::string raw = path + ".raw";
  vesk::test::RunCommand("ffmpeg -y -v error -i " + path + " -vn -f s16le -ac 1 -ar 16000 " + raw + " 2>&1",
                         &status);
  ASSERT_EQ(0, status);
  std::vector<int16_t> samples;
  FILE* f = fopen(raw.c_str(), "rb");
  ASSERT_NE(nullptr, f);
  int16_t buf[4096];
  size_t n;
  while ((n = fread(buf, sizeof(int16_t), 4096, f)) > 0) samples.insert(samples.end(), buf, buf + n);
  fclose(f);
  ASSERT_GT(samples.size(), 16000u * 3);
  std::vector<int16_t> first(samples.begin() + 4000, samples.begin() + 16000);
  std::vector<int16_t> last(samples.end() - 16000, samples.end());
  EXPECT_GT(vesk::test::Rms(first, 0), 500.0) << "the tone before the mute";
  EXPECT_LT(vesk::test::Rms(last, 0), 20.0) << "silence after it";
}

TEST_F(RuntimeTest, RestartOfVideo2ReconnectsOnlyItsPeer) {
  vesk::test::Listener peer1;
  vesk::test::Listener peer2;
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
  std::vector<uint8_t> header1 = vesk::test::ReadBytes(first1, 3, 5000);
  std::vector<uint8_t> header2 = vesk::test::ReadBytes(first2, 3, 5000);
  EXPECT_EQ("FLV", std::string(header1.begin(), header1.end()));
  EXPECT_EQ("FLV", std::string(header2.begin(), header2.end()));
  const vesk::encoder::internal::OutStream* stream1 = encoder.GetOutStream(0);
  const vesk::encoder::internal::OutStream* stream2 = encoder.GetOutStream(1);
  vesk::test::ReadBytes(first1, 1u << 26, 300);  // what video1 sent so far

  Variant named;
  named["video2"] = true;
  vesk::ipc::messages::RestartStreams restart(named);
  ASSERT_TRUE(encoder.RestartStreams(restart));
  EXPECT_EQ(stream1, encoder.GetOutStream(0));
  EXPECT_NE(stream2, encoder.GetOutStream(1));
  EXPECT_NE(nullptr, encoder.GetOutStream(1));
  int second2 = peer2.Accept(5000);
  ASSERT_GE(second2, 0) << "video2 connects again";
  Pump(encoder, 300);
  std::vector<uint8_t> again = vesk::test::ReadBytes(second2, 3, 5000);
  EXPECT_EQ("FLV", std::string(again.begin(), again.end())) << "a new FLV header";
  EXPECT_TRUE(vesk::test::WaitForClose(first2, 5000)) << "the old video2 connection is closed";

  // video1 keeps its one connection and its data keeps coming.
  EXPECT_LT(peer1.Accept(200), 0);
  Pump(encoder, 300);
  EXPECT_FALSE(vesk::test::ReadBytes(first1, 1000, 2000).empty());
  EXPECT_EQ(1u, encoder.GetOutStream(0)->GetTransports().size());
  EXPECT_NE(nullptr, encoder.GetOutStream(0)->GetTransports()[0]);
  close(first1);
  close(first2);
  close(second2);
}

TEST_F(RuntimeTest, FailedVideoUpdateStillRebuildsStreamsAndDrift) {
  std::string path1 = "/tmp/vesk_runtime_fail1.flv";
  std::string path2 = "/tmp/vesk_runtime_fail2.flv";
  unlink(path1.c_str());
  unlink(path2.c_str());
  EncoderSettings settings = Base();
  AddH264(settings, "video1", FileUri(path1));
  Encoder encoder;
  ASSERT_TRUE(encoder.Configure(settings, false));
  const vesk::encoder::internal::OutStream* stream = encoder.GetOutStream(0);
  Pump(encoder, 300);

  vcam_fault_request(IAV_IOC_SET_STREAM_CONFIG, EIO, VCAM_FAULT_ALWAYS);
  log_.Clear();
  ChangeVideoSettings request = Request(
      R"({"video": {"video1": {"fps": 15,
                               "avSerializer": {"type": "flv", "destinations": ["file://)" + path2 +
      R"(?continuous"]}}}})");
  EXPECT_TRUE(encoder.UpdateSettings(request));
  vcam_clear_faults();
  EXPECT_TRUE(log_.Has("Unable to change FPS on channel video1: 30 -> 15"));
  EXPECT_TRUE(log_.Has("Updating the video settings failed"));
  EXPECT_FALSE(log_.Contains("Changed fps"));
  EXPECT_EQ(30, (int)(unsigned char)encoder.GetCurrentSettings()["video"]["video1"]["fps"]);
  // The stream is rebuilt on its new output and gets its allowance.
  EXPECT_NE(stream, encoder.GetOutStream(0));
  EXPECT_TRUE(log_.Has("drift allowed on channel video1: 267 ms"));
  std::string output = encoder.GetCurrentSettings()["video"]["video1"]["avSerializer"].ToString();
  EXPECT_NE(std::string::npos, output.find(path2)) << "kept for later restarts: " << output;
  Pump(encoder, 300);
  encoder.Close();
  EXPECT_EQ(0, access(path2.c_str(), F_OK));
}

TEST_F(RuntimeTest, BudgetRefusesAFrameRateTheChipCannotTake) {
  // S2L_22M (216000): 1920x1080 fits at 15 frames per second, not at 30.
  vcam_set_chip_id(0);
  std::string text = R"({
    "chip": {"vin0": {"enabled": true},
             "chan0": {"enabled": true,
                       "buffer0": {"enabled": true,
                                   "max_output": {"width": 1920, "height": 1080},
                                   "output": {"width": 1920, "height": 1080}}}},
    "video": {"vinFps": 30}})";
  Variant v;
  std::string error;
  ASSERT_TRUE(Variant::FromJson(text, v, error)) << error;
  EncoderSettings settings(v);
  AddH264(settings, "video1", "", 15);
  settings["video"]["video1"]["width"] = 1920u;
  settings["video"]["video1"]["height"] = 1080u;
  Encoder encoder;
  ASSERT_TRUE(encoder.Configure(settings, false));
  uint32_t setConfigs = vcam_request_count(IAV_IOC_SET_STREAM_CONFIG);
  log_.Clear();
  ChangeVideoSettings request = Request(R"({"video": {"video1": {"fps": 30}}})");
  EXPECT_TRUE(encoder.UpdateSettings(request));
  EXPECT_TRUE(log_.Has("Mbps exceeded: wanted: 244800; max: 216000"));
  EXPECT_TRUE(log_.Has("Unable to set the new values on MPMA"));
  EXPECT_TRUE(log_.Has("Updating the video settings failed"));
  EXPECT_EQ(setConfigs, vcam_request_count(IAV_IOC_SET_STREAM_CONFIG)) << "nothing reached the chip";
  EXPECT_EQ(15u, StreamStatus(0).fpsNumerator);
  EXPECT_EQ(15, (int)(unsigned char)encoder.GetCurrentSettings()["video"]["video1"]["fps"]);
  EXPECT_EQ(1080u, (unsigned)encoder.GetCurrentSettings()["video"]["video1"]["height"]);

  // 25 fits (204000).
  log_.Clear();
  request = Request(R"({"video": {"video1": {"fps": 25}}})");
  EXPECT_TRUE(encoder.UpdateSettings(request));
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

  log_.Clear();
  ChangeVideoSettings request = Request(
      R"({"video": {"video1": {"minClientAdaptiveBitRate": 200000, "minMotionAdaptiveBitRate": 100000}}})");
  ASSERT_TRUE(encoder.UpdateSettings(request));
  EXPECT_TRUE(log_.Has("Changed newMinClientAdaptiveBitRate on channel video1. 0 -> 200000"));
  EXPECT_TRUE(log_.Has("Changed newMinMotionAdaptiveBitRate on channel  video1: 0 -> 100000"));
  EXPECT_EQ(formats, vcam_request_count(IAV_IOC_SET_STREAM_FORMAT));
  EXPECT_EQ(h264, vcam_request_count(IAV_IOC_SET_H264_CONFIG));
  EXPECT_EQ(idrs, StreamStatus(0).forcedIdrs);
  EXPECT_EQ(200000, (int)encoder.GetCurrentSettings()["video"]["video1"]["minClientAdaptiveBitRate"]);
  EXPECT_EQ(400000u, StreamStatus(0).targetBitrate) << "every side still at its maximum";

  // A player joins: the server-player side starts at its new minimum.
  EXPECT_TRUE(encoder.AdaptServerPlayerBitrate(0, 0, -8, true));
  EXPECT_EQ(200000u, StreamStatus(0).targetBitrate);
  std::vector<std::string> lines;
  encoder.GetChannelsOSDStats(2, lines);
  EXPECT_EQ("CS: [  32 -  400 -  400]; SP: (255)[ 200 -  200 -  400]; M: [ 100 -  400 -  400]; T: 200",
            lines[0]);

  // Unchanged values and the "not requested" -1 log nothing.
  log_.Clear();
  request = Request(R"({"video": {"video1": {"minClientAdaptiveBitRate": 200000,
                                             "minMotionAdaptiveBitRate": -1}}})");
  ASSERT_TRUE(encoder.UpdateSettings(request));
  EXPECT_FALSE(log_.Contains("Changed"));
}

TEST_F(RuntimeTest, MjpegQualityAndHdrMode) {
  EncoderSettings settings = Base();
  AddH264(settings, "video1", "");
  Variant& mjpg = settings["video"]["mjpg1"];
  mjpg["enabled"] = true;
  mjpg["sourceId"] = 0u;
  mjpg["width"] = 320u;
  mjpg["height"] = 180u;
  mjpg["fps"] = (unsigned char)10;
  mjpg["quality"] = (unsigned char)50;
  Encoder encoder;
  ASSERT_TRUE(encoder.Configure(settings, false));
  ASSERT_EQ(50u, StreamStatus(1).quality);

  log_.Clear();
  ChangeVideoSettings request = Request(R"({"video": {"mjpg1": {"quality": 80}}})");
  ASSERT_TRUE(encoder.UpdateSettings(request));
  EXPECT_TRUE(log_.Has("Changed quality on channel  mjpg1: 50 -> 80"));
  EXPECT_EQ(80u, StreamStatus(1).quality);
  EXPECT_EQ(80u, (unsigned)encoder.GetCurrentSettings()["video"]["mjpg1"]["quality"]);
  EXPECT_GT(Pump(encoder, 500), 0) << "the stream keeps encoding";

  // A quality the chip refuses is reported with the element and not kept.
  vcam_fault_request(IAV_IOC_SET_STREAM_CONFIG, EIO, 1);
  log_.Clear();
  request = Request(R"({"video": {"mjpg1": {"quality": 30}}})");
  EXPECT_TRUE(encoder.UpdateSettings(request));
  EXPECT_TRUE(log_.Contains("Unable to update settings encoding:"));
  EXPECT_TRUE(log_.Has("Updating the video settings failed"));
  EXPECT_EQ(80u, StreamStatus(1).quality);
  EXPECT_EQ(80u, (unsigned)encoder.GetCurrentSettings()["video"]["mjpg1"]["quality"]);

  // HDR mode: -1 is no request; a new mode waits for the next start.
  log_.Clear();
  request = Request(R"({"video": {"hdrMode": -1}})");
  ASSERT_TRUE(encoder.UpdateSettings(request));
  EXPECT_FALSE(log_.Contains("hdrMode"));
  EXPECT_EQ(0u, (unsigned)encoder.GetCurrentSettings()["video"]["hdrMode"]);
  request = Request(R"({"video": {"hdrMode": 1}})");
  ASSERT_TRUE(encoder.UpdateSettings(request));
  EXPECT_TRUE(log_.Has("Vin[0]: Changed hdrMode. 0 -> 1, restart to take effect"));
  EXPECT_EQ(1u, (unsigned)encoder.GetCurrentSettings()["video"]["hdrMode"]);
  vcam_status_t status;
  vcam_get_status(&status);
  EXPECT_EQ(0u, status.vinHdrMode);
  log_.Clear();
  request = Request(R"({"video": {"hdrMode": 1}})");
  ASSERT_TRUE(encoder.UpdateSettings(request));
  EXPECT_FALSE(log_.Contains("hdrMode"));
}

TEST_F(RuntimeTest, StatisticsFollowEachElementsOwnStream) {
  std::string path = "/tmp/vesk_runtime_osd.flv";
  unlink(path.c_str());
  EncoderSettings settings = Base();
  AddH264(settings, "video2", FileUri(path));
  settings["video"]["video2"]["bitRateVbrMax"] = 1200000u;
  Encoder encoder;
  ASSERT_TRUE(encoder.Configure(settings, false));
  ASSERT_EQ(0u, (unsigned)encoder.GetCurrentSettings()["video"]["video2"]["streamOrdinal"]);

  // Level 0: statistics off, even stale lines stay.
  std::vector<std::string> lines = {"stale"};
  encoder.GetChannelsOSDStats(0, lines);
  ASSERT_EQ(1u, lines.size());
  EXPECT_EQ("stale", lines[0]);

  Pump(encoder, 1000);
  encoder.GetChannelsOSDStats(2, lines);
  ASSERT_EQ(3u, lines.size());
  EXPECT_EQ("", lines[0]);
  EXPECT_EQ("", lines[2]);
  const vesk::encoder::internal::OutStream* stream = encoder.GetOutStream(0);
  ASSERT_NE(nullptr, stream);
  long long rate = (long long)stream->GetOutputBitrate();
  ASSERT_GE(rate, 128);
  EXPECT_EQ("CS: [  32 - 1200 - 1200]; SP: [    not enabled   ]; M: [    not enabled   ]; T: 1200; R: " +
                std::to_string(rate >> 7),
            lines[1]);
  std::string placeholder = "[    not enabled   ]";
  EXPECT_EQ(std::string("[  32 - 1200 - 1200]").size(), placeholder.size());
  encoder.GetChannelsOSDStats(1, lines);
  EXPECT_EQ("1200 kbps; R: " + std::to_string(rate >> 7), lines[1]);

  // A new player resets the measured output rate: no suffix until it is known again.
  EXPECT_TRUE(encoder.AdaptServerPlayerBitrate(0, 0, -8, true));
  EXPECT_EQ(-1, stream->GetOutputBitrate());
  encoder.GetChannelsOSDStats(1, lines);
  EXPECT_EQ("1200 kbps", lines[1]);
}

TEST(OutputRateSuffix, KibibitsFromTheMeasuredBytes) {
  // 128000 bytes over one second of sample times.
  vesk::encoder::internal::BandwidthSampler sampler;
  sampler.AddSample(1000, 64000);
  sampler.AddSample(2000, 64000);
  ASSERT_EQ(128000, sampler.GetRate());
  std::string line = "T: 1000";
  vesk::encoder::internal::AppendOutputRate(line, sampler.GetRate());
  EXPECT_EQ("T: 1000; R: 1000", line);

  // Unknown and zero rates add nothing; a rate under 128 shows as 0.
  line.clear();
  vesk::encoder::internal::AppendOutputRate(line, -1);
  vesk::encoder::internal::AppendOutputRate(line, 0);
  EXPECT_EQ("", line);
  vesk::encoder::internal::AppendOutputRate(line, 127);
  EXPECT_EQ("; R: 0", line);
}

#include <unistd.h>

#include <string>
#include <utility>

#include <gtest/gtest.h>

#include "audio_util.h"
#include "camera_fixture.h"
#include "log_capture.h"
#include "motiondetectionthread.h"
#include "outstream.h"
#include "stream_test_util.h"
#include "vesk/device/device.h"
#include "vesk/encoder.h"
#include "vesk/variant/camerainfo.h"

using vesk::encoder::Encoder;
using vesk::encoder::EncoderSettings;
using vesk::test::LogCapture;
using vesk::variant::Variant;

namespace {

// One H.264 stream of 320x180 on the first source buffer, recorded as FLV.
EncoderSettings Settings(const std::string& flvPath, bool audio = false) {
  std::string text = R"({
    "chip": {"vin0": {"enabled": true}, "chan0": {"enabled": true, "buffer0": {"enabled": true,
             "max_output": {"width": 320, "height": 180}, "output": {"width": 320, "height": 180}}}},
    "audio": {"enabled": AUDIO, "mode": 0, "sampleRate": 16000, "channels": 1, "bitRate": 32000},
    "video": {"vinFps": 30, "video1": {"enabled": true, "streamId": 0, "sourceId": 0, "width": 320,
              "height": 180, "fps": 30, "M": 1, "N": 15, "bitRateVbrMax": 400000,
              "avSerializer": {"type": "flv", "destinations": ["file://PATH?continuous"]}}}})";
  text.replace(text.find("PATH"), 4, flvPath);
  text.replace(text.find("AUDIO"), 5, audio ? "true" : "false");
  Variant v;
  std::string error;
  EXPECT_TRUE(Variant::FromJson(text, v, error)) << error;
  return EncoderSettings(v);
}

class EncoderTest : public vesk::test::CameraTest {
 protected:
  void SetUp() override {
    CameraTest::SetUp();
    vesk::test::UseVirtualSoundCard("free=0");
  }

  // Pumps while the virtual camera's clock advances by ms, one frame period at a time.
  int Pump(Encoder& encoder, unsigned ms) {
    int moved = 0;
    for (unsigned t = 0; t < ms; t += 33) {
      vcam_advance_ms(33);
      for (int i = 0, n; i < 4 && (n = encoder.EncodeFrames()) > 0; i++) moved += n;
    }
    return moved;
  }
};

}  // namespace

TEST_F(EncoderTest, RecordsADecodableFlv) {
  std::string path = "/tmp/vesk_encoder_test.flv";
  unlink(path.c_str());
  {
    Encoder encoder;
    ASSERT_TRUE(encoder.Configure(Settings(path), true));
    EXPECT_GE(Pump(encoder, 2000), 50);
    encoder.Close();
    EXPECT_TRUE(encoder.GetCurrentSettings().IsUndefined());
  }
  std::string probe = vesk::test::ProbeStreams(path);
  EXPECT_NE(std::string::npos, probe.find("\nh264,320,180,")) << probe;  // after the clock-sync data stream
  EXPECT_EQ("", vesk::test::DecodeErrors(path));
}

TEST_F(EncoderTest, LifecycleRulesWithoutTracksAndWithoutDefaults) {
  LogCapture log;
  Encoder encoder;
  EXPECT_EQ(-1, encoder.EncodeFrames());
  EXPECT_TRUE(log.Has("Encoding permanently failed"));
  EXPECT_FALSE(encoder.ForceIDR());
  EXPECT_TRUE(log.Has("No video encoder configured"));
  EXPECT_FALSE(encoder.ResetToDefaults());
  EXPECT_TRUE(log.Has("No default settings present"));

  // Configured without saving defaults: the refused reset leaves the running configuration.
  ASSERT_TRUE(encoder.Configure(Settings("/tmp/vesk_encoder_nodefault.flv"), false));
  EXPECT_FALSE(encoder.ResetToDefaults());
  EXPECT_GT(Pump(encoder, 300), 0);

  // A second Configure keeps one motion detection thread.
  auto* motion = vesk::encoder::internal::MotionDetectionThread::_pMotionDetectionThread;
  ASSERT_NE(nullptr, motion);
  ASSERT_TRUE(encoder.Configure(Settings("/tmp/vesk_encoder_nodefault.flv"), true));
  EXPECT_EQ(motion, vesk::encoder::internal::MotionDetectionThread::_pMotionDetectionThread);
  EXPECT_TRUE(encoder.ResetToDefaults());
  EXPECT_NE(nullptr, encoder.GetOutStream(0));

  // (The runtime tests follow the drift allowance of existing streams.)
  Variant outOfRange;
  outOfRange["streamOrdinal"] = 5;
  EXPECT_FALSE(encoder.UpdateDriftAllowance(outOfRange, nullptr));
  EXPECT_TRUE(log.Has("Stream ordinal out of range: 5. Max is 5"));
}

// Drift either way makes both tracks rebase: a free-running sound card racing
// ahead of the camera's manual clock, and a camera clock running 25 % fast
// against a sound card paced in real time (as a drifting crystal would).
TEST_F(EncoderTest, DriftEitherWayTriggersARebaseOfBothTracks) {
  for (bool cameraFast : {false, true}) {
    SCOPED_TRACE(cameraFast ? "camera clock fast" : "sound card fast");
    CameraTest::SetUp();
    LogCapture log;
    vesk::test::UseVirtualSoundCard(cameraFast ? "free=0" : "free=1");
    if (cameraFast) {
      vcam_set_clock_mode(VCAM_CLOCK_REALTIME);
      ASSERT_EQ(0, vcam_set_clock_rate_ppm(250000));
    }
    Encoder encoder;
    ASSERT_TRUE(encoder.Configure(Settings("/tmp/vesk_encoder_rebase.flv", true), false));
    for (int i = 0; i < 800 && !log.Has("Timestamp rebase needed"); i++) {
      if (!cameraFast) Pump(encoder, 66);
      while (encoder.EncodeFrames() > 0) {
      }
      usleep(10000);
    }
    ASSERT_TRUE(log.Has("Timestamp rebase needed"));
    // "streamOrdinal: 0: <video>/<scale>(<ms> ms) - <audio>/<scale>(<ms> ms) = ..."
    long long video = 0, audio = 0, videoMs = -1, audioMs = -1;
    unsigned videoScale = 0, audioScale = 0;
    for (const std::string& line : log.Messages()) {
      sscanf(line.c_str(), "streamOrdinal: 0: %lld/%u(%lld ms) - %lld/%u(%lld ms)", &video, &videoScale, &videoMs,
             &audio, &audioScale, &audioMs);
    }
    ASSERT_TRUE(videoMs >= 0 && audioMs >= 0);
    EXPECT_GT(cameraFast ? videoMs - audioMs : audioMs - videoMs, 512);
  }
}

// The hardware clock: the timer's ticks at its frequency, or not set after the
// line of the first file that failed.
TEST_F(EncoderTest, HardwareClockFromTheTimerFiles) {
  LogCapture log;
  vesk::encoder::timestamp_t clock;
  ASSERT_TRUE(Encoder::GetCurrentHWClock(&clock));
  EXPECT_EQ(std::make_pair(clock.value, clock.timescale),
            std::make_pair((int64_t)vcam_timer_ticks(), (uint32_t)VCAM_TIMER_FREQUENCY));
  // Either file failing to open or holding no number; the frequency is read first.
  const std::string frequency = VDEV_PATH_HWTIMER_OUTFREQ, ticks = VDEV_PATH_HWTIMER;
  for (unsigned long op : {VCAM_OP_OPEN_HWTIMER, VCAM_OP_READ_HWTIMER}) {
    const std::string text =
        op == VCAM_OP_OPEN_HWTIMER ? "Unable to open file " : "Unable to properly read the formatted value in ";
    vcam_fault_request(op, ENOENT, 1);
    clock.value = 5;
    EXPECT_FALSE(Encoder::GetCurrentHWClock(&clock));
    EXPECT_EQ(std::make_pair(clock.value, clock.timescale), std::make_pair((int64_t)-1, 0u));
    EXPECT_TRUE(log.Has(text + frequency));
    long long value = 0;
    vcam_fault_request(op, ENOENT, 1);
    EXPECT_FALSE(Encoder::ReadHWClockFile(ticks.c_str(), value));
    EXPECT_TRUE(log.Has(text + ticks));
  }
  EXPECT_FALSE(Encoder::GetCurrentHWClock(nullptr));
  EXPECT_TRUE(log.Has("Invalid arguments"));
}

TEST_F(EncoderTest, StreamNamesComeFromParametersOrTheHardwareAddress) {
  EncoderSettings settings = Settings("/tmp/vesk_encoder_names.flv");
  settings["video"]["video1"]["avSerializer"]["parameters"]["streamName"] = "  cam  ";
  Encoder encoder;
  ASSERT_TRUE(encoder.Configure(settings, false));
  EXPECT_EQ("cam", encoder.GetOutStream(0)->GetStreamInfo().streamName());

  vesk::variant::CameraInfo::OverrideHwaddr("AABBCCDDEEFF");
  Variant element = encoder.GetCurrentSettings()["video"]["video1"];
  element["streamOrdinal"] = 2;
  Variant config;
  config["type"] = "flv";
  config["destinations"].IsArray(true);
  vesk::encoder::internal::OutStream* stream = encoder.CreateOutStream(element, config);
  vesk::variant::CameraInfo::OverrideHwaddr("");
  ASSERT_NE(nullptr, stream);
  EXPECT_EQ("AABBCCDDEEFF_2", stream->GetStreamInfo().streamName());
  EXPECT_EQ(2u, stream->GetStreamInfo().channelId());
  EXPECT_EQ(0u, stream->GetTransports().size()) << "a stream with no transport is valid";
  delete stream;
}

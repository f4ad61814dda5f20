#include <gtest/gtest.h>

#include "audio_util.h"
#include "log_capture.h"
#include "trackencoderaudio.h"

using vesk::encoder::EncoderSettings;
using vesk::encoder::internal::TrackEncoderAudio;
using vesk::ipc::messages::ChangeVideoSettings;
using vesk::test::LogCapture;

namespace {

ChangeVideoSettings VolumeRequest(int volume) {
  ChangeVideoSettings request;
  if (volume >= 0) request["audio"]["volume"] = volume;
  request.NormalizeFields();
  return request;
}

}  // namespace

TEST(TrackEncoderAudio, WithoutEncoderEveryCallSaysSo) {
  LogCapture log;
  EncoderSettings settings;
  settings.NormalizeFields();
  TrackEncoderAudio track(settings);
  EXPECT_EQ(nullptr, track.GetFrame());
  EXPECT_TRUE(track.Muted());
  EXPECT_FALSE(track.StartEncoding());
  ChangeVideoSettings request = VolumeRequest(30);
  EXPECT_FALSE(track.UpdateSettings(request));
  track.ForceTimestampsRebase();
  EXPECT_EQ(4u, log.Count("No AAC encoder"));
  EXPECT_TRUE(track.StopEncoding()) << "stopping with nothing running succeeds";

  // Default audio settings are not a valid triplet: no encoder, one line.
  log.Clear();
  EXPECT_FALSE(track.Initialize());
  EXPECT_TRUE(log.Has("Unable to obtain the audio encoder. Error was: -1"));
}

TEST(TrackEncoderAudio, VolumeChangesFollowTheMutedRule) {
  vesk::test::UseVirtualSoundCard("free=1");
  LogCapture log;
  EncoderSettings settings;
  settings["audio"]["enabled"] = true;
  settings["audio"]["mode"] = 0;
  settings["audio"]["sampleRate"] = 16000;
  settings["audio"]["bitRate"] = 32000;
  settings["audio"]["volume"] = 50;
  settings.NormalizeFields();
  TrackEncoderAudio track(settings);
  ASSERT_TRUE(track.Initialize());
  ASSERT_TRUE(track.StartEncoding());
  EXPECT_FALSE(track.Muted());

  // No audio block, or the volume already in force: nothing changes.
  for (int volume : {-1, 50}) {
    ChangeVideoSettings same = VolumeRequest(volume);
    EXPECT_TRUE(track.UpdateSettings(same));
  }
  EXPECT_FALSE(log.Contains("PCM volume set to"));
  struct {
    int volume;
    const char* line;
    unsigned stored;
    bool muted;
  } steps[] = {{70, "PCM volume set to 70%", 70, false},
               {0, "PCM volume set to 0%", 0, true},
               {50, "Camera is currently muted. Attempt to set the volume to 50 is not allowed", 0, true}};
  for (auto& s : steps) {
    ChangeVideoSettings request = VolumeRequest(s.volume);
    EXPECT_TRUE(track.UpdateSettings(request));
    EXPECT_TRUE(log.Has(s.line));
    EXPECT_EQ(s.stored, (unsigned)settings.audio().volume());
    EXPECT_EQ(s.muted, track.Muted());
  }

  // Frames flow through the track.
  vesk::encoder::audio_frame_t* frame = nullptr;
  for (int i = 0; i < 500 && (frame = track.GetFrame()) == nullptr; i++) usleep(2000);
  ASSERT_NE(nullptr, frame);
  EXPECT_EQ(16000u, frame->pts.timescale);
  EXPECT_TRUE(track.StopEncoding());
  EXPECT_TRUE(track.Muted());
}

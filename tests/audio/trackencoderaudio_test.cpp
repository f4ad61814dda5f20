#include <gtest/gtest.h>

#include "audio_test_util.h"
#include "log_capture.h"
#include "trackencoderaudio.h"

using vesk::encoder::EncoderSettings;
using vesk::encoder::internal::TrackEncoderAudio;
using vesk::ipc::messages::ChangeVideoSettings;
using vesk::test::LogCapture;

namespace {

ChangeVideoSettings VolumeRequest(int volume) {
  ChangeVideoSettings request;
  request["audio"]["volume"] = volume;
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

  // No audio block, or a negative volume: nothing changes.
  ChangeVideoSettings empty;
  empty.NormalizeFields();
  EXPECT_TRUE(track.UpdateSettings(empty));
  ChangeVideoSettings same = VolumeRequest(50);
  EXPECT_TRUE(track.UpdateSettings(same));
  EXPECT_FALSE(log.Contains("PCM volume set to"));

  ChangeVideoSettings louder = VolumeRequest(70);
  EXPECT_TRUE(track.UpdateSettings(louder));
  EXPECT_TRUE(log.Has("PCM volume set to 70%"));
  EXPECT_EQ(70u, (unsigned)settings.audio().volume());

  ChangeVideoSettings mute = VolumeRequest(0);
  EXPECT_TRUE(track.UpdateSettings(mute));
  EXPECT_TRUE(log.Has("PCM volume set to 0%"));
  EXPECT_TRUE(track.Muted());

  ChangeVideoSettings again = VolumeRequest(50);
  EXPECT_TRUE(track.UpdateSettings(again));
  EXPECT_TRUE(log.Has("Camera is currently muted. Attempt to set the volume to 50 is not allowed"));
  EXPECT_EQ(0u, (unsigned)settings.audio().volume());
  EXPECT_TRUE(track.Muted());

  // Frames flow through the track; each call gives the previous one back.
  vesk::encoder::audio_frame_t* frame = nullptr;
  for (int i = 0; i < 500 && frame == nullptr; i++) {
    frame = track.GetFrame();
    if (frame == nullptr) usleep(2000);
  }
  ASSERT_NE(nullptr, frame);
  EXPECT_EQ(16000u, frame->pts.timescale);
  EXPECT_TRUE(track.StopEncoding());
  EXPECT_TRUE(track.Muted());
}

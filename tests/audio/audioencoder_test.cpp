// The audio track on the virtual sound card through real alsa-lib: the
// capturing and encoding thread (AudioEncoder) and the track around it.
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <gtest/gtest.h>

#include "alloc_counter.h"
#include "audio_util.h"
#include "audioencoder.h"
#include "log_capture.h"
#include "trackencoderaudio.h"
#include "vesk/encoder.h"

using vesk::encoder::AudioEncoderSettings;
using vesk::encoder::EncoderSettings;
using vesk::encoder::audio_frame_t;
using vesk::encoder::internal::AudioEncoder;
using vesk::encoder::internal::TrackEncoderAudio;
using vesk::ipc::messages::ChangeVideoSettings;
using namespace vesk::test;

namespace {

AudioEncoderSettings Settings(unsigned mode, unsigned rate, unsigned channels, unsigned bitRate,
                              unsigned volume = 80) {
  AudioEncoderSettings s;
  s["enabled"] = true;
  for (auto kv : {std::make_pair("mode", mode), {"sampleRate", rate}, {"channels", channels}, {"bitRate", bitRate},
                  {"volume", volume}}) {
    s[kv.first] = kv.second;
  }
  s.NormalizeFields();
  return s;
}

// The encoder keeps a reference to its settings: s must outlive it.
AudioEncoder* Start(AudioEncoderSettings& s) {
  int error = 0;
  AudioEncoder* e = AudioEncoder::GetInstance(s, error);
  EXPECT_EQ(0, error);
  return e;
}

struct collected_frame_t {
  std::vector<uint8_t> payload, altPayload;
  int64_t pts;
  uint32_t timescale, muted;
};

// Polls for frames until count were collected (or a few seconds passed).
std::vector<collected_frame_t> Collect(AudioEncoder* encoder, size_t count) {
  std::vector<collected_frame_t> frames;
  for (int i = 0; i < 4000 && frames.size() < count; i++) {
    int error = 0;
    audio_frame_t* f = encoder->GetFrame(true, error);
    EXPECT_EQ(0, error);
    if (f == nullptr) {
      usleep(2000);
      continue;
    }
    frames.push_back({{f->payload, f->payload + f->payloadLength},
                      {f->altPayload, f->altPayload + f->altPayloadLength},
                      f->pts.value, f->pts.timescale, f->muted});
  }
  return frames;
}

// Waits until the life-cycle file contains text (or a few seconds passed); returns the file.
std::string WaitForLifeCycle(const char* text) {
  std::string file;
  for (int i = 0; i < 1000 && (file = ReadFile(AudioEncoder::kLifeCycleFile)).find(text) == std::string::npos; i++) {
    usleep(2000);
  }
  return file;
}

int64_t ClockInSamples(uint32_t rate) {
  vesk::encoder::timestamp_t clock;
  EXPECT_TRUE(vesk::encoder::Encoder::GetCurrentHWClock(&clock));
  return vesk::encoder::RescaleTimestamp(clock.value, clock.timescale, rate);
}

ChangeVideoSettings VolumeRequest(int volume) {
  ChangeVideoSettings request;
  if (volume >= 0) request["audio"]["volume"] = volume;
  request.NormalizeFields();
  return request;
}

}  // namespace

TEST(AudioEncoder, StartRefusesTripletsOutsideTheTableAndADeviceThatGrantsAnotherRate) {
  UseVirtualSoundCard("free=1");
  LogCapture log;
  struct {
    unsigned mode, rate, bitRate;
    bool ok;
  } cases[] = {
      // The second row holds the settings' defaults: refused on purpose.
      {1, 44100, 64000, true},  {1, 44100, 64001, false}, {2, 44100, 64000, false},
      {0, 11025, 7999, false},  {1, 11025, 7999, false},  {1, 16000, 32000, false},
      {0, 8000, 12000, true},   {0, 8000, 12001, false},  {1, 32000, 14000, true},
      {0, 48000, 160000, true},
      // Mode 3 has rows in the table, but the settings cap "mode" at 2, which has none.
      {3, 32000, 14000, false},
  };
  for (auto& c : cases) {
    log.Clear();
    int error = 0;
    AudioEncoderSettings s = Settings(c.mode, c.rate, 1, c.bitRate);
    AudioEncoder* e = AudioEncoder::GetInstance(s, error);
    std::string triplet = "Triplet combination not supported (mode/samplingrate/bitRate): " +
                          std::to_string(c.mode > 2 ? 2 : c.mode) + "/" + std::to_string(c.rate) +
                          "/" + std::to_string(c.bitRate);
    EXPECT_EQ(c.ok, e != nullptr) << triplet;
    EXPECT_EQ(c.ok ? 0 : -1, error);
    EXPECT_EQ(!c.ok, log.Has(triplet)) << triplet;
    EXPECT_EQ(!c.ok, log.Has("AudioEncoder::Initialize() failed. Error was: -1"));
    AudioEncoder::FreeInstance(e);
  }
  UseVirtualSoundCard("free=1,rates=44100");
  log.Clear();
  int error = 0;
  AudioEncoderSettings s = Settings(0, 48000, 1, 64000);
  EXPECT_EQ(nullptr, AudioEncoder::GetInstance(s, error));
  EXPECT_NE(0, error);
  EXPECT_TRUE(log.Has("We have requested 48000Hz sampling rate but ALSA set 44100Hz. Abort!"));
  EXPECT_TRUE(log.Has("PCM start failed. Error was: -1"));
}

TEST(AudioEncoder, CapturesRealTimeToneThatDecodesWithTimestampsFromTheHardwareClock) {
  UseVirtualSoundCard("free=0,tone=440");
  int64_t before = ClockInSamples(48000);
  AudioEncoderSettings s = Settings(0, 48000, 2, 96000);
  AudioEncoder* e = Start(s);
  ASSERT_NE(nullptr, e);
  int64_t after = ClockInSamples(48000);
  std::vector<collected_frame_t> frames = Collect(e, 30);

  // Once the pool is warm, capture, encode and queueing allocate nothing.
  uint64_t allocations = AllocationCount();
  int taken = 0, error = 0;
  for (int i = 0; i < 3000 && taken < 20; i++) {
    if (e->GetFrame(true, error) != nullptr) taken++;
    else usleep(2000);
  }
  EXPECT_EQ(allocations, AllocationCount());
  EXPECT_EQ(20, taken);
  AudioEncoder::FreeInstance(e);
  ASSERT_EQ(30u, frames.size());

  // The first block is stamped with the sample position of its end.
  EXPECT_GE(frames[0].pts - 1024, before);
  EXPECT_LE(frames[0].pts - 1024, after);
  std::vector<std::vector<uint8_t>> units;
  for (size_t i = 0; i < frames.size(); i++) {
    EXPECT_EQ(48000u, frames[i].timescale);
    EXPECT_EQ(0u, frames[i].muted);
    EXPECT_TRUE(frames[i].altPayload.empty()) << "no talkback was written";
    if (i > 0) {
      EXPECT_EQ(frames[i - 1].pts + 1024, frames[i].pts) << "frame " << i;
    }
    units.push_back(frames[i].payload);
  }
  std::string path = WriteAdts(units, "tone");
  std::string probe = RunCommand("ffprobe -v error -show_streams " + path);
  EXPECT_NE(std::string::npos, probe.find("sample_rate=48000")) << probe;
  EXPECT_NE(std::string::npos, probe.find("channels=2")) << probe;
  std::vector<int16_t> pcm = DecodeMono(path);
  ASSERT_GT(pcm.size(), 20000u);
  EXPECT_NEAR(440.0, ToneFrequency(pcm, 2048, 48000.0), 8.0);
}

TEST(AudioEncoder, ReadyFramesAreBoundedAndTheOldestAreDropped) {
  UseVirtualSoundCard("free=1");
  AudioEncoderSettings s = Settings(0, 16000, 1, 32000);
  AudioEncoder* e = Start(s);
  ASSERT_NE(nullptr, e);
  usleep(300000);  // far more than eight frames are produced with nobody reading

  int error = 0;
  std::vector<audio_frame_t*> taken;
  for (audio_frame_t* f; taken.size() <= 20 && (f = e->GetFrame(false, error)) != nullptr;) {
    taken.push_back(f);
  }
  // The worker may queue one more while we take them; never more than 8 waited.
  ASSERT_GE(taken.size(), 8u);
  ASSERT_LE(taken.size(), 9u);
  for (size_t i = 1; i < taken.size(); i++) {
    EXPECT_NE(taken[i - 1], taken[i]) << "each call hands out its own frame";
    EXPECT_EQ(taken[i - 1]->pts.value + 1024, taken[i]->pts.value);
  }
  EXPECT_GT(taken[0]->pts.value, 8 * 1024) << "the first frames were dropped, not the newest";

  // Rebase restarts the capture: time stamps jump back to the hardware clock
  // (free-running capture runs far ahead of it) and the queue is emptied.
  int64_t ahead = taken.back()->pts.value;
  int64_t clock = ClockInSamples(16000);
  EXPECT_EQ(0, e->Rebase());
  audio_frame_t* fresh = nullptr;
  for (int i = 0; i < 500 && fresh == nullptr; i++) {
    audio_frame_t* f = e->GetFrame(true, error);
    if (f != nullptr && f->pts.value < ahead) fresh = f;
    else usleep(1000);
  }
  ASSERT_NE(nullptr, fresh);
  EXPECT_GE(fresh->pts.value, clock + 1024);
  AudioEncoder::FreeInstance(e);
}

// Volume changes from the pump meet capture restarts on the worker (each
// rebase restarts the capture and sets the volume again): the two never use
// the mixer at once (ThreadSanitizer watches this suite in CI), and the last
// volume set is the one the sound card keeps.
TEST(AudioEncoder, VolumeChangesMeetingCaptureRestartsLeaveTheLastVolume) {
  const std::string state = "/tmp/vesk_audio_volume_race.state";
  unlink(state.c_str());
  setenv("VESK_VSND_CTL", ("min=0,max=100,state=" + state).c_str(), 1);
  UseVirtualSoundCard("free=1");
  AudioEncoderSettings s = Settings(0, 16000, 1, 32000, 10);
  AudioEncoder* e = Start(s);
  ASSERT_NE(nullptr, e);
  for (unsigned i = 0; i < 100; i++) {
    ASSERT_EQ(0, e->Rebase());
    ASSERT_EQ(0, e->SetVolume(10 + i % 80));
    usleep(500);
  }
  ASSERT_EQ(0, e->SetVolume(42));
  // Once the worker has delivered fresh frames every restart it owed is done.
  e->DiscardExistingFrames();
  EXPECT_EQ(3u, Collect(e, 3).size());
  AudioEncoder::FreeInstance(e);
  unsetenv("VESK_VSND_CTL");
  EXPECT_EQ("42 42\n", ReadFile(state));
  EXPECT_EQ(42u, (unsigned)s.volume());
  unlink(state.c_str());
}

TEST(AudioEncoder, MutingIsOneWayAndTheLifeCycleFileRecordsStartAndExit) {
  unlink(AudioEncoder::kLifeCycleFile);
  UseVirtualSoundCard("free=1");
  AudioEncoderSettings s = Settings(0, 16000, 1, 32000, 60);
  AudioEncoder* e = Start(s);
  ASSERT_NE(nullptr, e);
  EXPECT_EQ(0u, e->GetFlags() & AudioEncoder::FLAG_MUTED);
  ASSERT_EQ(0, e->SetVolume(0));
  EXPECT_NE(0u, e->GetFlags() & AudioEncoder::FLAG_MUTED);
  EXPECT_EQ(0u, (unsigned)s.volume());
  ASSERT_EQ(0, e->SetVolume(50));
  EXPECT_NE(0u, e->GetFlags() & AudioEncoder::FLAG_MUTED) << "a later volume does not unmute";
  EXPECT_EQ(50u, (unsigned)s.volume());
  ASSERT_EQ(0, e->SetVolume(150));
  EXPECT_EQ(100u, (unsigned)s.volume()) << "capped at 100";

  e->DiscardExistingFrames();
  std::vector<collected_frame_t> frames = Collect(e, 10);
  AudioEncoder::FreeInstance(e);
  ASSERT_EQ(10u, frames.size());
  for (auto& f : frames) {
    EXPECT_EQ(1u, f.muted);
    EXPECT_EQ(frames[0].payload, f.payload) << "the pre-encoded silent frame every time";
  }

  std::string text = ReadFile(AudioEncoder::kLifeCycleFile);
  size_t pos = 0;
  for (const char* line : {"trackencoderaudio:", "Audio encoding thread started",
                           "Audio encoder thread set to exit", "--- BEGIN LOGREAD ---",
                           "--- END LOGREAD ---", "Audio encoding thread will now exit (MARKER)"}) {
    pos = text.find(line, pos);
    ASSERT_NE(std::string::npos, pos) << line << "\n" << text;
  }
}

TEST(AudioEncoder, MixSumsAndHalvesWithArithmeticShift) {
  int16_t mic[] = {32767, -32768, 1, -1, 100, -7};
  int16_t talk[] = {32767, -32768, 0, 0, 50, 0};
  int16_t out[7] = {0, 0, 0, 0, 0, 0, 1234};
  AudioEncoder::Mix((const unsigned char*)mic, (const unsigned char*)talk, (unsigned char*)out, 6);
  // -1 >> 1 is -1: the shift rounds towards minus infinity; nothing past the count is written.
  EXPECT_EQ((std::vector<int16_t>{32767, -32768, 0, -1, 75, -4, 1234}), std::vector<int16_t>(out, out + 7));
}

TEST(AudioEncoder, TalkbackFromTheFifoIsMixedIntoTheAlternatePayload) {
  mkdir("/var/run", 0755);
  unlink(AudioEncoder::kTalkbackFifo);
  ASSERT_EQ(0, mkfifo(AudioEncoder::kTalkbackFifo, 0666));
  UseVirtualSoundCard("free=0,tone=440,amplitude=16000");
  AudioEncoderSettings s = Settings(0, 48000, 1, 96000);
  AudioEncoder* e = Start(s);
  ASSERT_NE(nullptr, e);
  int fifo = open(AudioEncoder::kTalkbackFifo, O_WRONLY | O_NONBLOCK);
  ASSERT_GE(fifo, 0);
  // Silent talkback: the mixed signal is the microphone halved.
  std::vector<uint8_t> silence(1024 * 2 * 24, 0);
  ASSERT_EQ((ssize_t)silence.size(), write(fifo, silence.data(), silence.size()));
  e->DiscardExistingFrames();
  std::vector<collected_frame_t> frames = Collect(e, 20);
  AudioEncoder::FreeInstance(e);
  close(fifo);
  unlink(AudioEncoder::kTalkbackFifo);

  std::vector<std::vector<uint8_t>> mic, mixed;
  for (auto& f : frames) {
    if (f.altPayload.empty()) continue;
    mic.push_back(f.payload);
    mixed.push_back(f.altPayload);
  }
  ASSERT_GE(mixed.size(), 15u) << "talkback blocks produce alternate payloads";
  std::vector<int16_t> micPcm = DecodeMono(WriteAdts(mic, "mic"));
  std::vector<int16_t> mixPcm = DecodeMono(WriteAdts(mixed, "mix"));
  double micRms = Rms(micPcm, 2048), mixRms = Rms(mixPcm, 2048);
  ASSERT_GT(micRms, 1000.0);
  EXPECT_NEAR(0.5, mixRms / micRms, 0.08);
  EXPECT_NEAR(440.0, ToneFrequency(mixPcm, 2048, 48000.0), 10.0);
}

TEST(AudioEncoder, ReadFailureRestartsTheCaptureAndAFailedRestartEndsTheThread) {
  const char* blocker = "/tmp/vesk_audio_block_open";
  unlink(blocker);
  unlink(AudioEncoder::kLifeCycleFile);
  // Every open fails one read after 4 blocks (alsa-lib reports it as an overrun, -EPIPE).
  UseVirtualSoundCard(std::string("free=1,fail_after=4096,fail_open_file=") + blocker);
  AudioEncoderSettings s = Settings(0, 16000, 1, 32000);
  AudioEncoder* e = Start(s);
  ASSERT_NE(nullptr, e);
  std::string text = WaitForLifeCycle("PCM restarted");
  EXPECT_NE(std::string::npos, text.find("PCM reading failed. Error was: -32")) << text;
  EXPECT_NE(std::string::npos, text.find("PCM restarted")) << text;

  // Now the device cannot be opened again: the next restart fails for good.
  fclose(fopen(blocker, "w"));
  text = WaitForLifeCycle("(MARKER)");
  EXPECT_NE(std::string::npos, text.find("PCM restart failed permanently. Error was: -1")) << text;
  EXPECT_NE(std::string::npos, text.find("Audio encoding thread will now exit (MARKER)"));
  AudioEncoder::FreeInstance(e);
  unlink(blocker);
}

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

TEST(TrackEncoderAudio, VolumeIsSetOnlyWhenRequestedAndDifferent) {
  UseVirtualSoundCard("free=1");
  LogCapture log;
  EncoderSettings settings;
  for (auto kv : {std::make_pair("mode", 0), {"sampleRate", 16000}, {"bitRate", 32000}, {"volume", 50}}) {
    settings["audio"][kv.first] = kv.second;
  }
  settings["audio"]["enabled"] = true;
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
  // A new volume is applied (muting at 0 is followed through the Encoder by the runtime tests).
  ChangeVideoSettings louder = VolumeRequest(70);
  EXPECT_TRUE(track.UpdateSettings(louder));
  EXPECT_TRUE(log.Has("PCM volume set to 70%"));
  EXPECT_EQ(70u, (unsigned)settings.audio().volume());
  EXPECT_FALSE(track.Muted());
  EXPECT_TRUE(track.StopEncoding());
  EXPECT_TRUE(track.Muted());
}

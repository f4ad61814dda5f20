#include <alsa/asoundlib.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <chrono>
#include <cstdio>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "audio_util.h"

using vesk::test::UseVirtualSoundCard;

namespace {

// Opens "vesk_capture" and applies the hardware parameters the way the
// product's capture wrapper does; grantedRate is the rate ALSA granted.
struct Capture {
  snd_pcm_t* pcm = nullptr;
  unsigned grantedRate = 0;

  ~Capture() {
    if (pcm != nullptr) snd_pcm_close(pcm);
  }

  int Open(unsigned rate, unsigned channels, snd_pcm_uframes_t bufferFrames = 0) {
    int err = snd_pcm_open(&pcm, "vesk_capture", SND_PCM_STREAM_CAPTURE, 0);
    if (err < 0) return err;
    snd_pcm_hw_params_t* hw = nullptr;
    snd_pcm_hw_params_alloca(&hw);
    grantedRate = rate;
    if ((err = snd_pcm_hw_params_any(pcm, hw)) < 0 ||
        (err = snd_pcm_hw_params_set_access(pcm, hw, SND_PCM_ACCESS_RW_INTERLEAVED)) < 0 ||
        (err = snd_pcm_hw_params_set_format(pcm, hw, SND_PCM_FORMAT_S16_LE)) < 0 ||
        (err = snd_pcm_hw_params_set_rate_resample(pcm, hw, 0)) < 0 ||
        (err = snd_pcm_hw_params_set_rate_near(pcm, hw, &grantedRate, nullptr)) < 0 ||
        (err = snd_pcm_hw_params_set_channels(pcm, hw, channels)) < 0 ||
        (bufferFrames != 0 && (err = snd_pcm_hw_params_set_buffer_size_near(pcm, hw, &bufferFrames)) < 0) ||
        (err = snd_pcm_hw_params(pcm, hw)) < 0 || (err = snd_pcm_prepare(pcm)) < 0) {
      return err;
    }
    return snd_pcm_start(pcm);
  }

  // Reads blocks of 1024 frames; returns the interleaved samples.
  std::vector<int16_t> Read(unsigned blocks, unsigned channels) {
    std::vector<int16_t> all(size_t{blocks} * 1024 * channels);
    for (unsigned b = 0; b < blocks; ++b) {
      snd_pcm_sframes_t n = snd_pcm_readi(pcm, &all[size_t{b} * 1024 * channels], 1024);
      EXPECT_EQ(n, 1024) << "block " << b << ": " << (n < 0 ? snd_strerror(static_cast<int>(n)) : "");
      if (n != 1024) return {};
    }
    return all;
  }
};

std::vector<int16_t> Channel(const std::vector<int16_t>& interleaved, unsigned channels, unsigned ch) {
  std::vector<int16_t> out;
  for (size_t i = ch; i < interleaved.size(); i += channels) out.push_back(interleaved[i]);
  return out;
}

// A 16-bit stereo WAV file at 16 kHz made by ffmpeg, whose LIST chunk before "data" checks chunk skipping.
void WriteWav(const std::string& path, const std::vector<int16_t>& samples) {
  FILE* f = std::fopen((path + ".raw").c_str(), "wb");
  ASSERT_NE(f, nullptr);
  std::fwrite(samples.data(), 2, samples.size(), f);
  std::fclose(f);
  vesk::test::RunCommand("ffmpeg -y -v error -f s16le -ar 16000 -ac 2 -i " + path + ".raw " + path + " 2>&1");
  std::remove((path + ".raw").c_str());
  ASSERT_NE(vesk::test::ReadFile(path).find("LIST"), std::string::npos);
}

TEST(VirtualCapture, DeliversAContinuousToneAtExactlyTheRequestedRate) {
  UseVirtualSoundCard("free=1,tone=1000,amplitude=12000");
  for (unsigned rate : {8000u, 11025u, 12000u, 16000u, 22050u, 24000u, 32000u, 44100u, 48000u}) {
    for (unsigned channels : {1u, 2u}) {
      SCOPED_TRACE(testing::Message() << rate << " Hz, " << channels << " channel(s)");
      Capture cap;
      ASSERT_EQ(cap.Open(rate, channels), 0);
      EXPECT_EQ(cap.grantedRate, rate);
      std::vector<int16_t> all = cap.Read(rate / 1024 + 1, channels);  // just over one second
      ASSERT_FALSE(all.empty());
      std::vector<int16_t> left = Channel(all, channels, 0);
      // A phase that restarts per block or a wrong rate would not give 1000 Hz.
      EXPECT_NEAR(vesk::test::ToneFrequency(left, 0, rate), 1000.0, 1.0);
      int16_t peak = *std::max_element(left.begin(), left.end());
      EXPECT_LE(peak, 12000);
      EXPECT_GE(peak, 11000);
      if (channels == 2) {
        EXPECT_EQ(Channel(all, 2, 1), left);
      }
    }
  }
}

TEST(VirtualCapture, PacedCaptureNeverRunsAheadAndReportsOverrun) {
  UseVirtualSoundCard("free=0,tone=440");
  Capture cap;
  ASSERT_EQ(cap.Open(48000, 2, 8192), 0);
  const auto start = std::chrono::steady_clock::now();
  ASSERT_FALSE(cap.Read(8, 2).empty());
  // 8 x 1024 frames at 48 kHz are 170.7 ms of sound: they cannot exist sooner.
  EXPECT_GE(std::chrono::duration_cast<std::chrono::milliseconds>(std::chrono::steady_clock::now() - start).count(),
            170);

  // A reader more than a whole buffer (8192 frames, 171 ms) behind overruns.
  std::this_thread::sleep_for(std::chrono::milliseconds(400));
  std::vector<int16_t> block(2048);
  EXPECT_EQ(snd_pcm_readi(cap.pcm, block.data(), 1024), -EPIPE);
  EXPECT_EQ(snd_pcm_recover(cap.pcm, -EPIPE, 1), 0);
  EXPECT_EQ(snd_pcm_readi(cap.pcm, block.data(), 1024), 1024);
}

TEST(VirtualCapture, GrantsOnlyTheConfiguredRates) {
  // The nearest configured rate is granted.
  UseVirtualSoundCard("free=1,rates=44100:22050");
  for (auto [asked, granted] : {std::pair<unsigned, unsigned>{48000, 44100}, {16000, 22050}}) {
    Capture cap;
    ASSERT_EQ(cap.Open(asked, 1), 0);
    EXPECT_EQ(cap.grantedRate, granted);
  }

  snd_pcm_t* pcm = nullptr;
  ASSERT_EQ(snd_pcm_open(&pcm, "vesk_capture", SND_PCM_STREAM_CAPTURE, 0), 0);
  snd_pcm_hw_params_t* hw = nullptr;
  snd_pcm_hw_params_alloca(&hw);
  ASSERT_GE(snd_pcm_hw_params_any(pcm, hw), 0);
  EXPECT_LT(snd_pcm_hw_params_set_rate(pcm, hw, 48000, 0), 0);
  EXPECT_LT(snd_pcm_hw_params_set_channels(pcm, hw, 3), 0);
  EXPECT_LT(snd_pcm_hw_params_set_format(pcm, hw, SND_PCM_FORMAT_S32_LE), 0);
  snd_pcm_close(pcm);
}

TEST(VirtualCapture, PlaysAWavFileSampleExact) {
  const std::string path = "/tmp/vesk_vsnd_" + std::to_string(getpid()) + "_source.wav";
  std::vector<int16_t> stereo;
  for (int i = 0; i < 1500; ++i) {
    stereo.push_back(static_cast<int16_t>(i * 20 - 15000));
    stereo.push_back(static_cast<int16_t>(-i));
  }
  WriteWav(path, stereo);
  {
    UseVirtualSoundCard("free=1,wav=" + path);
    Capture cap;
    ASSERT_EQ(cap.Open(16000, 2), 0);
    std::vector<int16_t> got = cap.Read(2, 2);  // 2048 frames: wraps after 1500
    ASSERT_EQ(got.size(), 4096u);
    for (size_t i = 0; i < got.size(); ++i) ASSERT_EQ(got[i], stereo[i % 3000]) << "sample " << i;
  }
  {
    // Mono capture of a stereo file takes the left channel; without looping it ends in silence.
    UseVirtualSoundCard("free=1,loop=0,wav=" + path);
    Capture cap;
    ASSERT_EQ(cap.Open(8000, 1), 0);
    std::vector<int16_t> got = cap.Read(2, 1);
    ASSERT_EQ(got.size(), 2048u);
    for (size_t f = 0; f < 2048; ++f) ASSERT_EQ(got[f], f < 1500 ? stereo[f * 2] : 0) << "frame " << f;
  }
  unlink(path.c_str());
}

void QuietAlsaError(const char*, int, const char*, int, const char*, ...) {}

TEST(VirtualCapture, RefusesToOpenWithBadParameters) {
  snd_lib_error_set_handler(QuietAlsaError);
  for (const char* params : {"bogus=1", "tone=abc", "amplitude=40000", "rates=12", "wav=/nonexistent.wav"}) {
    UseVirtualSoundCard(params);
    snd_pcm_t* pcm = nullptr;
    EXPECT_LT(snd_pcm_open(&pcm, "vesk_capture", SND_PCM_STREAM_CAPTURE, 0), 0) << params;
    if (pcm != nullptr) snd_pcm_close(pcm);
  }
  UseVirtualSoundCard("free=1");
  snd_pcm_t* pcm = nullptr;
  EXPECT_LT(snd_pcm_open(&pcm, "vesk_capture", SND_PCM_STREAM_PLAYBACK, 0), 0);
  snd_lib_error_set_handler(nullptr);
}

// The mixer element of the virtual sound card, through the control interface.
struct Mixer {
  snd_ctl_t* ctl = nullptr;

  ~Mixer() {
    if (ctl != nullptr) snd_ctl_close(ctl);
  }
  // Reads the two channels of element name into values, or writes them.
  int Access(bool write, std::pair<long, long>& values, const char* name = "VESK_CVOLUME") {
    if (ctl == nullptr && snd_ctl_open(&ctl, "default", 0) < 0) return -1;
    snd_ctl_elem_value_t* value = nullptr;
    snd_ctl_elem_value_alloca(&value);
    snd_ctl_elem_value_set_interface(value, SND_CTL_ELEM_IFACE_MIXER);
    snd_ctl_elem_value_set_name(value, name);
    snd_ctl_elem_value_set_integer(value, 0, values.first);
    snd_ctl_elem_value_set_integer(value, 1, values.second);
    int err = write ? snd_ctl_elem_write(ctl, value) : snd_ctl_elem_read(ctl, value);
    values = {snd_ctl_elem_value_get_integer(value, 0), snd_ctl_elem_value_get_integer(value, 1)};
    return err;
  }
  int Write(long left, long right) {
    std::pair<long, long> values{left, right};
    return Access(true, values);
  }
  std::pair<long, long> Read() {
    std::pair<long, long> values;
    EXPECT_EQ(Access(false, values), 0);
    return values;
  }
};

TEST(VirtualMixer, ExposesAPersistentTwoChannelVolume) {
  UseVirtualSoundCard("");
  const std::string state = "/tmp/vesk_vsnd_" + std::to_string(getpid()) + "_cvolume.state";
  unlink(state.c_str());
  setenv("VESK_VSND_CTL", ("min=10,max=73,initial=40,state=" + state).c_str(), 1);
  {
    Mixer m;
    EXPECT_EQ(m.Read(), std::make_pair(40L, 40L));
    EXPECT_EQ(m.Write(25, 73), 0);
    EXPECT_EQ(vesk::test::ReadFile(state), "25 73\n");
    // Like a driver, values outside the range are refused and change nothing.
    EXPECT_LT(m.Write(9, 20), 0);
    EXPECT_LT(m.Write(20, 74), 0);
    EXPECT_EQ(vesk::test::ReadFile(state), "25 73\n");
  }
  {
    // A new handle (the product opens one per volume change) sees the values.
    Mixer m;
    EXPECT_EQ(m.Read(), std::make_pair(25L, 73L));
    EXPECT_EQ(m.Write(10, 11), 0);
    std::pair<long, long> values;
    EXPECT_LT(m.Access(false, values, "Capture Volume"), 0) << "no such element";
  }
  // amixer reads the same element through the same configuration: an integer
  // pair, writable, with the configured range.
  std::string out = vesk::test::RunCommand("amixer -D default cget name=VESK_CVOLUME 2>&1");
  EXPECT_NE(out.find(": values=10,11"), std::string::npos) << out;
  EXPECT_NE(out.find("type=INTEGER,access=rw"), std::string::npos) << out;
  EXPECT_NE(out.find("min=10,max=73"), std::string::npos) << out;
  unlink(state.c_str());
  unsetenv("VESK_VSND_CTL");
}

}  // namespace

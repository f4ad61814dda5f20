#include <alsa/asoundlib.h>
#include <gtest/gtest.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <thread>
#include <vector>

#include "vsnd_test_support.h"

namespace {

using vsnd_test::ScopedEnv;

// Opens "vesk_capture" and applies the hardware parameters the way the
// product's capture wrapper does; returns the rate ALSA granted (0 on any
// failure, which the test reports).
struct Capture {
  snd_pcm_t* pcm = nullptr;
  unsigned grantedRate = 0;

  ~Capture() {
    if (pcm != nullptr) snd_pcm_close(pcm);
  }

  int Open(unsigned rate, unsigned channels, snd_pcm_uframes_t bufferFrames = 0) {
    vsnd_test::UseVirtualSoundCard();
    int err = snd_pcm_open(&pcm, "vesk_capture", SND_PCM_STREAM_CAPTURE, 0);
    if (err < 0) return err;
    snd_pcm_hw_params_t* hw = nullptr;
    snd_pcm_hw_params_alloca(&hw);
    if ((err = snd_pcm_hw_params_any(pcm, hw)) < 0) return err;
    if ((err = snd_pcm_hw_params_set_access(pcm, hw, SND_PCM_ACCESS_RW_INTERLEAVED)) < 0) return err;
    if ((err = snd_pcm_hw_params_set_format(pcm, hw, SND_PCM_FORMAT_S16_LE)) < 0) return err;
    if ((err = snd_pcm_hw_params_set_rate_resample(pcm, hw, 0)) < 0) return err;
    grantedRate = rate;
    if ((err = snd_pcm_hw_params_set_rate_near(pcm, hw, &grantedRate, nullptr)) < 0) return err;
    if ((err = snd_pcm_hw_params_set_channels(pcm, hw, channels)) < 0) return err;
    if (bufferFrames != 0 && (err = snd_pcm_hw_params_set_buffer_size_near(pcm, hw, &bufferFrames)) < 0)
      return err;
    if ((err = snd_pcm_hw_params(pcm, hw)) < 0) return err;
    if ((err = snd_pcm_prepare(pcm)) < 0) return err;
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

unsigned RisingZeroCrossings(const std::vector<int16_t>& s, size_t count) {
  unsigned n = 0;
  for (size_t i = 1; i < count && i < s.size(); ++i) n += (s[i - 1] < 0 && s[i] >= 0);
  return n;
}

void PutLe16(std::vector<unsigned char>& b, unsigned v) {
  b.push_back(static_cast<unsigned char>(v & 0xFF));
  b.push_back(static_cast<unsigned char>((v >> 8) & 0xFF));
}
void PutLe32(std::vector<unsigned char>& b, uint32_t v) {
  PutLe16(b, v & 0xFFFF);
  PutLe16(b, v >> 16);
}

// A 16-bit PCM WAV file; a LIST chunk before "data" checks chunk skipping.
void WriteWav(const std::string& path, unsigned channels, const std::vector<int16_t>& samples) {
  std::vector<unsigned char> b;
  const uint32_t dataBytes = static_cast<uint32_t>(samples.size() * 2);
  b.insert(b.end(), {'R', 'I', 'F', 'F'});
  PutLe32(b, 4 + 8 + 16 + 8 + 4 + 8 + dataBytes);
  b.insert(b.end(), {'W', 'A', 'V', 'E', 'f', 'm', 't', ' '});
  PutLe32(b, 16);
  PutLe16(b, 1);
  PutLe16(b, channels);
  PutLe32(b, 16000);
  PutLe32(b, 16000 * 2 * channels);
  PutLe16(b, 2 * channels);
  PutLe16(b, 16);
  b.insert(b.end(), {'L', 'I', 'S', 'T'});
  PutLe32(b, 4);
  b.insert(b.end(), {'a', 'b', 'c', 'd'});
  b.insert(b.end(), {'d', 'a', 't', 'a'});
  PutLe32(b, dataBytes);
  for (int16_t s : samples) PutLe16(b, static_cast<uint16_t>(s));
  FILE* f = std::fopen(path.c_str(), "wb");
  ASSERT_NE(f, nullptr);
  ASSERT_EQ(std::fwrite(b.data(), 1, b.size(), f), b.size());
  std::fclose(f);
}

TEST(VirtualCapture, DeliversAContinuousToneAtExactlyTheRequestedRate) {
  ScopedEnv env("VESK_VSND_PCM", "free=1,tone=1000,amplitude=12000");
  for (unsigned rate : {8000u, 11025u, 12000u, 16000u, 22050u, 24000u, 32000u, 44100u, 48000u}) {
    for (unsigned channels : {1u, 2u}) {
      SCOPED_TRACE(testing::Message() << rate << " Hz, " << channels << " channel(s)");
      Capture cap;
      ASSERT_EQ(cap.Open(rate, channels), 0);
      EXPECT_EQ(cap.grantedRate, rate);
      const unsigned blocks = rate / 1024 + 1;  // just over one second
      std::vector<int16_t> all = cap.Read(blocks, channels);
      ASSERT_FALSE(all.empty());
      std::vector<int16_t> left = Channel(all, channels, 0);
      // Exactly one second of a continuous 1 kHz tone crosses zero upwards
      // 1000 times; a phase that restarts per block or a wrong rate would not.
      unsigned crossings = RisingZeroCrossings(left, rate);
      EXPECT_GE(crossings, 999u);
      EXPECT_LE(crossings, 1001u);
      int16_t peak = 0;
      for (int16_t s : left) peak = std::max<int16_t>(peak, s);
      EXPECT_LE(peak, 12000);
      EXPECT_GE(peak, 11000);
      if (channels == 2) {
        EXPECT_EQ(Channel(all, 2, 1), left);
      }
    }
  }
}

TEST(VirtualCapture, PacedCaptureNeverRunsAheadAndReportsOverrun) {
  ScopedEnv env("VESK_VSND_PCM", "free=0,tone=440");
  Capture cap;
  ASSERT_EQ(cap.Open(48000, 2, 8192), 0);
  const auto start = std::chrono::steady_clock::now();
  ASSERT_FALSE(cap.Read(8, 2).empty());
  const auto elapsed = std::chrono::steady_clock::now() - start;
  // 8 x 1024 frames at 48 kHz are 170.7 ms of sound: they cannot exist sooner.
  EXPECT_GE(std::chrono::duration_cast<std::chrono::milliseconds>(elapsed).count(), 170);

  // A reader more than a whole buffer (8192 frames, 171 ms) behind overruns.
  std::this_thread::sleep_for(std::chrono::milliseconds(400));
  std::vector<int16_t> block(2048);
  EXPECT_EQ(snd_pcm_readi(cap.pcm, block.data(), 1024), -EPIPE);
  EXPECT_EQ(snd_pcm_recover(cap.pcm, -EPIPE, 1), 0);
  EXPECT_EQ(snd_pcm_readi(cap.pcm, block.data(), 1024), 1024);
}

TEST(VirtualCapture, GrantsOnlyTheConfiguredRates) {
  ScopedEnv env("VESK_VSND_PCM", "free=1,rates=44100:22050");
  Capture cap;
  ASSERT_EQ(cap.Open(48000, 1), 0);
  EXPECT_EQ(cap.grantedRate, 44100u);
  Capture low;
  ASSERT_EQ(low.Open(16000, 1), 0);
  EXPECT_EQ(low.grantedRate, 22050u);

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
  const std::string path = vsnd_test::TempPath("source.wav");
  std::vector<int16_t> stereo;
  for (int i = 0; i < 1500; ++i) {
    stereo.push_back(static_cast<int16_t>(i * 20 - 15000));
    stereo.push_back(static_cast<int16_t>(-i));
  }
  WriteWav(path, 2, stereo);

  {
    ScopedEnv env("VESK_VSND_PCM", "free=1,wav=" + path);
    Capture cap;
    ASSERT_EQ(cap.Open(16000, 2), 0);
    std::vector<int16_t> got = cap.Read(2, 2);  // 2048 frames: wraps after 1500
    ASSERT_EQ(got.size(), 4096u);
    for (size_t f = 0; f < 2048; ++f) {
      size_t src = (f % 1500) * 2;
      ASSERT_EQ(got[f * 2], stereo[src]) << "frame " << f;
      ASSERT_EQ(got[f * 2 + 1], stereo[src + 1]) << "frame " << f;
    }
  }
  {
    // Mono capture of a stereo file takes the left channel; without looping
    // the file ends in silence.
    ScopedEnv env("VESK_VSND_PCM", "free=1,loop=0,wav=" + path);
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
  vsnd_test::UseVirtualSoundCard();
  snd_lib_error_set_handler(QuietAlsaError);
  for (const char* params : {"bogus=1", "tone=abc", "amplitude=40000", "rates=12", "wav=/nonexistent.wav"}) {
    ScopedEnv env("VESK_VSND_PCM", params);
    snd_pcm_t* pcm = nullptr;
    EXPECT_LT(snd_pcm_open(&pcm, "vesk_capture", SND_PCM_STREAM_CAPTURE, 0), 0) << params;
    if (pcm != nullptr) snd_pcm_close(pcm);
  }
  ScopedEnv env("VESK_VSND_PCM", "free=1");
  snd_pcm_t* pcm = nullptr;
  EXPECT_LT(snd_pcm_open(&pcm, "vesk_capture", SND_PCM_STREAM_PLAYBACK, 0), 0);
  snd_lib_error_set_handler(nullptr);
}

}  // namespace

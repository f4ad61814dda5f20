#include "vesk/aacenc/aacenc.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

#include "audio_util.h"

namespace {

// A record as the product's AAC wrapper prepares it.
struct Encoder {
  aacenc_record_t rec{};
  std::unique_ptr<unsigned char[]> work{new unsigned char[AACENC_WORK_BUFFER_BYTES]};
  std::vector<unsigned char> out = std::vector<unsigned char>(4096);

  Encoder(uint32_t rate, uint32_t channels, uint32_t bitRate) {
    rec.sample_rate = rate;
    rec.channels = channels;
    rec.bit_rate_initial = rec.bit_rate = bitRate;
    rec.quality = 1;
    rec.temporal_noise_shaping = 1;
    rec.fixed_parameter = AACENC_FIXED_PARAMETER;
    aacenc_set_work_buffer(&rec, work.get());
  }
  ~Encoder() { aacenc_close(&rec); }

  uint32_t Open() {
    aacenc_setup(&rec);
    if (rec.error_code == AACENC_OK) aacenc_open(&rec);
    return rec.error_code;
  }

  // Encodes one block; returns the access unit (empty on error).
  std::vector<uint8_t> Encode(const std::vector<int16_t>& pcm) {
    aacenc_set_input(&rec, reinterpret_cast<const unsigned char*>(pcm.data()));
    aacenc_set_output(&rec, out.data());
    aacenc_encode(&rec);
    if (rec.error_code != AACENC_OK) return {};
    return {out.begin(), out.begin() + (rec.output_bits + 7) / 8};
  }
};

// Interleaved blocks of a sine tone, continuous across blocks.
std::vector<int16_t> ToneBlock(unsigned block, uint32_t rate, unsigned channels, double hz) {
  std::vector<int16_t> pcm(AACENC_FRAME_SAMPLES * channels);
  for (unsigned i = 0; i < AACENC_FRAME_SAMPLES; ++i) {
    double t = static_cast<double>(block * AACENC_FRAME_SAMPLES + i) / rate;
    for (unsigned ch = 0; ch < channels; ++ch)
      pcm[i * channels + ch] = static_cast<int16_t>(std::lrint(12000 * std::sin(2 * M_PI * hz * t)));
  }
  return pcm;
}

// Deterministic wide-band noise: the bit rate then decides the frame size.
std::vector<int16_t> NoiseBlock(uint32_t& seed) {
  std::vector<int16_t> pcm(AACENC_FRAME_SAMPLES);
  for (auto& s : pcm) {
    seed = seed * 1664525u + 1013904223u;
    s = static_cast<int16_t>((static_cast<int32_t>(seed >> 16) - 32768) / 8);
  }
  return pcm;
}

TEST(AacEncoder, EncodesOneAdtsAccessUnitPerBlockThatDecodesToTheTone) {
  struct {
    uint32_t rate;
    unsigned channels;
    uint32_t bitRate;
  } cases[] = {{48000, 2, 128000}, {44100, 1, 64000}, {16000, 1, 32000}, {11025, 2, 40000}, {8000, 1, 12000}};
  for (auto c : cases) {
    SCOPED_TRACE(testing::Message() << c.rate << " Hz, " << c.channels << " ch, " << c.bitRate << " bit/s");
    Encoder enc(c.rate, c.channels, c.bitRate);
    ASSERT_EQ(enc.Open(), AACENC_OK);
    const unsigned blocks = c.rate / AACENC_FRAME_SAMPLES * 2 + 4;  // over two seconds
    std::vector<std::vector<uint8_t>> frames;
    for (unsigned b = 0; b < blocks; ++b) {
      std::vector<uint8_t> au = enc.Encode(ToneBlock(b, c.rate, c.channels, 1000.0));
      ASSERT_EQ(enc.rec.error_code, AACENC_OK) << "block " << b;
      ASSERT_GT(au.size(), 7u);
      ASSERT_LE(au.size(), c.channels * 768 + 7u);
      // An ADTS header without CRC (7 bytes); ffprobe below checks the rest of it.
      EXPECT_EQ(au[1], 0xF1);
      frames.push_back(au);
    }
    const std::string path = vesk::test::WriteAdts(frames, "aacenc_" + std::to_string(getpid()));
    std::string probe = vesk::test::RunCommand(
        "ffprobe -v error -count_frames -show_entries stream=codec_name,profile,sample_rate,channels,"
        "nb_read_frames -of default=noprint_wrappers=1 " + path + " 2>&1");
    for (std::string field : {std::string("codec_name=aac"), std::string("profile=LC"), "sample_rate=" + std::to_string(c.rate),
                              "channels=" + std::to_string(c.channels), "nb_read_frames=" + std::to_string(blocks)}) {
      EXPECT_NE(probe.find(field + "\n"), std::string::npos) << field << " in " << probe;
    }
    std::vector<int16_t> pcm = vesk::test::DecodeMono(path);
    unlink(path.c_str());
    // Past the priming delay: a 1 kHz tone of amplitude 12000 (RMS 8485).
    EXPECT_NEAR(vesk::test::ToneFrequency(pcm, 4 * AACENC_FRAME_SAMPLES, c.rate), 1000.0, 2.0);
    EXPECT_NEAR(vesk::test::Rms(pcm, 4 * AACENC_FRAME_SAMPLES), 8485.0, 500.0);
  }
}

// Average access-unit size over blocks [from, to) of the same noise signal.
double AverageBytes(Encoder& enc, uint32_t& seed, unsigned from, unsigned to) {
  size_t total = 0;
  for (unsigned b = 0; b < to; ++b) {
    size_t n = enc.Encode(NoiseBlock(seed)).size();
    EXPECT_EQ(enc.rec.error_code, AACENC_OK);
    if (b >= from) total += n;
  }
  return static_cast<double>(total) / (to - from);
}

TEST(AacEncoder, FollowsTheCurrentBitRateAtTheNextBlock) {
  // Reference: the same signal encoded at 32000 bit/s from the start.
  Encoder reference(48000, 1, 32000);
  ASSERT_EQ(reference.Open(), AACENC_OK);
  uint32_t seed = 7;
  AverageBytes(reference, seed, 0, 40);
  const double low = AverageBytes(reference, seed, 20, 60);

  Encoder enc(48000, 1, 128000);
  ASSERT_EQ(enc.Open(), AACENC_OK);
  seed = 7;
  const double high = AverageBytes(enc, seed, 20, 40);
  enc.rec.bit_rate = 32000;  // the initial word stays as it was
  const double changed = AverageBytes(enc, seed, 20, 60);
  EXPECT_EQ(enc.rec.bit_rate_initial, 128000u);
  EXPECT_GT(high, 2.5 * changed);
  EXPECT_NEAR(changed, low, 0.15 * low);

  // Beyond 6144 bits per channel per block is refused; the last good rate goes on.
  enc.rec.bit_rate = 300000;
  EXPECT_TRUE(enc.Encode(NoiseBlock(seed)).empty());
  EXPECT_EQ(enc.rec.error_code, AACENC_ERR_BIT_RATE);
  EXPECT_EQ(enc.rec.output_bits, 0u);
  enc.rec.bit_rate = 32000;
  EXPECT_NEAR(AverageBytes(enc, seed, 0, 20), low, 0.15 * low);
}

TEST(AacEncoder, ReportsBadSetupAndMisuseInTheErrorWord) {
  struct {
    void (*spoil)(Encoder&);
    uint32_t error;
  } cases[] = {
      {[](Encoder& e) { e.rec.sample_rate = 44000; }, AACENC_ERR_SAMPLE_RATE},
      {[](Encoder& e) { e.rec.sample_rate = 96000; }, AACENC_ERR_SAMPLE_RATE},
      {[](Encoder& e) { e.rec.channels = 0; }, AACENC_ERR_CHANNELS},
      {[](Encoder& e) { e.rec.channels = 3; }, AACENC_ERR_CHANNELS},
      {[](Encoder& e) { e.rec.bit_rate_initial = 0; }, AACENC_ERR_BIT_RATE},
      {[](Encoder& e) { e.rec.bit_rate_initial = 96001; }, AACENC_ERR_BIT_RATE},  // the cap at 16 kHz mono
      {[](Encoder& e) { e.rec.mode = 4; }, AACENC_ERR_MODE},
      {[](Encoder& e) { e.rec.fixed_parameter = 115; }, AACENC_ERR_FIXED_PARAMETER},
      {[](Encoder& e) { aacenc_set_work_buffer(&e.rec, nullptr); }, AACENC_ERR_WORK_BUFFER},
  };
  for (size_t i = 0; i < sizeof(cases) / sizeof(cases[0]); i++) {
    Encoder enc(16000, 1, 96000);
    cases[i].spoil(enc);
    aacenc_setup(&enc.rec);
    EXPECT_EQ(enc.rec.error_code, cases[i].error) << "case " << i;
    aacenc_open(&enc.rec);
    EXPECT_NE(enc.rec.error_code, AACENC_OK) << "case " << i;
  }

  Encoder enc(16000, 1, 96000);
  aacenc_open(&enc.rec);
  EXPECT_EQ(enc.rec.error_code, AACENC_ERR_NOT_SET_UP);
  aacenc_setup(&enc.rec);
  ASSERT_EQ(enc.rec.error_code, AACENC_OK);
  std::vector<int16_t> pcm(AACENC_FRAME_SAMPLES);
  EXPECT_TRUE(enc.Encode(pcm).empty());
  EXPECT_EQ(enc.rec.error_code, AACENC_ERR_NOT_OPEN);
  aacenc_open(&enc.rec);
  ASSERT_EQ(enc.rec.error_code, AACENC_OK);
  aacenc_set_input(&enc.rec, nullptr);
  aacenc_set_output(&enc.rec, enc.out.data());
  aacenc_encode(&enc.rec);
  EXPECT_EQ(enc.rec.error_code, AACENC_ERR_BUFFERS);
  EXPECT_FALSE(enc.Encode(pcm).empty());
  // Reopening (as the wrapper does when it starts again) restarts the stream.
  aacenc_open(&enc.rec);
  ASSERT_EQ(enc.rec.error_code, AACENC_OK);
  EXPECT_FALSE(enc.Encode(pcm).empty());
}

TEST(AacEncoder, PointerWordsKeepTheLowHalfAtTheirOffsets) {
  aacenc_record_t rec{};
  unsigned char buffer[4];
  aacenc_set_output(&rec, buffer);
  aacenc_set_input(&rec, buffer + 1);
  aacenc_set_work_buffer(&rec, buffer + 2);
  aacenc_set_silent_frame(&rec, buffer + 3);
  const auto* raw = reinterpret_cast<const unsigned char*>(&rec);
  for (auto [offset, p] : {std::pair<size_t, unsigned char*>{56, buffer}, {60, buffer + 1}, {64, buffer + 2},
                           {260, buffer + 3}}) {
    uint32_t word;
    std::memcpy(&word, raw + offset, 4);
    EXPECT_EQ(word, static_cast<uint32_t>(reinterpret_cast<uintptr_t>(p))) << offset;
  }
}

}  // namespace

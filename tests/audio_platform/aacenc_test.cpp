#include "vesk/aacenc/aacenc.h"

#include <gtest/gtest.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
}

namespace {

// A record as the product's AAC wrapper prepares it.
struct Encoder {
  aacenc_record_t rec{};
  std::unique_ptr<unsigned char[]> work{new unsigned char[AACENC_WORK_BUFFER_BYTES]};
  std::vector<unsigned char> out = std::vector<unsigned char>(4096);

  Encoder(uint32_t rate, uint32_t channels, uint32_t bitRate) {
    rec.sample_rate = rate;
    rec.channels = channels;
    rec.bit_rate_initial = bitRate;
    rec.bit_rate = bitRate;
    rec.quality = 1;
    rec.temporal_noise_shaping = 1;
    rec.fixed_parameter = AACENC_FIXED_PARAMETER;
    rec.mode = 0;
    aacenc_set_work_buffer(&rec, work.get());
  }
  ~Encoder() { aacenc_close(&rec); }

  uint32_t Open() {
    aacenc_setup(&rec);
    if (rec.error_code != AACENC_OK) return rec.error_code;
    aacenc_open(&rec);
    return rec.error_code;
  }

  // Encodes one block; returns the access unit (empty on error).
  std::vector<unsigned char> Encode(const std::vector<int16_t>& pcm) {
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
    auto v = static_cast<int16_t>(std::lrint(12000 * std::sin(2 * M_PI * hz * t)));
    for (unsigned ch = 0; ch < channels; ++ch) pcm[i * channels + ch] = v;
  }
  return pcm;
}

// Deterministic wide-band noise: the bit rate then decides the frame size.
std::vector<int16_t> NoiseBlock(uint32_t& seed, unsigned channels) {
  std::vector<int16_t> pcm(AACENC_FRAME_SAMPLES * channels);
  for (auto& s : pcm) {
    seed = seed * 1664525u + 1013904223u;
    s = static_cast<int16_t>((static_cast<int32_t>(seed >> 16) - 32768) / 8);
  }
  return pcm;
}

unsigned AdtsFrameLength(const std::vector<unsigned char>& f) {
  return ((f[3] & 0x03u) << 11) | (f[4] << 3) | (f[5] >> 5);
}

// Decodes ADTS access units with libavcodec; returns channel 0.
std::vector<float> Decode(const std::vector<std::vector<unsigned char>>& frames, int& rate, int& channels) {
  std::vector<float> left;
  const AVCodec* dec = avcodec_find_decoder(AV_CODEC_ID_AAC);
  AVCodecContext* ctx = avcodec_alloc_context3(dec);
  AVPacket* pkt = av_packet_alloc();
  AVFrame* frame = av_frame_alloc();
  EXPECT_EQ(avcodec_open2(ctx, dec, nullptr), 0);
  for (const auto& f : frames) {
    EXPECT_EQ(av_new_packet(pkt, static_cast<int>(f.size())), 0);
    std::memcpy(pkt->data, f.data(), f.size());
    EXPECT_EQ(avcodec_send_packet(ctx, pkt), 0);
    av_packet_unref(pkt);
    while (avcodec_receive_frame(ctx, frame) == 0) {
      rate = frame->sample_rate;
      channels = frame->ch_layout.nb_channels;
      const float* p = reinterpret_cast<const float*>(frame->extended_data[0]);
      left.insert(left.end(), p, p + frame->nb_samples);
    }
  }
  av_frame_free(&frame);
  av_packet_free(&pkt);
  avcodec_free_context(&ctx);
  return left;
}

std::string Probe(const std::string& path) {
  std::string cmd = "ffprobe -v error -count_frames -show_entries stream=codec_name,profile,sample_rate,channels,"
                    "nb_read_frames -of default=noprint_wrappers=1 " + path + " 2>&1";
  std::string out;
  FILE* p = popen(cmd.c_str(), "r");
  if (p == nullptr) return out;
  char buf[256];
  while (std::fgets(buf, sizeof(buf), p) != nullptr) out += buf;
  pclose(p);
  return out;
}

struct ToneCase {
  uint32_t rate;
  unsigned channels;
  uint32_t bitRate;
};

TEST(AacEncoder, EncodesOneAdtsAccessUnitPerBlockThatDecodesToTheTone) {
  const std::string path = "/tmp/vesk_aacenc_" + std::to_string(getpid()) + ".aac";
  for (ToneCase c : {ToneCase{48000, 2, 128000}, ToneCase{44100, 1, 64000}, ToneCase{16000, 1, 32000},
                     ToneCase{11025, 2, 40000}, ToneCase{8000, 1, 12000}}) {
    SCOPED_TRACE(testing::Message() << c.rate << " Hz, " << c.channels << " ch, " << c.bitRate << " bit/s");
    Encoder enc(c.rate, c.channels, c.bitRate);
    ASSERT_EQ(enc.Open(), AACENC_OK);
    const unsigned blocks = c.rate / AACENC_FRAME_SAMPLES * 2 + 4;  // over two seconds
    std::vector<std::vector<unsigned char>> frames;
    FILE* f = std::fopen(path.c_str(), "wb");
    ASSERT_NE(f, nullptr);
    for (unsigned b = 0; b < blocks; ++b) {
      std::vector<unsigned char> au = enc.Encode(ToneBlock(b, c.rate, c.channels, 1000.0));
      ASSERT_EQ(enc.rec.error_code, AACENC_OK) << "block " << b;
      ASSERT_GT(au.size(), 7u);
      ASSERT_LE(au.size(), c.channels * 768 + 7u);
      EXPECT_EQ(au[0], 0xFF);
      EXPECT_EQ(au[1], 0xF1);  // MPEG-4, no CRC
      EXPECT_EQ(au[2] >> 6, 1);  // AAC-LC
      EXPECT_EQ(((au[2] & 1u) << 2) | (au[3] >> 6), c.channels);
      EXPECT_EQ(AdtsFrameLength(au), au.size());
      std::fwrite(au.data(), 1, au.size(), f);
      frames.push_back(au);
    }
    std::fclose(f);

    std::string probe = Probe(path);
    EXPECT_NE(probe.find("codec_name=aac"), std::string::npos) << probe;
    EXPECT_NE(probe.find("profile=LC"), std::string::npos) << probe;
    EXPECT_NE(probe.find("sample_rate=" + std::to_string(c.rate)), std::string::npos) << probe;
    EXPECT_NE(probe.find("channels=" + std::to_string(c.channels)), std::string::npos) << probe;
    EXPECT_NE(probe.find("nb_read_frames=" + std::to_string(blocks)), std::string::npos) << probe;

    int rate = 0;
    int channels = 0;
    std::vector<float> left = Decode(frames, rate, channels);
    EXPECT_EQ(rate, static_cast<int>(c.rate));
    EXPECT_EQ(channels, static_cast<int>(c.channels));
    ASSERT_EQ(left.size(), size_t{blocks} * AACENC_FRAME_SAMPLES);
    // Skip the priming delay, then count one second of rising zero crossings.
    const size_t from = 4 * AACENC_FRAME_SAMPLES;
    unsigned crossings = 0;
    float peak = 0;
    for (size_t i = from + 1; i <= from + c.rate; ++i) {
      crossings += (left[i - 1] < 0 && left[i] >= 0);
      peak = std::max(peak, left[i]);
    }
    EXPECT_GE(crossings, 998u);
    EXPECT_LE(crossings, 1002u);
    EXPECT_NEAR(peak, 12000.0 / 32768.0, 0.05);
  }
  unlink(path.c_str());
}

// Average access-unit size over blocks [from, to) of the same noise signal.
double AverageBytes(Encoder& enc, uint32_t& seed, unsigned from, unsigned to) {
  size_t total = 0;
  for (unsigned b = 0; b < to; ++b) {
    size_t n = enc.Encode(NoiseBlock(seed, 1)).size();
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

  // A rate beyond 6144 bits per channel per block is refused; the encoder
  // keeps the last good rate and goes on.
  enc.rec.bit_rate = 300000;
  EXPECT_TRUE(enc.Encode(NoiseBlock(seed, 1)).empty());
  EXPECT_EQ(enc.rec.error_code, AACENC_ERR_BIT_RATE);
  EXPECT_EQ(enc.rec.output_bits, 0u);
  enc.rec.bit_rate = 32000;
  EXPECT_NEAR(AverageBytes(enc, seed, 0, 20), low, 0.15 * low);
}

TEST(AacEncoder, ReportsBadSetupAndMisuseInTheErrorWord) {
  struct Bad {
    const char* what;
    void (*spoil)(Encoder&);
    uint32_t error;
  };
  const Bad cases[] = {
      {"rate 44000", [](Encoder& e) { e.rec.sample_rate = 44000; }, AACENC_ERR_SAMPLE_RATE},
      {"rate 96000", [](Encoder& e) { e.rec.sample_rate = 96000; }, AACENC_ERR_SAMPLE_RATE},
      {"no channels", [](Encoder& e) { e.rec.channels = 0; }, AACENC_ERR_CHANNELS},
      {"3 channels", [](Encoder& e) { e.rec.channels = 3; }, AACENC_ERR_CHANNELS},
      {"bit rate 0", [](Encoder& e) { e.rec.bit_rate_initial = 0; }, AACENC_ERR_BIT_RATE},
      {"bit rate over the cap", [](Encoder& e) { e.rec.bit_rate_initial = 96001; }, AACENC_ERR_BIT_RATE},
      {"mode 4", [](Encoder& e) { e.rec.mode = 4; }, AACENC_ERR_MODE},
      {"fixed word", [](Encoder& e) { e.rec.fixed_parameter = 115; }, AACENC_ERR_FIXED_PARAMETER},
      {"no work buffer", [](Encoder& e) { aacenc_set_work_buffer(&e.rec, nullptr); }, AACENC_ERR_WORK_BUFFER},
  };
  for (const Bad& c : cases) {
    Encoder enc(16000, 1, 96000);  // 96000 is the cap for 16 kHz mono
    c.spoil(enc);
    aacenc_setup(&enc.rec);
    EXPECT_EQ(enc.rec.error_code, c.error) << c.what;
    aacenc_open(&enc.rec);
    EXPECT_NE(enc.rec.error_code, AACENC_OK) << c.what;
  }

  Encoder enc(16000, 1, 96000);
  aacenc_open(&enc.rec);
  EXPECT_EQ(enc.rec.error_code, AACENC_ERR_NOT_SET_UP);
  aacenc_setup(&enc.rec);
  ASSERT_EQ(enc.rec.error_code, AACENC_OK);
  EXPECT_STRNE(enc.rec.version, "");
  EXPECT_STRNE(enc.rec.build, "");
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
  // The stream's shape is fixed while open.
  enc.rec.channels = 2;
  EXPECT_TRUE(enc.Encode(pcm).empty());
  EXPECT_EQ(enc.rec.error_code, AACENC_ERR_CHANNELS);
  enc.rec.channels = 1;
  enc.rec.sample_rate = 48000;
  EXPECT_TRUE(enc.Encode(pcm).empty());
  EXPECT_EQ(enc.rec.error_code, AACENC_ERR_SAMPLE_RATE);
  enc.rec.sample_rate = 16000;
  // Reopening restarts the stream: it still yields one unit per block.
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
  EXPECT_EQ(aacenc_get_output(&rec), buffer);
  EXPECT_EQ(aacenc_get_input(&rec), buffer + 1);
  EXPECT_EQ(aacenc_get_work_buffer(&rec), buffer + 2);
  EXPECT_EQ(aacenc_get_silent_frame(&rec), buffer + 3);
  const auto* raw = reinterpret_cast<const unsigned char*>(&rec);
  for (auto [offset, p] : {std::pair<size_t, unsigned char*>{56, buffer}, {60, buffer + 1}, {64, buffer + 2},
                           {260, buffer + 3}}) {
    uint32_t word;
    std::memcpy(&word, raw + offset, 4);
    EXPECT_EQ(word, static_cast<uint32_t>(reinterpret_cast<uintptr_t>(p))) << offset;
  }
}

}  // namespace

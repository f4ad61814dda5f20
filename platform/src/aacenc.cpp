// The AAC encoder library over libavcodec's native AAC-LC encoder.
//
// All state lives in the caller's work buffer: a small header (EncoderState)
// holding the codec context, one preallocated planar-float frame and one
// packet. libavcodec's encoder holds back one frame (its initial padding), so
// open primes it with a block of silence; from then on every encode call
// sends one block and receives exactly one access unit, to which we prepend
// the 7-byte ADTS header built from the AudioSpecificConfig.
#include "vesk/aacenc/aacenc.h"

#include <cstdio>
#include <cstring>
#include <new>

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/channel_layout.h>
#include <libavutil/frame.h>
#include <libavutil/log.h>
#include <libavutil/opt.h>
}

namespace {

constexpr uint64_t kStateMagic = 0x564b41414345u;  // tags a work buffer holding our state
constexpr unsigned kMaxBitsPerChannelFrame = 6144;
constexpr unsigned kMaxAdtsFrameBytes = 8191;  // 13-bit frame length field
constexpr unsigned kMaxModes = 3;

// Sampling frequency indexes of MPEG-4 audio; only 8000..48000 are offered.
constexpr uint32_t kSampleRates[] = {96000, 88200, 64000, 48000, 44100, 32000, 24000,
                                     22050, 16000, 12000, 11025, 8000};

struct EncoderState {
  uint64_t magic;
  bool setUp;
  AVCodecContext* codec;
  AVFrame* frame;
  AVPacket* packet;
  int64_t nextPts;
  uint32_t appliedBitRate;
  uint32_t openSampleRate;  // the stream's shape, fixed at open
  uint32_t openChannels;
  // From the AudioSpecificConfig, for the ADTS header.
  unsigned objectType;
  unsigned frequencyIndex;
  unsigned channelConfig;
};
static_assert(sizeof(EncoderState) <= AACENC_WORK_BUFFER_BYTES, "state fits the work buffer");

int FrequencyIndex(uint32_t sampleRate) {
  for (unsigned i = 0; i < sizeof(kSampleRates) / sizeof(kSampleRates[0]); ++i)
    if (kSampleRates[i] == sampleRate && sampleRate <= 48000) return static_cast<int>(i);
  return -1;
}

uint32_t MaxBitRate(uint32_t sampleRate, uint32_t channels) {
  return static_cast<uint32_t>(uint64_t{kMaxBitsPerChannelFrame} * channels * sampleRate /
                               AACENC_FRAME_SAMPLES);
}

bool BitRateValid(uint32_t bitRate, const aacenc_record_t* r) {
  return bitRate > 0 && bitRate <= MaxBitRate(r->sample_rate, r->channels);
}

// The state in the work buffer, or null when the buffer holds none.
EncoderState* StateOf(aacenc_record_t* r) {
  unsigned char* work = aacenc_get_work_buffer(r);
  if (work == nullptr || reinterpret_cast<uintptr_t>(work) % alignof(EncoderState) != 0) return nullptr;
  EncoderState* s = reinterpret_cast<EncoderState*>(work);
  return s->magic == kStateMagic ? s : nullptr;
}

void ReleaseCodec(EncoderState* s) {
  avcodec_free_context(&s->codec);
  av_frame_free(&s->frame);
  av_packet_free(&s->packet);
}

void CopyText(char* dst, const char* src) {
  std::snprintf(dst, AACENC_VERSION_BYTES, "%s", src);
}

void FillVersions(aacenc_record_t* r) {
  const unsigned v = avcodec_version();
  char text[AACENC_VERSION_BYTES];
  std::snprintf(text, sizeof(text), "libavcodec %u.%u.%u aac", AV_VERSION_MAJOR(v), AV_VERSION_MINOR(v),
                AV_VERSION_MICRO(v));
  CopyText(r->version, text);
  CopyText(r->build, av_version_info());
}

uint32_t CheckConfiguration(const aacenc_record_t* r) {
  if (FrequencyIndex(r->sample_rate) < 0) return AACENC_ERR_SAMPLE_RATE;
  if (r->channels < 1 || r->channels > 2) return AACENC_ERR_CHANNELS;
  if (!BitRateValid(r->bit_rate_initial, r)) return AACENC_ERR_BIT_RATE;
  if (r->mode > kMaxModes) return AACENC_ERR_MODE;
  if (r->fixed_parameter != AACENC_FIXED_PARAMETER) return AACENC_ERR_FIXED_PARAMETER;
  const unsigned char* work = aacenc_get_work_buffer(r);
  if (work == nullptr || reinterpret_cast<uintptr_t>(work) % alignof(EncoderState) != 0)
    return AACENC_ERR_WORK_BUFFER;
  return AACENC_OK;
}

// Reads object type, sampling frequency index and channel configuration
// from the AudioSpecificConfig the encoder exports.
bool ParseAudioSpecificConfig(const AVCodecContext* c, EncoderState* s) {
  if (c->extradata == nullptr || c->extradata_size < 2) return false;
  const uint8_t* asc = c->extradata;
  s->objectType = asc[0] >> 3;
  s->frequencyIndex = ((asc[0] & 0x07u) << 1) | (asc[1] >> 7);
  s->channelConfig = (asc[1] >> 3) & 0x0Fu;
  return s->objectType >= 1 && s->objectType <= 4 && s->frequencyIndex < 12 && s->channelConfig <= 7;
}

// ADTS fixed and variable header, no CRC.
void PutAdtsHeader(const EncoderState* s, unsigned frameBytes, unsigned char* out) {
  out[0] = 0xFF;                                        // syncword, high 8 bits
  out[1] = 0xF1;                                        // syncword low 4, MPEG-4, layer 0, no CRC
  out[2] = static_cast<unsigned char>(((s->objectType - 1) & 0x03u) << 6 |  // profile
                                      (s->frequencyIndex & 0x0Fu) << 2 |    // sampling index
                                      ((s->channelConfig >> 2) & 0x01u));   // channel config, bit 2
  out[3] = static_cast<unsigned char>((s->channelConfig & 0x03u) << 6 |     // channel config, bits 1-0
                                      ((frameBytes >> 11) & 0x03u));        // frame length, bits 12-11
  out[4] = static_cast<unsigned char>((frameBytes >> 3) & 0xFFu);           // frame length, bits 10-3
  out[5] = static_cast<unsigned char>((frameBytes & 0x07u) << 5 | 0x1Fu);   // length bits 2-0, fullness
  out[6] = 0xFC;                                        // fullness 0x7FF low bits, one raw block
}

// Converts one block of interleaved signed 16-bit samples into the frame's
// float planes.
void FillFrame(AVFrame* f, const unsigned char* pcm, unsigned channels) {
  for (unsigned ch = 0; ch < channels; ++ch) {
    float* plane = reinterpret_cast<float*>(f->extended_data[ch]);
    for (unsigned i = 0; i < AACENC_FRAME_SAMPLES; ++i) {
      int16_t sample;
      std::memcpy(&sample, pcm + (i * channels + ch) * sizeof(int16_t), sizeof(sample));
      plane[i] = static_cast<float>(sample) * (1.0f / 32768.0f);
    }
  }
}

// Sends the prepared frame and receives the access unit it completes; the
// packet is left for the caller to unref. Returns false on any codec error.
bool EncodeFrame(EncoderState* s, bool expectPacket) {
  s->frame->pts = s->nextPts;
  s->nextPts += AACENC_FRAME_SAMPLES;
  if (avcodec_send_frame(s->codec, s->frame) < 0) return false;
  const int got = avcodec_receive_packet(s->codec, s->packet);
  if (!expectPacket) return got == AVERROR(EAGAIN);
  return got == 0;
}

uint32_t OpenCodec(aacenc_record_t* r, EncoderState* s) {
  const AVCodec* encoder = avcodec_find_encoder(AV_CODEC_ID_AAC);
  if (encoder == nullptr) return AACENC_ERR_CODEC;
  s->codec = avcodec_alloc_context3(encoder);
  s->frame = av_frame_alloc();
  s->packet = av_packet_alloc();
  if (s->codec == nullptr || s->frame == nullptr || s->packet == nullptr) return AACENC_ERR_CODEC;

  AVCodecContext* c = s->codec;
  c->sample_fmt = AV_SAMPLE_FMT_FLTP;
  c->sample_rate = static_cast<int>(r->sample_rate);
  av_channel_layout_default(&c->ch_layout, static_cast<int>(r->channels));
  c->bit_rate = r->bit_rate_initial;
  c->profile = FF_PROFILE_AAC_LOW;
  c->flags |= AV_CODEC_FLAG_BITEXACT;  // no encoder-identification fill element
  if (av_opt_set_int(c->priv_data, "aac_tns", r->temporal_noise_shaping ? 1 : 0, 0) < 0)
    return AACENC_ERR_CODEC;
  if (avcodec_open2(c, encoder, nullptr) < 0 || c->frame_size != static_cast<int>(AACENC_FRAME_SAMPLES))
    return AACENC_ERR_CODEC;
  if (!ParseAudioSpecificConfig(c, s)) return AACENC_ERR_CODEC;

  s->frame->format = AV_SAMPLE_FMT_FLTP;
  s->frame->sample_rate = c->sample_rate;
  s->frame->nb_samples = static_cast<int>(AACENC_FRAME_SAMPLES);
  if (av_channel_layout_copy(&s->frame->ch_layout, &c->ch_layout) < 0) return AACENC_ERR_CODEC;
  if (av_frame_get_buffer(s->frame, 0) < 0) return AACENC_ERR_CODEC;
  s->appliedBitRate = r->bit_rate_initial;
  s->openSampleRate = r->sample_rate;
  s->openChannels = r->channels;
  s->nextPts = 0;

  // Prime the one-frame delay with silence: it yields no packet.
  for (unsigned ch = 0; ch < r->channels; ++ch)
    std::memset(s->frame->extended_data[ch], 0, AACENC_FRAME_SAMPLES * sizeof(float));
  if (!EncodeFrame(s, false)) return AACENC_ERR_CODEC;
  return AACENC_OK;
}

}  // namespace

extern "C" void aacenc_setup(aacenc_record_t* r) {
  if (r == nullptr) return;
  // Failures reach the caller through the error word; keep libavcodec's own
  // statistics and warnings off the host's stderr.
  if (av_log_get_level() > AV_LOG_ERROR) av_log_set_level(AV_LOG_ERROR);
  r->output_bits = 0;
  r->error_code = CheckConfiguration(r);
  if (r->error_code != AACENC_OK) return;
  EncoderState* s = StateOf(r);
  if (s != nullptr) ReleaseCodec(s);  // set up again: the previous encoder goes
  s = new (aacenc_get_work_buffer(r)) EncoderState{};
  s->magic = kStateMagic;
  s->setUp = true;
  FillVersions(r);
}

extern "C" void aacenc_open(aacenc_record_t* r) {
  if (r == nullptr) return;
  EncoderState* s = StateOf(r);
  if (s == nullptr || !s->setUp) {
    r->error_code = AACENC_ERR_NOT_SET_UP;
    return;
  }
  r->error_code = CheckConfiguration(r);
  if (r->error_code != AACENC_OK) return;
  ReleaseCodec(s);
  r->error_code = OpenCodec(r, s);
  if (r->error_code != AACENC_OK) ReleaseCodec(s);
  FillVersions(r);
}

extern "C" void aacenc_encode(aacenc_record_t* r) {
  if (r == nullptr) return;
  r->output_bits = 0;
  EncoderState* s = StateOf(r);
  if (s == nullptr || s->codec == nullptr) {
    r->error_code = AACENC_ERR_NOT_OPEN;
    return;
  }
  const unsigned char* in = aacenc_get_input(r);
  unsigned char* out = aacenc_get_output(r);
  if (in == nullptr || out == nullptr) {
    r->error_code = AACENC_ERR_BUFFERS;
    return;
  }
  // Rate and channels are fixed while open; a change needs setup and open.
  if (r->sample_rate != s->openSampleRate) {
    r->error_code = AACENC_ERR_SAMPLE_RATE;
    return;
  }
  if (r->channels != s->openChannels) {
    r->error_code = AACENC_ERR_CHANNELS;
    return;
  }
  if (r->bit_rate != s->appliedBitRate) {
    if (!BitRateValid(r->bit_rate, r)) {
      r->error_code = AACENC_ERR_BIT_RATE;
      return;
    }
    // The encoder reads its rate control target from the context per frame.
    s->codec->bit_rate = r->bit_rate;
    s->appliedBitRate = r->bit_rate;
  }
  if (av_frame_make_writable(s->frame) < 0) {
    r->error_code = AACENC_ERR_CODEC;
    return;
  }
  FillFrame(s->frame, in, r->channels);
  if (!EncodeFrame(s, true)) {
    r->error_code = AACENC_ERR_CODEC;
    return;
  }
  const unsigned frameBytes = AACENC_ADTS_HEADER_BYTES + static_cast<unsigned>(s->packet->size);
  const unsigned limit = r->channels * (kMaxBitsPerChannelFrame / 8) + AACENC_ADTS_HEADER_BYTES;
  if (s->packet->size <= 0 || frameBytes > limit || frameBytes > kMaxAdtsFrameBytes) {
    av_packet_unref(s->packet);
    r->error_code = AACENC_ERR_CODEC;
    return;
  }
  PutAdtsHeader(s, frameBytes, out);
  std::memcpy(out + AACENC_ADTS_HEADER_BYTES, s->packet->data, static_cast<size_t>(s->packet->size));
  av_packet_unref(s->packet);
  r->output_bits = frameBytes * 8;
  r->error_code = AACENC_OK;
}

extern "C" void aacenc_close(aacenc_record_t* r) {
  if (r == nullptr) return;
  EncoderState* s = StateOf(r);
  if (s == nullptr) return;
  ReleaseCodec(s);
  s->magic = 0;
  s->setUp = false;
}

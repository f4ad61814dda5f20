// A libavcodec decoder fed whole pictures, to show that encoded pictures are
// real. Link libavcodec and libavutil to use it.
#pragma once

#include <string.h>

#include <cstdint>
#include <vector>

extern "C" {
#include <libavcodec/avcodec.h>
}

namespace vesk {
namespace test {

class Decoder {
 public:
  explicit Decoder(AVCodecID id) {
    const AVCodec* codec = avcodec_find_decoder(id);
    context_ = avcodec_alloc_context3(codec);
    open_ = avcodec_open2(context_, codec, nullptr) == 0;
  }
  ~Decoder() {
    av_frame_free(&frame_);
    av_packet_free(&packet_);
    avcodec_free_context(&context_);
  }

  // Pictures of width x height that came out (flush: the last one too); -1
  // when the bytes are refused.
  int Feed(const std::vector<uint8_t>& bytes, int width, int height, bool flush = false) {
    if (!open_ || av_new_packet(packet_, (int)bytes.size()) != 0) return -1;
    memcpy(packet_->data, bytes.data(), bytes.size());
    if (avcodec_send_packet(context_, packet_) != 0) return -1;
    av_packet_unref(packet_);
    if (flush) avcodec_send_packet(context_, nullptr);
    int out = 0;
    while (avcodec_receive_frame(context_, frame_) == 0) {
      if (frame_->width == width && frame_->height == height) out++;
      av_frame_unref(frame_);
    }
    return out;
  }

 private:
  AVCodecContext* context_;
  AVPacket* packet_ = av_packet_alloc();
  AVFrame* frame_ = av_frame_alloc();
  bool open_;
};

// One picture decoded alone is one picture of that size.
inline int DecodeOne(AVCodecID id, const std::vector<uint8_t>& bytes, int width, int height) {
  return Decoder(id).Feed(bytes, width, height, true);
}

}  // namespace test
}  // namespace vesk

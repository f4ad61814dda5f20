#include "jpegencoder.h"

extern "C" {
#include <libavcodec/avcodec.h>
#include <libavutil/frame.h>
}

namespace vesk::virtualcam {
namespace {

// Quality 1..100 to the encoder's quantiser scale 31..2.
int QuantiserScale(uint32_t quality) {
  if (quality < 1) quality = 1;
  if (quality > 100) quality = 100;
  return 2 + static_cast<int>((100 - quality) * 29 / 99);
}

}  // namespace

JpegEncoder::~JpegEncoder() { Close(); }

void JpegEncoder::Close() {
  av_packet_free(&packet_);
  av_frame_free(&frame_);
  avcodec_free_context(&context_);
}

bool JpegEncoder::Open(int width, int height, uint32_t quality) {
  Close();
  const AVCodec* codec = avcodec_find_encoder(AV_CODEC_ID_MJPEG);
  if (codec == nullptr) return false;
  context_ = avcodec_alloc_context3(codec);
  frame_ = av_frame_alloc();
  packet_ = av_packet_alloc();
  if (context_ == nullptr || frame_ == nullptr || packet_ == nullptr) {
    Close();
    return false;
  }
  context_->width = width;
  context_->height = height;
  context_->pix_fmt = AV_PIX_FMT_YUV420P;
  context_->color_range = AVCOL_RANGE_JPEG;
  context_->time_base = AVRational{1, 90000};
  context_->flags |= AV_CODEC_FLAG_QSCALE;
  context_->thread_count = 1;
  if (avcodec_open2(context_, codec, nullptr) < 0) {
    Close();
    return false;
  }
  frame_->format = AV_PIX_FMT_YUV420P;
  frame_->width = width;
  frame_->height = height;
  frame_->color_range = AVCOL_RANGE_JPEG;
  if (av_frame_get_buffer(frame_, 0) < 0) {
    Close();
    return false;
  }
  width_ = width;
  height_ = height;
  count_ = 0;
  SetQuality(quality);
  return true;
}

void JpegEncoder::SetQuality(uint32_t quality) { quality_ = quality; }

bool JpegEncoder::Input(PlanarPicture* picture) {
  if (frame_ == nullptr || av_frame_make_writable(frame_) < 0) return false;
  for (int i = 0; i < 3; ++i) {
    picture->plane[i] = frame_->data[i];
    picture->stride[i] = frame_->linesize[i];
  }
  picture->width = width_;
  picture->height = height_;
  return true;
}

bool JpegEncoder::Encode(const uint8_t** data, size_t* size) {
  if (context_ == nullptr) return false;
  av_packet_unref(packet_);
  frame_->quality = FF_QP2LAMBDA * QuantiserScale(quality_);
  frame_->pts = count_++;
  if (avcodec_send_frame(context_, frame_) < 0) return false;
  if (avcodec_receive_packet(context_, packet_) < 0) return false;
  *data = packet_->data;
  *size = static_cast<size_t>(packet_->size);
  return true;
}

}  // namespace vesk::virtualcam

// One MJPEG stream of the virtual DSP, encoded by libavcodec's JPEG encoder.
#ifndef VESK_VIRTUALCAM_JPEGENCODER_H
#define VESK_VIRTUALCAM_JPEGENCODER_H

#include <stddef.h>
#include <stdint.h>

#include "scene.h"

struct AVCodecContext;
struct AVFrame;
struct AVPacket;

namespace vesk::virtualcam {

class JpegEncoder {
 public:
  JpegEncoder() = default;
  ~JpegEncoder();
  JpegEncoder(const JpegEncoder&) = delete;
  JpegEncoder& operator=(const JpegEncoder&) = delete;

  bool Open(int width, int height, uint32_t quality);
  void Close();
  bool IsOpen() const { return context_ != nullptr; }
  int Width() const { return width_; }
  int Height() const { return height_; }

  // Quality 1-100, used from the next picture on.
  void SetQuality(uint32_t quality);
  uint32_t Quality() const { return quality_; }

  // The picture to draw the next input into (valid until Encode).
  bool Input(PlanarPicture* picture);

  // Encodes the drawn input; the JPEG bytes stay valid until the next call.
  bool Encode(const uint8_t** data, size_t* size);

 private:
  AVCodecContext* context_ = nullptr;
  AVFrame* frame_ = nullptr;
  AVPacket* packet_ = nullptr;
  int width_ = 0;
  int height_ = 0;
  uint32_t quality_ = 0;
  int64_t count_ = 0;
};

}  // namespace vesk::virtualcam

#endif

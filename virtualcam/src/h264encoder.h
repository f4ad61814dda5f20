// One H.264 stream of the virtual DSP, encoded by libx264: one slice per
// picture, access-unit delimiters, picture types chosen by the caller.
#ifndef VESK_VIRTUALCAM_H264ENCODER_H
#define VESK_VIRTUALCAM_H264ENCODER_H

#include <stddef.h>
#include <stdint.h>

#include "scene.h"

struct x264_t;
struct x264_nal_t;
struct x264_picture_t;

namespace vesk::virtualcam {

struct H264Settings {
  int width = 0;
  int height = 0;
  uint32_t fpsNum = 30;  // pictures per second of this stream, as a fraction
  uint32_t fpsDen = 1;
  int M = 1;              // 1: no B pictures
  uint32_t kbps = 1000;   // delivered bit rate
};

// What one Encode call produced: NAL units in order (each starting with the
// 4-byte length x264 writes when Annex B is off), valid until the next call.
struct H264Output {
  static constexpr int kMaxNals = 16;
  int count = 0;
  const uint8_t* nal[kMaxNals] = {};
  size_t size[kMaxNals] = {};  // bytes including the 4-byte prefix
  int pictureType = 0;         // IAV_PIC_TYPE_*
  int64_t pts = 0;             // the pts given with the input picture
};

class H264Encoder {
 public:
  H264Encoder() = default;
  ~H264Encoder();
  H264Encoder(const H264Encoder&) = delete;
  H264Encoder& operator=(const H264Encoder&) = delete;

  bool Open(const H264Settings& settings);
  void Close();
  bool IsOpen() const { return encoder_ != nullptr; }
  const H264Settings& Settings() const { return settings_; }

  // Changes the bit rate at run time.
  bool SetBitrate(uint32_t kbps);

  // The picture to draw the next input into.
  PlanarPicture Input() const;

  // Encodes the drawn input. type: IAV_PIC_TYPE_IDR, _I or _P forces that
  // type (B pictures come from M > 1). False on an encoder error; true with
  // out->count 0 while B pictures are held back.
  bool Encode(int type, int64_t pts, H264Output* out);

  // The latest sequence and picture parameter sets, without prefix.
  const uint8_t* Sps() const { return sps_; }
  size_t SpsSize() const { return spsSize_; }
  const uint8_t* Pps() const { return pps_; }
  size_t PpsSize() const { return ppsSize_; }

 private:
  void KeepParameterSets(x264_nal_t* nals, int count);

  H264Settings settings_;
  x264_t* encoder_ = nullptr;
  x264_picture_t* input_ = nullptr;
  x264_picture_t* output_ = nullptr;
  uint8_t sps_[256] = {};
  size_t spsSize_ = 0;
  uint8_t pps_[256] = {};
  size_t ppsSize_ = 0;
};

}  // namespace vesk::virtualcam

#endif

#include "h264encoder.h"

#include <string.h>

#include <x264.h>

#include "vesk/device/iav.h"

namespace vesk::virtualcam {
namespace {

void FillRateControl(x264_param_t* param, uint32_t kbps) {
  int rate = kbps < 1 ? 1 : static_cast<int>(kbps);
  param->rc.i_rc_method = X264_RC_ABR;
  param->rc.i_bitrate = rate;
  param->rc.i_vbv_max_bitrate = rate;
  param->rc.i_vbv_buffer_size = rate;  // one second
}

}  // namespace

H264Encoder::~H264Encoder() { Close(); }

void H264Encoder::Close() {
  if (encoder_ != nullptr) x264_encoder_close(encoder_);
  encoder_ = nullptr;
  if (input_ != nullptr) {
    x264_picture_clean(input_);
    delete input_;
  }
  input_ = nullptr;
  delete output_;
  output_ = nullptr;
  spsSize_ = 0;
  ppsSize_ = 0;
}

bool H264Encoder::Open(const H264Settings& settings) {
  Close();
  settings_ = settings;
  x264_param_t param;
  if (x264_param_default_preset(&param, "ultrafast", "zerolatency") < 0) return false;
  param.i_threads = 1;  // one slice per picture
  param.b_sliced_threads = 0;
  param.i_width = settings.width;
  param.i_height = settings.height;
  param.i_csp = X264_CSP_I420;
  param.i_fps_num = settings.fpsNum;
  param.i_fps_den = settings.fpsDen;
  param.i_timebase_num = 1;
  param.i_timebase_den = 90000;
  param.b_vfr_input = 0;
  param.i_keyint_max = X264_KEYINT_MAX_INFINITE;  // the caller decides IDR and I pictures
  // A forced I picture stays an I picture (not promoted to IDR) only when it
  // falls within the minimum key-frame distance.
  param.i_keyint_min = 1 << 28;
  param.i_scenecut_threshold = 0;
  param.i_bframe = settings.M > 1 ? settings.M - 1 : 0;
  param.i_bframe_pyramid = X264_B_PYRAMID_NONE;
  param.b_repeat_headers = 1;
  param.b_aud = 1;
  param.b_annexb = 0;  // 4-byte lengths, rewritten to start codes by the writer
  param.i_log_level = X264_LOG_NONE;
  FillRateControl(&param, settings.kbps);
  encoder_ = x264_encoder_open(&param);
  if (encoder_ == nullptr) return false;
  input_ = new x264_picture_t;
  output_ = new x264_picture_t;
  if (x264_picture_alloc(input_, X264_CSP_I420, settings.width, settings.height) < 0) {
    delete input_;
    input_ = nullptr;
    Close();
    return false;
  }
  x264_nal_t* nals = nullptr;
  int count = 0;
  if (x264_encoder_headers(encoder_, &nals, &count) < 0) {
    Close();
    return false;
  }
  KeepParameterSets(nals, count);
  return true;
}

bool H264Encoder::SetBitrate(uint32_t kbps) {
  if (encoder_ == nullptr) return false;
  x264_param_t param;
  x264_encoder_parameters(encoder_, &param);
  FillRateControl(&param, kbps);
  if (x264_encoder_reconfig(encoder_, &param) < 0) return false;
  settings_.kbps = kbps;
  return true;
}

PlanarPicture H264Encoder::Input() const {
  PlanarPicture picture;
  for (int i = 0; i < 3; ++i) {
    picture.plane[i] = input_->img.plane[i];
    picture.stride[i] = input_->img.i_stride[i];
  }
  picture.width = settings_.width;
  picture.height = settings_.height;
  return picture;
}

void H264Encoder::KeepParameterSets(x264_nal_t* nals, int count) {
  for (int i = 0; i < count; ++i) {
    size_t size = static_cast<size_t>(nals[i].i_payload) - 4;
    if (nals[i].i_type == NAL_SPS && size <= sizeof(sps_)) {
      memcpy(sps_, nals[i].p_payload + 4, size);
      spsSize_ = size;
    } else if (nals[i].i_type == NAL_PPS && size <= sizeof(pps_)) {
      memcpy(pps_, nals[i].p_payload + 4, size);
      ppsSize_ = size;
    }
  }
}

bool H264Encoder::Encode(int type, int64_t pts, H264Output* out) {
  out->count = 0;
  if (encoder_ == nullptr) return false;
  input_->i_type = type == IAV_PIC_TYPE_IDR ? X264_TYPE_IDR
                   : type == IAV_PIC_TYPE_I ? X264_TYPE_I
                   : type == IAV_PIC_TYPE_P && settings_.M == 1 ? X264_TYPE_P
                                                                : X264_TYPE_AUTO;
  input_->i_pts = pts;
  x264_nal_t* nals = nullptr;
  int count = 0;
  int bytes = x264_encoder_encode(encoder_, &nals, &count, input_, output_);
  if (bytes < 0) return false;
  if (bytes == 0 || count == 0) return true;
  if (count > H264Output::kMaxNals) return false;
  KeepParameterSets(nals, count);
  for (int i = 0; i < count; ++i) {
    out->nal[i] = nals[i].p_payload;
    out->size[i] = static_cast<size_t>(nals[i].i_payload);
  }
  out->count = count;
  out->pts = output_->i_pts;
  switch (output_->i_type) {
    case X264_TYPE_IDR: out->pictureType = IAV_PIC_TYPE_IDR; break;
    case X264_TYPE_I: out->pictureType = IAV_PIC_TYPE_I; break;
    case X264_TYPE_P: out->pictureType = IAV_PIC_TYPE_P; break;
    default: out->pictureType = IAV_PIC_TYPE_B; break;
  }
  return true;
}

}  // namespace vesk::virtualcam

// The encode streams: format, H.264 and MJPEG parameters, frame rate and
// IDR cadence, rate control, forced IDR pictures.
#include <errno.h>
#include <string.h>

#include "trackencodervideos2l.h"
#include "vesk/device/device.h"
#include "vesk/device/iav.h"
#include "vlog.h"

namespace vesk {
namespace encoder {
namespace internal {

namespace {
constexpr uint32_t kMaxStreamId = IAV_MAX_ENCODE_STREAMS - 1;
constexpr uint8_t kQpMin = 1;
constexpr uint8_t kQpMax = 51;
constexpr uint8_t kVbrLevel = 4;

const Variant& Key(const Variant& element, const char* key) { return element[key]; }
}  // namespace

bool TrackEncoderVideoS2L::SetStreamItem(int streamId, uint32_t item, const void* payload, size_t size) {
  iav_stream_cfg_t cfg;
  memset(&cfg, 0, sizeof(cfg));
  cfg.id = (uint32_t)streamId;
  cfg.cid = item;
  if (payload != nullptr) memcpy(&cfg.arg, payload, size);
  if (vdev_ioctl(iavFd_, IAV_IOC_SET_STREAM_CONFIG, &cfg) != 0) {
    VLOG_ERRNO(VESK_PRIO_ERROR, errno, "IAV_IOC_SET_STREAM_CONFIG failed");
    return false;
  }
  return true;
}

bool TrackEncoderVideoS2L::GetStreamItem(int streamId, uint32_t item, void* record) {
  iav_stream_cfg_t& cfg = *static_cast<iav_stream_cfg_t*>(record);
  memset(&cfg, 0, sizeof(cfg));
  cfg.id = (uint32_t)streamId;
  cfg.cid = item;
  if (vdev_ioctl(iavFd_, IAV_IOC_GET_STREAM_CONFIG, &cfg) != 0) {
    VLOG_ERRNO(VESK_PRIO_ERROR, errno, "IAV_IOC_GET_STREAM_CONFIG failed");
    return false;
  }
  return true;
}

bool TrackEncoderVideoS2L::SetEncodingFormat(int streamId, uint32_t type, uint32_t sourceBuffer, uint32_t width,
                                             uint32_t height) {
  iav_stream_format_t format;
  memset(&format, 0, sizeof(format));
  format.id = (uint32_t)streamId;
  if (vdev_ioctl(iavFd_, IAV_IOC_GET_STREAM_FORMAT, &format) != 0) {
    VLOG_ERRNO(VESK_PRIO_ERROR, errno, "IAV_IOC_GET_STREAM_FORMAT failed");
    return false;
  }
  format.type = type;
  format.sourceBuf = sourceBuffer;
  format.width = width;
  format.height = height;
  format.offsetX = 0;
  format.offsetY = 0;
  if (vdev_ioctl(iavFd_, IAV_IOC_SET_STREAM_FORMAT, &format) != 0) {
    VLOG_ERRNO(VESK_PRIO_ERROR, errno, "IAV_IOC_SET_STREAM_FORMAT failed");
    return false;
  }
  return true;
}

bool TrackEncoderVideoS2L::SetH264Config(int streamId, Variant& element) {
  iav_h264_config_t config;
  memset(&config, 0, sizeof(config));
  config.id = (uint32_t)streamId;
  if (vdev_ioctl(iavFd_, IAV_IOC_GET_H264_CONFIG, &config) != 0) {
    VLOG_ERRNO(VESK_PRIO_ERROR, errno, "IAV_IOC_GET_H264_CONFIG failed");
    return false;
  }
  uint32_t M = Key(element, "M");
  uint32_t multiplier = Key(element, "nMultiplier");
  uint32_t gopLength = (uint32_t)Key(element, "N") * multiplier;
  config.M = (uint8_t)M;
  config.N = (uint16_t)gopLength;
  config.gopModel = (uint8_t)(unsigned int)Key(element, "gopModel");
  config.cabac = 1;
  config.audType = 1;
  config.lowLatency = 0;
  if (vdev_ioctl(iavFd_, IAV_IOC_SET_H264_CONFIG, &config) != 0) {
    VLOG_ERRNO(VESK_PRIO_ERROR, errno, "IAV_IOC_SET_H264_CONFIG failed");
    return false;
  }
  stream_slot_t& slot = streams_[ComputeStreamOrdinal((unsigned int)streamId) % kVideoStreamSlots];
  slot.M = M;
  slot.gopLength = gopLength;
  slot.idrMultiplier = multiplier;
  slot.width = Key(element, "width");
  slot.height = Key(element, "height");
  return true;
}

bool TrackEncoderVideoS2L::SetH264Encoding(Variant& element) {
  int streamId = Key(element, "streamId");
  unsigned int ordinal = Key(element, "streamOrdinal");
  unsigned int width = Key(element, "width");
  unsigned int height = Key(element, "height");
  unsigned char fps = Key(element, "fps");
  if (streamId < 0 || (uint32_t)streamId > kMaxStreamId) {
    VLOG_ERROR("streamId (%u) should be in range [0..%u]", (unsigned)streamId, kMaxStreamId);
    return false;
  }
  if (!SetEncodingFormat(streamId, IAV_STREAM_TYPE_H264, Key(element, "sourceId"), width, height)) {
    VLOG_ERROR("Unable to set the encoding format");
    return false;
  }
  if (!SetH264Config(streamId, element)) return false;
  ComputeMaxAllowedBitrates();
  if (!SetGopInfo(ordinal, streamId, fps, (unsigned char)(unsigned int)Key(element, "nMultiplier"), true)) {
    VLOG_ERROR("Unable to setup framerate");
    return false;
  }
  if (!SetBitRate(streamId, Key(element, "isCbr"), Key(element, "bitRateCbrAvg"), Key(element, "bitRateVbrMax"))) {
    VLOG_ERROR("Unable to setup bitrate");
    return false;
  }
  VLOG_DEBUG("%s %ux%u@%u encoding configured", Key(element, "type").c_str(), width, height, (unsigned)fps);
  return true;
}

bool TrackEncoderVideoS2L::SetMJPGEncoding(Variant& element) {
  int streamId = Key(element, "streamId");
  unsigned int ordinal = Key(element, "streamOrdinal");
  unsigned int width = Key(element, "width");
  unsigned int height = Key(element, "height");
  unsigned char fps = Key(element, "fps");
  int quality = (int)Key(element, "quality");
  if (streamId < 0 || (uint32_t)streamId > kMaxStreamId) {
    VLOG_ERROR("streamId (%u) should be in range [0..%u]", (unsigned)streamId, kMaxStreamId);
    return false;
  }
  if (quality < 1 || quality > 100) {
    VLOG_ERROR("Invalid quality value (it should be 1-100, %d given)", quality);
    return false;
  }
  if (!SetEncodingFormat(streamId, IAV_STREAM_TYPE_MJPEG, Key(element, "sourceId"), width, height)) {
    VLOG_ERROR("Unable to set the encoding format");
    return false;
  }
  iav_stream_cfg_t cfg;
  if (!GetStreamItem(streamId, IAV_STMCFG_MJPEG_QUALITY, &cfg)) return false;
  cfg.arg.quality.quality = (uint32_t)quality;
  if (!SetStreamItem(streamId, IAV_STMCFG_MJPEG_QUALITY, &cfg.arg, sizeof(cfg.arg))) return false;
  streams_[ordinal % kVideoStreamSlots].width = width;
  streams_[ordinal % kVideoStreamSlots].height = height;
  streams_[ordinal % kVideoStreamSlots].M = 1;
  if (!SetGopInfo(ordinal, streamId, fps, 1, false)) {
    VLOG_ERROR("Unable to setup framerate");
    return false;
  }
  VLOG_DEBUG("%s %ux%u@%u, q %u encoding configured", Key(element, "type").c_str(), width, height,
             (unsigned)fps, (unsigned)quality);
  return true;
}

bool TrackEncoderVideoS2L::SetGopInfo(unsigned int ordinal, int streamId, unsigned char fps,
                                      unsigned char multiplier, bool isH264) {
  stream_slot_t& slot = streams_[ordinal % kVideoStreamSlots];
  if (isH264 && slot.M > 1 && fps < 2 * slot.M + 1) {
    VLOG_ERROR("FPS is lower than M");
    return false;
  }
  if (streamId < 0 || (uint32_t)streamId > kMaxStreamId) {
    VLOG_ERROR("streamId (%u) should be in range [0..%u]", (unsigned)streamId, kMaxStreamId);
    return false;
  }
  iav_stream_fps_t rate = {fps, GetVinFps(0)};
  if (!SetStreamItem(streamId, IAV_STMCFG_FPS, &rate, sizeof(rate))) return false;
  slot.fpsNumerator = rate.numerator;
  slot.fpsDenominator = rate.denominator;
  bitrate_fix_t& fix = fixes_[ordinal % kVideoStreamSlots];
  fix.passThrough = !isH264;
  fix.numerator = rate.denominator;
  fix.denominator = rate.numerator;
  if (isH264) {
    iav_stream_gop_t gop = {(uint32_t)multiplier * fps, 1};
    if (!SetStreamItem(streamId, IAV_STMCFG_GOP, &gop, sizeof(gop))) return false;
    slot.idrMultiplier = multiplier;
    slot.idrInterval = gop.idrInterval;
  }
  for (stream_slot_t& each : streams_) each.pictures = 0;
  return ForceIDR(streamId);
}

bool TrackEncoderVideoS2L::SetBitRate(int streamId, bool isCbr, unsigned int cbrAvg, unsigned int vbrMax) {
  (void)isCbr;
  (void)FixBitrate(streamId, cbrAvg);
  unsigned int target = FixBitrate(streamId, vbrMax);
  iav_stream_cfg_t cfg;
  if (!GetStreamItem(streamId, IAV_STMCFG_BITRATE, &cfg)) return false;
  iav_stream_bitrate_t& rc = cfg.arg.bitrate;
  rc.targetBitrate = target;
  rc.rcMode = IAV_BRC_MODE_VBR;
  rc.vbrLevel = kVbrLevel;
  rc.adaptQp = 0;
  rc.qpMinI = rc.qpMinP = rc.qpMinB = kQpMin;
  rc.qpMaxI = rc.qpMaxP = rc.qpMaxB = kQpMax;
  return SetStreamItem(streamId, IAV_STMCFG_BITRATE, &cfg.arg, sizeof(cfg.arg));
}

bool TrackEncoderVideoS2L::ForceIDR(int streamId) {
  return SetStreamItem(streamId, IAV_STMCFG_FORCE_IDR, nullptr, 0);
}

bool TrackEncoderVideoS2L::ForceIDR(const Variant& element) { return ForceIDR((int)Key(element, "streamId")); }

}  // namespace internal
}  // namespace encoder
}  // namespace vesk

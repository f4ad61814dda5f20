// The emulated IAV driver's requests: states, microcode, video input, source
// buffers, system resources, stream formats and configuration, buffers and
// descriptors. Each answers 0 or a negative errno, as a driver does.
#include <errno.h>
#include <fcntl.h>
#include <string.h>

#include <chrono>

#include "camera.h"
#include "firmware.h"

namespace vesk::virtualcam {
namespace {

constexpr uint32_t kMaxWidth = 4096;
constexpr uint32_t kMaxHeight = 3072;

bool ValidSize(uint32_t width, uint32_t height) {
  return width >= 16 && height >= 16 && width <= kMaxWidth && height <= kMaxHeight && width % 2 == 0 &&
         height % 2 == 0;
}

// Splits a START/STOP argument: streams in bits 0-3, optionally repeated in
// bits 16-19. -EINVAL for any other bit.
int StreamMask(uint32_t argument) {
  uint32_t low = argument & 0xFFFFu;
  uint32_t high = argument >> 16;
  if ((low & ~0xFu) != 0 || (high != 0 && high != low)) return -EINVAL;
  return static_cast<int>(low);
}

// Requests of /dev/iav that take a record.
bool TakesRecord(unsigned long request) {
  switch (request) {
    case IAV_IOC_GET_CHIP_ID: case IAV_IOC_VIN_GET_VIDEOINFO: case IAV_IOC_VIN_SET_MODE:
    case IAV_IOC_VIN_SET_FPS: case IAV_IOC_GET_SOURCE_BUFFER_SETUP: case IAV_IOC_SET_SOURCE_BUFFER_SETUP:
    case IAV_IOC_GET_SYSTEM_RESOURCE: case IAV_IOC_SET_SYSTEM_RESOURCE: case IAV_IOC_GET_STREAM_FORMAT:
    case IAV_IOC_SET_STREAM_FORMAT: case IAV_IOC_GET_H264_CONFIG: case IAV_IOC_SET_H264_CONFIG:
    case IAV_IOC_GET_STREAM_CONFIG: case IAV_IOC_SET_STREAM_CONFIG: case IAV_IOC_QUERY_BUF:
    case IAV_IOC_QUERY_DESC:
      return true;
    default:
      return false;
  }
}

template <typename T>
T* Record(unsigned long argument) {
  return reinterpret_cast<T*>(argument);
}

}  // namespace

int VirtualCamera::Ioctl(int fd, unsigned long request, unsigned long argument) {
  std::unique_lock<std::mutex> lock(mutex_);
  auto it = files_.find(fd);
  if (it == files_.end()) {
    errno = EBADF;
    return -1;
  }
  ++requestCounts_[request];
  int err = 0;
  if (TakeFault(request, &err)) {
    errno = err;
    return -1;
  }
  int result = it->second.kind == DeviceKind::kUcode ? HandleUcode(it->second, request, argument)
                                                     : HandleIav(fd, it->second, request, argument, lock);
  if (result < 0) {
    errno = -result;
    return -1;
  }
  return result;
}

// ---- /dev/ucode -----------------------------------------------------------------

int VirtualCamera::HandleUcode(OpenFile& file, unsigned long request, unsigned long argument) {
  switch (request) {
    case IAV_IOC_GET_UCODE_INFO: {
      auto* load = Record<iav_ucode_load_t>(argument);
      if (load == nullptr) return -EFAULT;
      FillUcodeLoad(load, static_cast<uint32_t>(ucode_.Size()));
      return 0;
    }
    case IAV_IOC_GET_UCODE_VERSION: {
      auto* version = Record<iav_ucode_version_t>(argument);
      if (version == nullptr) return -EFAULT;
      memset(version, 0, sizeof(*version));
      if (ucodeLoaded_) {
        version->year = 2016;
        version->month = 3;
        version->day = 14;
        version->editionNum = 2;
        version->editionVer = 7;
      }
      return 0;
    }
    case IAV_IOC_UPDATE_UCODE:
      if (file.accessMode != O_RDWR) return -EBADF;
      return UpdateUcode();
    default:
      return -ENOTTY;
  }
}

// mutex_ held.
int VirtualCamera::UpdateUcode() {
  if (ucodeLoaded_) return 0;
  if (!FirmwareResident(ucode_.Data(), ucode_.Size())) return -EINVAL;
  int unused = 0;
  if (TakeFault(VCAM_OP_START_UCODE, &unused)) return 0;  // accepted, never runs
  ucodeLoaded_ = true;
  return 0;
}

// ---- /dev/iav --------------------------------------------------------------------

int VirtualCamera::HandleIav(int fd, OpenFile& /*file*/, unsigned long request, unsigned long argument,
                             std::unique_lock<std::mutex>& lock) {
  uint32_t value = static_cast<uint32_t>(argument);
  switch (request) {
    case IAV_IOC_ENTER_IDLE: return EnterIdle();
    case IAV_IOC_ENABLE_PREVIEW: return EnablePreview();
    case IAV_IOC_START_ENCODE: return StartEncode(value);
    case IAV_IOC_STOP_ENCODE: return StopEncode(value);
    case IAV_IOC_GET_UCODE_INFO:
    case IAV_IOC_GET_UCODE_VERSION:
    case IAV_IOC_UPDATE_UCODE: return -ENOTTY;  // /dev/ucode's requests
    default: break;
  }
  if (!TakesRecord(request)) return -ENOTTY;
  if (argument == 0) return -EFAULT;
  switch (request) {
    case IAV_IOC_GET_CHIP_ID: *Record<int32_t>(argument) = chipId_; return 0;
    case IAV_IOC_VIN_GET_VIDEOINFO: return VinGetVideoInfo(Record<vindev_video_info_t>(argument));
    case IAV_IOC_VIN_SET_MODE: return VinSetMode(Record<const iav_vin_mode_t>(argument));
    case IAV_IOC_VIN_SET_FPS: return VinSetFps(Record<const iav_vin_fps_t>(argument));
    case IAV_IOC_GET_SOURCE_BUFFER_SETUP: *Record<iav_srcbuf_setup_t>(argument) = srcbuf_; return 0;
    case IAV_IOC_SET_SOURCE_BUFFER_SETUP: return SetSourceBuffers(Record<const iav_srcbuf_setup_t>(argument));
    case IAV_IOC_GET_SYSTEM_RESOURCE: *Record<iav_system_resource_t>(argument) = sysres_; return 0;
    case IAV_IOC_SET_SYSTEM_RESOURCE: return SetSystemResource(Record<const iav_system_resource_t>(argument));
    case IAV_IOC_GET_STREAM_FORMAT: return GetStreamFormat(Record<iav_stream_format_t>(argument));
    case IAV_IOC_SET_STREAM_FORMAT: return SetStreamFormat(Record<const iav_stream_format_t>(argument));
    case IAV_IOC_GET_H264_CONFIG: return GetH264Config(Record<iav_h264_config_t>(argument));
    case IAV_IOC_SET_H264_CONFIG: return SetH264Config(Record<const iav_h264_config_t>(argument));
    case IAV_IOC_GET_STREAM_CONFIG: return GetStreamConfig(Record<iav_stream_cfg_t>(argument));
    case IAV_IOC_SET_STREAM_CONFIG: return SetStreamConfig(Record<const iav_stream_cfg_t>(argument));
    case IAV_IOC_QUERY_BUF: return QueryBuf(Record<iav_querybuf_t>(argument));
    case IAV_IOC_QUERY_DESC: {
      auto* query = Record<iav_querydesc_t>(argument);
      if (query->qid == IAV_DESC_FRAME) return QueryFrame(&query->arg.frame);
      if (query->qid == IAV_DESC_ME0) return QueryMe0(fd, &query->arg.me0, lock);
      return -EINVAL;
    }
    default:
      return -ENOTTY;
  }
}

// ---- States ------------------------------------------------------------------------

// mutex_ held.
int VirtualCamera::EnterIdle() {
  if (!ucodeLoaded_) return -ENODEV;
  for (StreamConfig& s : streams_) {
    if (s.encoding) ++s.generation;
    s.encoding = false;
  }
  vinRunning_ = false;
  ClearQueueLocked();
  memset(&me0Latest_, 0, sizeof(me0Latest_));  // the next plane may have another size
  iavState_ = VCAM_IAV_STATE_IDLE;
  changed_.notify_all();
  return 0;
}

int VirtualCamera::EnablePreview() {
  if (!ucodeLoaded_) return -ENODEV;
  if (iavState_ != VCAM_IAV_STATE_IDLE) return -EPERM;
  if (!vinModeSet_ || vinPeriod_ == 0) return -EINVAL;       // no video input programmed
  if (sysres_.exposureNum != vinHdrMode_ + 1) return -EINVAL;  // exposures must match the HDR mode
  vinRunning_ = true;
  vinStartNs_ = NowNsLocked();
  vinNextIndex_ = 1;
  vinFrames_ = 0;
  iavState_ = VCAM_IAV_STATE_PREVIEW;
  changed_.notify_all();
  return 0;
}

int VirtualCamera::StartEncode(uint32_t argument) {
  if (!ucodeLoaded_) return -ENODEV;
  if (iavState_ != VCAM_IAV_STATE_PREVIEW && iavState_ != VCAM_IAV_STATE_ENCODE) return -EPERM;
  int mask = StreamMask(argument);
  if (mask < 0) return mask;
  for (uint32_t id = 0; id < IAV_MAX_ENCODE_STREAMS; ++id) {
    if ((mask & (1 << id)) == 0) continue;
    const StreamConfig& s = streams_[id];
    if (s.encoding) return -EBUSY;
    if (s.format.type != IAV_STREAM_TYPE_H264 && s.format.type != IAV_STREAM_TYPE_MJPEG) return -EINVAL;
    if (!StreamFitsSourceBuffer(s.format)) return -EINVAL;
  }
  for (uint32_t id = 0; id < IAV_MAX_ENCODE_STREAMS; ++id) {
    if ((mask & (1 << id)) == 0) continue;
    StreamConfig& s = streams_[id];
    s.encoding = true;
    ++s.generation;
    s.accumulator = s.fps.denominator - s.fps.numerator;  // the next VIN frame gives a picture
    s.frameNum = 0;
    s.pictures = 0;
    s.bytes = 0;
    s.forceIdr = true;
  }
  lastStartArgument_ = argument;
  iavState_ = VCAM_IAV_STATE_ENCODE;
  changed_.notify_all();
  return 0;
}

int VirtualCamera::StopEncode(uint32_t argument) {
  if (!ucodeLoaded_) return -ENODEV;
  if (iavState_ != VCAM_IAV_STATE_ENCODE) return -EPERM;
  int mask = StreamMask(argument);
  if (mask < 0) return mask;
  bool any = false;
  for (uint32_t id = 0; id < IAV_MAX_ENCODE_STREAMS; ++id) {
    StreamConfig& s = streams_[id];
    if ((mask & (1 << id)) != 0 && s.encoding) {
      s.encoding = false;
      ++s.generation;
    }
    any = any || s.encoding;
  }
  lastStopArgument_ = argument;
  if (!any) iavState_ = VCAM_IAV_STATE_PREVIEW;
  changed_.notify_all();
  return 0;
}

// ---- Video input -----------------------------------------------------------------

int VirtualCamera::VinGetVideoInfo(vindev_video_info_t* info) {
  if (info->vsrcId != 0) return -EINVAL;
  for (const vcam_sensor_mode_t& m : sensorModes_) {
    if (m.mode != info->mode || m.hdrMode != info->hdrMode) continue;
    uint32_t mode = info->mode;
    memset(info, 0, sizeof(*info));
    info->mode = mode;
    info->width = m.width;
    info->height = m.height;
    info->framePeriod = m.framePeriod;
    info->bitsPerPixel = 12;
    info->hdrMode = m.hdrMode;
    info->maxWidth = m.width;
    info->maxHeight = m.height;
    return 0;
  }
  return -EINVAL;
}

int VirtualCamera::VinSetMode(const iav_vin_mode_t* mode) {
  if (iavState_ != VCAM_IAV_STATE_IDLE) return -EPERM;
  if (mode->vsrcId != 0) return -EINVAL;
  for (const vcam_sensor_mode_t& m : sensorModes_) {
    if (m.mode != mode->mode || m.hdrMode != mode->hdrMode) continue;
    vinModeSet_ = true;
    vinMode_ = m.mode;
    vinHdrMode_ = m.hdrMode;
    vinWidth_ = m.width;
    vinHeight_ = m.height;
    memset(&me0Latest_, 0, sizeof(me0Latest_));
    vinModePeriod_ = m.framePeriod;
    vinPeriod_ = m.framePeriod;  // the mode's own rate until VIN_SET_FPS
    return 0;
  }
  return -EINVAL;
}

int VirtualCamera::VinSetFps(const iav_vin_fps_t* fps) {
  if (iavState_ != VCAM_IAV_STATE_IDLE) return -EPERM;
  if (fps->vsrcId != 0 || !vinModeSet_) return -EINVAL;
  // Not faster than the mode, not slower than one frame per second.
  if (fps->framePeriod < vinModePeriod_ || fps->framePeriod > IAV_VIN_CLOCK) return -EINVAL;
  vinPeriod_ = fps->framePeriod;
  return 0;
}

// ---- Source buffers and resources ----------------------------------------------

int VirtualCamera::SetSourceBuffers(const iav_srcbuf_setup_t* setup) {
  if (iavState_ != VCAM_IAV_STATE_IDLE) return -EPERM;
  for (int i = 0; i < IAV_MAX_SOURCE_BUFFERS; ++i) {
    if (setup->type[i] > IAV_SRCBUF_TYPE_ENCODE) return -EINVAL;
    if (setup->type[i] == IAV_SRCBUF_TYPE_OFF) continue;
    if (!ValidSize(setup->size[i].width, setup->size[i].height)) return -EINVAL;
    if (vinModeSet_ && (setup->size[i].width > vinWidth_ || setup->size[i].height > vinHeight_)) return -EINVAL;
    const iav_rect_t& r = setup->input[i];
    if (vinModeSet_ && (r.x + r.width > vinWidth_ || r.y + r.height > vinHeight_)) return -EINVAL;
  }
  srcbuf_ = *setup;
  return 0;
}

int VirtualCamera::SetSystemResource(const iav_system_resource_t* resource) {
  if (iavState_ != VCAM_IAV_STATE_IDLE) return -EPERM;
  if (resource->maxEncodeStreams < 1 || resource->maxEncodeStreams > IAV_MAX_ENCODE_STREAMS) return -EINVAL;
  if (resource->maxSourceBuffers < 1 || resource->maxSourceBuffers > IAV_MAX_SOURCE_BUFFERS) return -EINVAL;
  if (resource->exposureNum < 1 || resource->exposureNum > 4) return -EINVAL;
  for (const iav_stream_limit_t& limit : resource->stream)
    if (limit.maxM > 3 || limit.maxWidth > kMaxWidth || limit.maxHeight > kMaxHeight) return -EINVAL;
  sysres_ = *resource;
  return 0;
}

// mutex_ held.
bool VirtualCamera::StreamFitsSourceBuffer(const iav_stream_format_t& format) const {
  if (format.sourceBuf >= IAV_MAX_SOURCE_BUFFERS) return false;
  if (srcbuf_.type[format.sourceBuf] != IAV_SRCBUF_TYPE_ENCODE) return false;
  const iav_size_t& size = srcbuf_.size[format.sourceBuf];
  return format.offsetX + format.width <= size.width && format.offsetY + format.height <= size.height;
}

// ---- Streams ------------------------------------------------------------------------

int VirtualCamera::GetStreamFormat(iav_stream_format_t* format) {
  if (format->id >= IAV_MAX_ENCODE_STREAMS) return -EINVAL;
  *format = streams_[format->id].format;
  return 0;
}

int VirtualCamera::SetStreamFormat(const iav_stream_format_t* format) {
  if (format->id >= IAV_MAX_ENCODE_STREAMS) return -EINVAL;
  StreamConfig& s = streams_[format->id];
  // While the stream encodes, only its own format again (as a run-time
  // quality change sends it) is taken.
  if (s.encoding) return memcmp(format, &s.format, sizeof(*format)) == 0 ? 0 : -EBUSY;
  if (format->type > IAV_STREAM_TYPE_MJPEG) return -EINVAL;
  if (format->type != IAV_STREAM_TYPE_NONE) {
    if (!ValidSize(format->width, format->height)) return -EINVAL;
    if (!StreamFitsSourceBuffer(*format)) return -EINVAL;
    const iav_stream_limit_t& limit = sysres_.stream[format->id];
    if ((limit.maxWidth != 0 && format->width > limit.maxWidth) ||
        (limit.maxHeight != 0 && format->height > limit.maxHeight))
      return -EINVAL;
  }
  s.format = *format;
  return 0;
}

int VirtualCamera::GetH264Config(iav_h264_config_t* config) {
  if (config->id >= IAV_MAX_ENCODE_STREAMS) return -EINVAL;
  *config = streams_[config->id].h264;
  return 0;
}

int VirtualCamera::SetH264Config(const iav_h264_config_t* config) {
  if (config->id >= IAV_MAX_ENCODE_STREAMS) return -EINVAL;
  StreamConfig& s = streams_[config->id];
  if (s.encoding) return memcmp(config, &s.h264, sizeof(*config)) == 0 ? 0 : -EBUSY;
  uint32_t maxM = sysres_.stream[config->id].maxM != 0 ? sysres_.stream[config->id].maxM : 3;
  if (config->M < 1 || config->M > maxM || config->N < 1 || config->gopModel > 4) return -EINVAL;
  if (config->cabac > 1 || config->audType > 1 || config->lowLatency > 1) return -EINVAL;
  s.h264 = *config;
  return 0;
}

int VirtualCamera::GetStreamConfig(iav_stream_cfg_t* config) {
  if (config->id >= IAV_MAX_ENCODE_STREAMS) return -EINVAL;
  const StreamConfig& s = streams_[config->id];
  memset(&config->arg, 0, sizeof(config->arg));
  switch (config->cid) {
    case IAV_STMCFG_FPS: config->arg.fps = s.fps; return 0;
    case IAV_STMCFG_GOP: config->arg.gop = s.gop; return 0;
    case IAV_STMCFG_BITRATE: config->arg.bitrate = s.bitrate; return 0;
    case IAV_STMCFG_FORCE_IDR: return 0;
    case IAV_STMCFG_MJPEG_QUALITY: config->arg.quality.quality = s.quality; return 0;
    default: return -EINVAL;
  }
}

int VirtualCamera::SetStreamConfig(const iav_stream_cfg_t* config) {
  if (config->id >= IAV_MAX_ENCODE_STREAMS) return -EINVAL;
  StreamConfig& s = streams_[config->id];
  switch (config->cid) {
    case IAV_STMCFG_FPS: {
      const iav_stream_fps_t& fps = config->arg.fps;
      if (fps.denominator < 1 || fps.denominator > 1000 || fps.numerator < 1 || fps.numerator > fps.denominator)
        return -EINVAL;
      s.fps = fps;
      if (s.accumulator >= fps.denominator) s.accumulator = fps.denominator - 1;
      return 0;
    }
    case IAV_STMCFG_GOP:
      if (config->arg.gop.idrInterval < 1 || config->arg.gop.apply > 1) return -EINVAL;
      s.gop = config->arg.gop;
      if (s.gop.apply == 1 && s.encoding) s.forceIdr = true;  // the cadence restarts now
      return 0;
    case IAV_STMCFG_BITRATE: {
      const iav_stream_bitrate_t& b = config->arg.bitrate;
      if (b.targetBitrate == 0 || b.rcMode < 1 || b.rcMode > 4) return -EINVAL;
      if (b.qpMinI > b.qpMaxI || b.qpMinP > b.qpMaxP || b.qpMinB > b.qpMaxB || b.qpMaxI > 51 ||
          b.qpMaxP > 51 || b.qpMaxB > 51)
        return -EINVAL;
      s.bitrate = b;
      return 0;
    }
    case IAV_STMCFG_FORCE_IDR:
      ++s.forcedIdrs;
      s.forceIdr = true;
      return 0;
    case IAV_STMCFG_MJPEG_QUALITY:
      if (config->arg.quality.quality < 1 || config->arg.quality.quality > 100) return -EINVAL;
      s.quality = config->arg.quality.quality;
      return 0;
    default:
      return -EINVAL;
  }
}

// ---- Buffers and descriptors -------------------------------------------------------

int VirtualCamera::QueryBuf(iav_querybuf_t* query) {
  switch (query->buf) {
    case IAV_BUFFER_ME0:
      query->length = kMe0Size;
      query->offset = kMe0Offset;
      return 0;
    case IAV_BUFFER_BSB:
      query->length = static_cast<uint32_t>(bsb_.Size());
      query->offset = kBsbOffset;
      return 0;
    default:
      return -EINVAL;
  }
}

int VirtualCamera::QueryFrame(iav_framedesc_t* desc) {
  if (desc->id != IAV_STREAM_ID_ANY && (desc->id < 0 || desc->id >= IAV_MAX_ENCODE_STREAMS)) return -EINVAL;
  if (!fakeDescriptors_.empty()) {
    *desc = fakeDescriptors_.front();
    fakeDescriptors_.erase(fakeDescriptors_.begin());
    return 0;
  }
  // Taken entries at the front are done with.
  while (queueCount_ > 0 && queue_[queueHead_].taken) {
    queueHead_ = (queueHead_ + 1) % queue_.size();
    --queueCount_;
  }
  for (size_t i = 0; i < queueCount_; ++i) {
    QueuedDescriptor& entry = queue_[(queueHead_ + i) % queue_.size()];
    if (entry.taken || (desc->id != IAV_STREAM_ID_ANY && entry.desc.id != desc->id)) continue;
    entry.taken = true;
    *desc = entry.desc;
    ++picturesRead_;
    return 0;
  }
  return -EAGAIN;
}

// mutex_ held; released while waiting.
int VirtualCamera::QueryMe0(int fd, iav_me0desc_t* desc, std::unique_lock<std::mutex>& lock) {
  const uint64_t epoch = epoch_;
  using Clock = std::chrono::steady_clock;
  // Real time: one VIN frame period; manual clock: the configured limit.
  uint64_t limitUs = 0;
  if (clockMode_ == VCAM_CLOCK_REALTIME)
    limitUs = vinPeriod_ != 0 ? static_cast<uint64_t>(vinPeriod_) * 1000000ull / IAV_VIN_CLOCK : 33334;
  else
    limitUs = static_cast<uint64_t>(manualWaitLimitMs_) * 1000;
  const Clock::time_point deadline = Clock::now() + std::chrono::microseconds(limitUs);
  for (;;) {
    auto it = files_.find(fd);
    if (it == files_.end()) return -EBADF;
    bool fresh = me0Seq_ != 0 && me0Seq_ != it->second.lastMe0Seq;
    bool timedOut = limitUs != 0 && Clock::now() >= deadline;
    if (fresh || timedOut || epoch != epoch_ || stopping_) {
      if (me0Latest_.width == 0) {  // no plane yet: an empty (all zero) one of the VIN's size
        memset(desc, 0, sizeof(*desc));
        Me0Geometry(&desc->width, &desc->height, &desc->pitch);
      } else {
        *desc = me0Latest_;
      }
      it->second.lastMe0Seq = me0Seq_;
      return 0;
    }
    if (limitUs != 0)
      changed_.wait_until(lock, deadline);
    else
      changed_.wait(lock);
  }
}

}  // namespace vesk::virtualcam

// The S2L chip, its video input and the resources reserved before any
// stream is configured: chip row, sensor mode, VIN rate, system resources
// and source buffers.
#include <errno.h>
#include <string.h>

#include <algorithm>
#include <vector>

#include "motiondetectionthread.h"
#include "trackencodervideos2l.h"
#include "vesk/device/device.h"
#include "vesk/device/iav.h"
#include "vesk/variant/camerainfo.h"
#include "vlog.h"

namespace vesk {
namespace encoder {
namespace internal {

namespace {

constexpr uint32_t kSensorModeRuns = 75;       // 0-49, then 131072-131096
constexpr uint32_t kSecondRunStart = 50;
constexpr uint32_t kSecondRunOffset = 131022;  // index = loop count + offset
constexpr uint8_t kHdrValues = 16;
constexpr uint8_t kMaxS2lHdrMode = 1;          // 2X
// The system id whose boards take the vendor flag of the system resources.
constexpr uint32_t kVendorFlagSystemId = 0x2ABC;

const uint32_t kKnownPeriods[] = {512000000, 256000000, 170666667, 128000000, 102400000, 85333333,
                                  51200000,  42666667,  34133333,  25600000,  21333333,  20480000,
                                  17066667,  10240000,  8533333,   4266667};

bool IsKnownPeriod(uint32_t period) {
  for (uint32_t known : kKnownPeriods)
    if (known == period) return true;
  return false;
}

// The best mode first: the wanted HDR mode, then wider, taller, faster.
bool BetterMode(const sensor_mode_t& a, const sensor_mode_t& b, uint8_t wantedHdr) {
  bool aWanted = a.hdrMode == wantedHdr;
  bool bWanted = b.hdrMode == wantedHdr;
  if (aWanted != bWanted) return aWanted;
  if (a.width != b.width) return a.width > b.width;
  if (a.height != b.height) return a.height > b.height;
  return a.framePeriod < b.framePeriod;
}

// Size of one source buffer, its input window the whole VIN picture.
void SetSourceBuffer(iav_srcbuf_setup_t& record, uint32_t id, uint32_t width, uint32_t height) {
  if (id >= IAV_MAX_SOURCE_BUFFERS) return;
  record.size[id].width = width;
  record.size[id].height = height;
  memset(&record.input[id], 0, sizeof(record.input[id]));
  record.type[id] = IAV_SRCBUF_TYPE_ENCODE;
}

}  // namespace

size_t TrackEncoderVideoS2L::EnumerateSensorModes(sensor_mode_t* modes, size_t capacity, uint8_t* maxHdr) {
  size_t count = 0;
  *maxHdr = 0;
  for (uint32_t n = 0; n < kSensorModeRuns; n++) {
    uint32_t index = n < kSecondRunStart ? n : n + kSecondRunOffset;
    for (uint8_t hdr = 0; hdr < kHdrValues; hdr++) {
      vindev_video_info_t info;
      memset(&info, 0, sizeof(info));
      info.mode = index;
      info.hdrMode = hdr;
      if (vdev_ioctl(iavFd_, IAV_IOC_VIN_GET_VIDEOINFO, &info) != 0) continue;
      if (!IsKnownPeriod(info.framePeriod) || count >= capacity) continue;
      modes[count++] = {info.vsrcId, index, info.hdrMode, info.width, info.height, info.framePeriod};
      if (info.hdrMode > *maxHdr) *maxHdr = info.hdrMode;
    }
  }
  return count;
}

uint8_t TrackEncoderVideoS2L::WantedHdrMode(uint8_t sensorMax) {
  uint8_t wanted = settings_.video().hdrMode();
  if (wanted > sensorMax) {
    VLOG_WARN("Maximum supported HDR mode is %u. Requested was %u. Lowering down to %u", sensorMax, wanted,
              sensorMax);
    wanted = sensorMax;
  }
  if (wanted > kMaxS2lHdrMode) {
    VLOG_WARN("S2L and S2Lm does not support 3X HDR and above. Lowering down to 2X");
    wanted = kMaxS2lHdrMode;
  }
  return wanted;
}

bool TrackEncoderVideoS2L::InitializeVideoInputInfo() {
  const chip_t& chip = GetChip();
  VLOG_INFO("%s chip detected capable of %uMbps", chip.name, chip.performance);
  VLOG_INFO("System has following frequencies: cortex: %uMHz; idsp: %uMHz; core: %uMHz; dram: %uMHz",
            chip.cortexMHz, chip.idspMHz, chip.coreMHz, chip.dramMHz);
  vin_.chip = chip;
  chipPerformance_ = chip.performance;

  std::vector<sensor_mode_t> modes(kSensorModeRuns * kHdrValues);
  uint8_t maxHdr = 0;
  modes.resize(EnumerateSensorModes(modes.data(), modes.size(), &maxHdr));
  uint8_t wanted = WantedHdrMode(maxHdr);
  std::stable_sort(modes.begin(), modes.end(),
                   [wanted](const sensor_mode_t& a, const sensor_mode_t& b) { return BetterMode(a, b, wanted); });
  const fps_t* maximum = modes.empty() ? nullptr : fpsMatrix_.ByPeriod(modes[0].framePeriod);
  if (maximum == nullptr) {
    VLOG_ERROR("Unable to properly translate the FPS value");
    return false;
  }
  const sensor_mode_t& best = modes[0];
  vin_.sourceId = best.sourceId;
  vin_.mode = best.mode;
  vin_.hdrMode = best.hdrMode;
  vin_.width = best.width;
  vin_.height = best.height;
  vin_.maxFps = *maximum;
  vinWidth_ = best.width;
  vinHeight_ = best.height;
  hdrModeInForce_ = best.hdrMode;
  return NormalizeVinFps();
}

bool TrackEncoderVideoS2L::NormalizeVinFps() {
  if (vin_.maxFps.rate == 0) {
    VLOG_ERROR("No maximum FPS value detected on VIN");
    return false;
  }
  unsigned int wanted = settings_.video().vinFps();
  if (wanted == 0) wanted = vin_.maxFps.rate;
  unsigned int rate = ComputeFPS(wanted, vin_.maxFps.rate, kVideoClock);
  const fps_t* chosen = fpsMatrix_.ByRate(rate, true);
  if (chosen == nullptr) {
    VLOG_ERROR("Wanted VIN fps not supported");
    return false;
  }
  vin_.chosenFps = *chosen;
  settings_.video()["vinFps"] = (unsigned short)chosen->rate;
  return true;
}

bool TrackEncoderVideoS2L::SetVIN() {
  iav_vin_mode_t mode = {vin_.sourceId, vin_.mode, vin_.hdrMode, 0};
  if (vdev_ioctl(iavFd_, IAV_IOC_VIN_SET_MODE, &mode) != 0) {
    VLOG_ERRNO(VESK_PRIO_ERROR, errno, "IAV_IOC_VIN_SET_MODE failed");
    return false;
  }
  iav_vin_fps_t fps = {vin_.sourceId, vin_.chosenFps.period};
  if (vdev_ioctl(iavFd_, IAV_IOC_VIN_SET_FPS, &fps) != 0) {
    VLOG_ERRNO(VESK_PRIO_ERROR, errno, "IAV_IOC_VIN_SET_FPS failed");
    return false;
  }
  VLOG_INFO("Sensor[%u] setup at %ux%u@%u in HDR mode %u able to encode %uMbps", 0u, vin_.width, vin_.height,
            vin_.chosenFps.rate, (unsigned)vin_.hdrMode, vin_.chip.performance);
  return true;
}

void TrackEncoderVideoS2L::FillStreamLimits(void* record) {
  iav_system_resource_t& resource = *static_cast<iav_system_resource_t*>(record);
  bool lowDelay = settings_.video().lowDelay();
  uint32_t maxM = lowDelay || vin_.hdrMode != 0 ? 1 : 3;
  budget_stream_t list[kMaxConfiguredStreams];
  uint32_t count = GatherEnabledStreams(list);
  memset(resource.stream, 0, sizeof(resource.stream));
  for (uint32_t i = 0; i < count && i < IAV_MAX_ENCODE_STREAMS; i++) {
    iav_stream_limit_t& limit = resource.stream[ComputeStreamId(i)];
    limit.maxWidth = list[i].element->width();
    limit.maxHeight = list[i].element->height();
    limit.maxM = maxM;
    limit.maxN = 0;
  }
}

bool TrackEncoderVideoS2L::SetResourceLimits() {
  iav_system_resource_t resource;
  memset(&resource, 0, sizeof(resource));
  if (vdev_ioctl(iavFd_, IAV_IOC_GET_SYSTEM_RESOURCE, &resource) != 0) {
    VLOG_ERRNO(VESK_PRIO_ERROR, errno, "IAV_IOC_GET_SYSTEM_RESOURCE failed");
    return false;
  }
  resource.maxEncodeStreams = IAV_MAX_ENCODE_STREAMS;
  resource.maxSourceBuffers = 4;
  if (vin_.hdrMode > 3) {
    VLOG_ERROR("Invalid HDR mode detected");
    return false;
  }
  resource.exposureNum = vin_.hdrMode + 1u;
  FillStreamLimits(&resource);
  vesk::variant::CameraInfo info;
  if (!info.Init()) {
    VLOG_ERROR("Unable to initialize camera information");
    return false;
  }
  uint32_t systemId = (uint32_t)(unsigned long long)info.StrictNumeric("sysid");
  resource.systemId = systemId;
  resource.options &= ~(IAV_SYSRES_OPT_ME0_SCALE_MASK | IAV_SYSRES_OPT_VENDOR_FLAG);
  resource.options |= IAV_SYSRES_OPT_ME0_SCALE(MotionDetectionThread::ME0_SCALE);
  if (systemId == kVendorFlagSystemId) resource.options |= IAV_SYSRES_OPT_VENDOR_FLAG;
  if (vdev_ioctl(iavFd_, IAV_IOC_SET_SYSTEM_RESOURCE, &resource) != 0) {
    VLOG_ERRNO(VESK_PRIO_ERROR, errno, "IAV_IOC_SET_SYSTEM_RESOURCE failed");
    return false;
  }
  return true;
}

bool TrackEncoderVideoS2L::SetSourceBuffers() {
  iav_srcbuf_setup_t record;
  memset(&record, 0, sizeof(record));
  if (vdev_ioctl(iavFd_, IAV_IOC_GET_SOURCE_BUFFER_SETUP, &record) != 0) {
    VLOG_ERRNO(VESK_PRIO_ERROR, errno, "IAV_IOC_GET_SOURCE_BUFFER_SETUP failed");
    return false;
  }
  for (uint32_t& type : record.type) type = IAV_SRCBUF_TYPE_OFF;
  VideoEncoderSettings& video = settings_.video();
  BaseVideoEncoderSettings* streams[] = {&video.video1(), &video.video2(), &video.video3(), &video.mjpg()};
  for (BaseVideoEncoderSettings* element : streams) {
    if (!element->enabled()) continue;
    const Variant& sourceId = static_cast<const Variant&>(*element)["sourceId"];
    SetSourceBuffer(record, (unsigned int)sourceId, element->width(), element->height());
  }
  if (vdev_ioctl(iavFd_, IAV_IOC_SET_SOURCE_BUFFER_SETUP, &record) != 0) {
    VLOG_ERRNO(VESK_PRIO_ERROR, errno, "IAV_IOC_SET_SOURCE_BUFFER_SETUP failed");
    return false;
  }
  return true;
}

}  // namespace internal
}  // namespace encoder
}  // namespace vesk

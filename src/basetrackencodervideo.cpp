#include "basetrackencodervideo.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/mman.h>

#include <cmath>

#include "vesk/device/device.h"
#include "vesk/device/iav.h"
#include "vesk/ipc/ipc.h"
#include "vlog.h"

namespace vesk {
namespace encoder {
namespace internal {

BaseTrackEncoderVideo::BaseTrackEncoderVideo(EncoderSettings& settings)
    : BaseTrackEncoder(settings),
      ucodeFd_(-1),
      iavFd_(-1),
      ringBase_(nullptr),
      ringSize_(0),
      vinWidth_(0),
      vinHeight_(0),
      hdrModeInForce_(0),
      chipPerformance_(0) {
  for (frame_slot_t& slot : frames_) slot = frame_slot_t();
  memset(streams_, 0, sizeof(streams_));
  memset(fixes_, 0, sizeof(fixes_));
}

BaseTrackEncoderVideo::~BaseTrackEncoderVideo() { Close(); }

void BaseTrackEncoderVideo::Close() {
  if (ringBase_ != nullptr) vdev_munmap(ringBase_, ringSize_);
  if (iavFd_ >= 0) vdev_close(iavFd_);
  iavFd_ = -1;
  if (ucodeFd_ >= 0) vdev_close(ucodeFd_);
  ucodeFd_ = -1;
  ringBase_ = nullptr;
  ringSize_ = 0;
  for (frame_slot_t& slot : frames_) slot = frame_slot_t();
  memset(streams_, 0, sizeof(streams_));
  memset(fixes_, 0, sizeof(fixes_));
  vinWidth_ = 0;
  vinHeight_ = 0;
  hdrModeInForce_ = 0;
  chipPerformance_ = 0;
}

bool BaseTrackEncoderVideo::Initialize() {
  Close();
  if (!InitializeIpcMessages()) return false;
  if (!LoadUCode()) return false;
  if (!OpenIAV()) return false;
  if (!EnterIdle()) return false;
  if (!PreProcessSettings()) return false;
  if (!InitializeVideoInputInfo()) return false;
  if (!ProcessSettings()) return false;
  if (!SetVIN()) return false;
  if (!SetResourceLimits()) return false;
  if (!SetSourceBuffers()) return false;
  if (!SetEncodings()) return false;
  if (!InitializeFramesMemory()) return false;
  return EnterPreview();
}

bool BaseTrackEncoderVideo::InitializeIpcMessages() {
  eventEnterIdle_["functionName"] = "EventIavStateEnterIdle";
  eventEnterIdle_["responseExpected"] = false;
  eventEnterPreview_["functionName"] = "EventIavStateEnterPreview";
  eventEnterPreview_["responseExpected"] = false;
  eventEnterEncode_["functionName"] = "EventIavStateEnterEncode";
  eventEnterEncode_["responseExpected"] = false;
  eventExitEncode_["functionName"] = "EventIavStateExitEncode";
  eventExitEncode_["responseExpected"] = false;
  return true;
}

bool BaseTrackEncoderVideo::OpenIAV() {
  iavFd_ = vdev_open(VDEV_PATH_IAV, O_RDWR);
  if (iavFd_ < 0) {
    VLOG_ERRNO(VESK_PRIO_ERROR, errno, "Opening IAV failed");
    return false;
  }
  return true;
}

bool BaseTrackEncoderVideo::EnterIdle() {
  if (vdev_ioctl(iavFd_, IAV_IOC_ENTER_IDLE, 0ul) != 0) {
    VLOG_ERRNO(VESK_PRIO_ERROR, errno, "IAV_IOC_ENTER_IDLE failed");
    return false;
  }
  vesk::ipc::Ipc::GetInstance().BroadcastRequest(eventEnterIdle_);
  return true;
}

bool BaseTrackEncoderVideo::StartEncoding() {
  if (!StartStopEncoding(true)) return false;
  vesk::ipc::Ipc::GetInstance().BroadcastRequest(eventEnterEncode_);
  return true;
}

bool BaseTrackEncoderVideo::StopEncoding() {
  if (!StartStopEncoding(false)) return false;
  vesk::ipc::Ipc::GetInstance().BroadcastRequest(eventExitEncode_);
  return true;
}

bool BaseTrackEncoderVideo::ReadUCodeVersion(void* version) {
  memset(version, 0, sizeof(iav_ucode_version_t));
  if (vdev_ioctl(ucodeFd_, IAV_IOC_GET_UCODE_VERSION, version) != 0) {
    VLOG_ERRNO(VESK_PRIO_ERROR, errno, "IAV_IOC_GET_UCODE_VERSION failed");
    return false;
  }
  return true;
}

static void LogUCodeVersion(const iav_ucode_version_t& v) {
  VLOG_INFO("Microcode version %d.%d - %d/%d/%d", (int)v.editionNum, (int)v.editionVer, (int)v.day,
            (int)v.month, (int)v.year);
}

bool BaseTrackEncoderVideo::LoadUCode() {
  if (ucodeFd_ >= 0) vdev_close(ucodeFd_);
  ucodeFd_ = vdev_open(VDEV_PATH_UCODE, O_RDONLY);
  if (ucodeFd_ < 0) {
    VLOG_ERRNO(VESK_PRIO_ERROR, errno, "Opening ucode failed");
    return false;
  }
  iav_ucode_version_t version;
  if (!ReadUCodeVersion(&version)) return false;
  if (version.editionNum == 0 && version.editionVer == 0) return ReloadUCode();
  LogUCodeVersion(version);
  vdev_close(ucodeFd_);
  ucodeFd_ = -1;
  return true;
}

// No microcode runs: copy its items into /dev/ucode and start it. On failure
// the descriptor stays open until the next Close.
bool BaseTrackEncoderVideo::ReloadUCode() {
  vdev_close(ucodeFd_);
  ucodeFd_ = vdev_open(VDEV_PATH_UCODE, O_RDWR);
  if (ucodeFd_ < 0) {
    VLOG_ERRNO(VESK_PRIO_ERROR, errno, "Opening ucode failed");
    return false;
  }
  iav_ucode_load_t load;
  memset(&load, 0, sizeof(load));
  if (vdev_ioctl(ucodeFd_, IAV_IOC_GET_UCODE_INFO, &load) != 0) {
    VLOG_ERRNO(VESK_PRIO_ERROR, errno, "IAV_IOC_GET_UCODE_INFO failed");
    return false;
  }
  void* region = vdev_mmap(nullptr, load.mapSize, PROT_READ | PROT_WRITE, MAP_SHARED, ucodeFd_, 0);
  if (region == MAP_FAILED) {
    VLOG_ERRNO(VESK_PRIO_ERROR, errno, "Unable to mmap /dev/ucode");
    return false;
  }
  bool loaded = LoadUCodeItems(static_cast<uint8_t*>(region), &load);
  vdev_munmap(region, load.mapSize);
  if (!loaded) return false;
  if (vdev_ioctl(ucodeFd_, IAV_IOC_UPDATE_UCODE, 0ul) != 0) {
    VLOG_ERRNO(VESK_PRIO_ERROR, errno, "IAV_IOC_UPDATE_UCODE failed");
    return false;
  }
  iav_ucode_version_t version;
  if (!ReadUCodeVersion(&version)) return false;
  if (version.editionNum == 0 && version.editionVer == 0) {
    VLOG_ERROR("Loading microcode failed");
    return false;
  }
  LogUCodeVersion(version);
  vdev_close(ucodeFd_);
  ucodeFd_ = -1;
  return true;
}

// Copies every item's file into the mapped region at its offset.
bool BaseTrackEncoderVideo::LoadUCodeItems(uint8_t* region, const void* loadRecord) {
  const iav_ucode_load_t& load = *static_cast<const iav_ucode_load_t*>(loadRecord);
  std::string base = settings_.firmwarePath();
  int32_t items = load.itemCount < 0 ? 0 : load.itemCount;
  if (items > (int32_t)IAV_UCODE_MAX_ITEMS) items = IAV_UCODE_MAX_ITEMS;
  for (int32_t i = 0; i < items; i++) {
    const iav_ucode_item_t& item = load.items[i];
    char name[IAV_UCODE_NAME_LENGTH + 1];
    memcpy(name, item.fileName, IAV_UCODE_NAME_LENGTH);
    name[IAV_UCODE_NAME_LENGTH] = 0;
    std::string path = base + name;
    VLOG_INFO("Loading DSP ucode %s", path.c_str());
    FILE* file = fopen(path.c_str(), "rb");
    if (file == nullptr) return false;
    fseek(file, 0, SEEK_END);
    long size = ftell(file);
    fseek(file, 0, SEEK_SET);
    bool fits = size >= 0 && (uint64_t)item.offset + (uint64_t)size <= load.mapSize;
    size_t read = fits ? fread(region + item.offset, 1, (size_t)size, file) : 0;
    fclose(file);
    if (!fits || read != (size_t)size) return false;
  }
  return true;
}

unsigned int BaseTrackEncoderVideo::ComputeFPS(unsigned int wanted, unsigned int maximum,
                                               unsigned int base) {
  unsigned int result = 1;
  if (wanted != 0 && maximum != 0) {
    unsigned int r = wanted < maximum ? wanted : maximum;
    while (r > 1 && base % r != 0) r--;
    result = r;
  }
  if (result != wanted)
    VLOG_WARN("FPS value corrected. Max FPS: %u; Wanted FPS: %u; Correct FPS: %u", maximum, wanted,
              result);
  return result;
}

bool BaseTrackEncoderVideo::ForceIDR() {
  VideoEncoderSettings& video = settings_.video();
  if (video.video1().enabled() && !ForceIDR(video.video1())) return false;
  if (video.video2().enabled() && !ForceIDR(video.video2())) return false;
  if (video.video3().enabled()) return ForceIDR(video.video3());
  return true;
}

}  // namespace internal
}  // namespace encoder
}  // namespace vesk

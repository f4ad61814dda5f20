// The virtual camera's device state: descriptors, mappings, timer files,
// control and reset.
#include "camera.h"

#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/eventfd.h>
#include <sys/mman.h>
#include <time.h>
#include <unistd.h>

#include "vesk/device/device.h"

namespace vesk::virtualcam {
namespace {

const vcam_sensor_mode_t kDefaultModes[] = {
    {0, 0, 1920, 1080, 17066667},       // 1080p30
    {1, 0, 1920, 1080, 8533333},        // 1080p60
    {2, 1, 1920, 1080, 17066667},       // 1080p30, HDR 2X
    {3, 0, 1280, 720, 8533333},         // 720p60
    {131072, 0, 2592, 1944, 17083750},  // 29.97: no frame-rate table holds this period
};

uint64_t MonotonicNs() {
  struct timespec now;
  clock_gettime(CLOCK_MONOTONIC, &now);
  return static_cast<uint64_t>(now.tv_sec) * 1000000000ull + static_cast<uint64_t>(now.tv_nsec);
}

// Stops the real-time thread when the process ends.
VirtualCamera* gInstance = nullptr;
struct InstanceGuard {
  ~InstanceGuard() {
    if (gInstance != nullptr) gInstance->StopRealTime();
  }
} gGuard;

}  // namespace

VirtualCamera& VirtualCamera::Instance() {
  static VirtualCamera* camera = [] {
    gInstance = new VirtualCamera();
    return gInstance;
  }();
  return *camera;
}

VirtualCamera::VirtualCamera() {
  monotonicBaseNs_ = MonotonicNs();
  ucode_.Create("vcam-ucode", kUcodeSize);
  me0_.Create("vcam-me0", kMe0Size);
  bsb_.Create("vcam-bsb", VCAM_DEFAULT_BITSTREAM_SIZE);
  {
    std::lock_guard<std::mutex> lock(mutex_);
    ResetLocked();
  }
  realTime_ = std::thread([this] { RealTimeLoop(); });
}

VirtualCamera::~VirtualCamera() { StopRealTime(); }

void VirtualCamera::StopRealTime() {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    stopping_ = true;
    ++epoch_;
  }
  changed_.notify_all();
  if (realTime_.joinable()) realTime_.join();
}

// ---- Descriptors ----------------------------------------------------------

int VirtualCamera::Open(const char* path, int flags) {
  DeviceKind kind = strcmp(path, VDEV_PATH_UCODE) == 0 ? DeviceKind::kUcode : DeviceKind::kIav;
  std::lock_guard<std::mutex> lock(mutex_);
  int err = 0;
  if (TakeFault(kind == DeviceKind::kIav ? VCAM_OP_OPEN_IAV : VCAM_OP_OPEN_UCODE, &err)) {
    errno = err;
    return -1;
  }
  int fd = eventfd(0, EFD_CLOEXEC);
  if (fd < 0) return -1;
  OpenFile file;
  file.kind = kind;
  file.accessMode = flags & O_ACCMODE;
  file.lastMe0Seq = 0;
  files_[fd] = file;
  return fd;
}

bool VirtualCamera::Owns(int fd) {
  std::lock_guard<std::mutex> lock(mutex_);
  return files_.count(fd) != 0;
}

int VirtualCamera::Close(int fd) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (files_.erase(fd) == 0) {
      errno = EBADF;
      return -1;
    }
  }
  changed_.notify_all();  // a thread waiting on this descriptor gives up
  return close(fd);
}

void* VirtualCamera::Mmap(size_t length, int prot, int flags, int fd, off_t offset) {
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = files_.find(fd);
  if (it == files_.end()) {
    errno = EBADF;
    return MAP_FAILED;
  }
  int err = 0;
  if (TakeFault(VCAM_OP_MMAP, &err)) {
    errno = err;
    return MAP_FAILED;
  }
  if ((flags & MAP_SHARED) == 0) {
    errno = EINVAL;
    return MAP_FAILED;
  }
  if (it->second.kind == DeviceKind::kUcode) {
    if (offset != 0 || length > ucode_.Size()) {
      errno = EINVAL;
      return MAP_FAILED;
    }
    if ((prot & PROT_WRITE) != 0 && it->second.accessMode != O_RDWR) {
      errno = EACCES;
      return MAP_FAILED;
    }
    return ucode_.MapForClient(length, prot);
  }
  if ((prot & PROT_WRITE) != 0) {  // the DSP's buffers are read-only to user space
    errno = EACCES;
    return MAP_FAILED;
  }
  if (offset == static_cast<off_t>(kBsbOffset)) return bsb_.MapForClient(length, prot);
  if (offset == static_cast<off_t>(kMe0Offset)) return me0_.MapForClient(length, prot);
  errno = EINVAL;
  return MAP_FAILED;
}

FILE* VirtualCamera::OpenTimerFile(const char* path) {
  bool frequency = strcmp(path, VDEV_PATH_HWTIMER_OUTFREQ) == 0;
  bool empty = false;
  uint64_t ticks = 0;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    int err = 0;
    if (TakeFault(VCAM_OP_OPEN_HWTIMER, &err)) {
      errno = err;
      return nullptr;
    }
    empty = TakeFault(VCAM_OP_READ_HWTIMER, &err);
    ticks = TicksAtNs(NowNsLocked());
  }
  FILE* file = fmemopen(nullptr, 64, "w+");
  if (file == nullptr) return nullptr;
  if (!empty) {
    if (frequency)
      fprintf(file, "%u\n", VCAM_TIMER_FREQUENCY);
    else
      fprintf(file, "%llu\n", static_cast<unsigned long long>(ticks));
  }
  rewind(file);
  return file;
}

// ---- Faults ----------------------------------------------------------------

// mutex_ held.
bool VirtualCamera::TakeFault(unsigned long request, int* err) {
  auto it = faults_.find(request);
  if (it == faults_.end()) return false;
  *err = it->second.err;
  if (it->second.count > 0 && --it->second.count == 0) faults_.erase(it);
  return true;
}

void VirtualCamera::FaultRequest(unsigned long request, int err, int count) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (count == 0) {
    faults_.erase(request);
    return;
  }
  faults_[request] = Fault{err, count < 0 ? -1 : count};
}

void VirtualCamera::FaultDescriptor(int32_t streamId, uint32_t picType) {
  std::lock_guard<std::mutex> lock(mutex_);
  if (fakeDescriptors_.size() >= 16) return;
  iav_framedesc_t desc = lastWritten_;
  desc.id = streamId;
  desc.picType = picType;
  fakeDescriptors_.push_back(desc);
}

void VirtualCamera::FaultCorruptNal(uint32_t count) {
  std::lock_guard<std::mutex> lock(mutex_);
  corruptNal_ = count;
}

void VirtualCamera::ClearFaults() {
  std::lock_guard<std::mutex> lock(mutex_);
  faults_.clear();
  fakeDescriptors_.clear();
  corruptNal_ = 0;
}

// ---- Reset and configuration ---------------------------------------------------

void VirtualCamera::Reset() {
  std::lock_guard<std::mutex> production(production_);
  {
    std::lock_guard<std::mutex> lock(mutex_);
    ResetLocked();
  }
  for (StreamEncoder& encoder : encoders_) {
    encoder.h264.Close();
    encoder.jpeg.Close();
    encoder.generation = 0;
    encoder.type = IAV_STREAM_TYPE_NONE;
  }
  changed_.notify_all();
}

// mutex_ held (and production_ when the ring is replaced).
void VirtualCamera::ResetLocked() {
  ++epoch_;
  chipId_ = VCAM_DEFAULT_CHIP_ID;
  sensorModes_.assign(std::begin(kDefaultModes), std::end(kDefaultModes));
  scene_ = VCAM_SCENE_MOVING;
  ucodeLoaded_ = true;
  ucode_.Clear();
  replay_ = false;
  if (clockMode_ == VCAM_CLOCK_MANUAL) {
    clockMode_ = VCAM_CLOCK_REALTIME;
    AnchorLocked(manualNowNs_);
  }
  if (ratePpm_ != 0) {
    AnchorLocked(NowNsLocked());
    ratePpm_ = 0;
  }
  manualWaitLimitMs_ = 200;
  iavState_ = VCAM_IAV_STATE_IDLE;
  vinModeSet_ = false;
  vinMode_ = vinHdrMode_ = vinWidth_ = vinHeight_ = vinModePeriod_ = vinPeriod_ = 0;
  vinRunning_ = false;
  vinFrames_ = vinFramesLate_ = 0;
  memset(&srcbuf_, 0, sizeof(srcbuf_));
  srcbuf_.size[0] = iav_size_t{1920, 1080};
  srcbuf_.type[0] = IAV_SRCBUF_TYPE_ENCODE;
  memset(&sysres_, 0, sizeof(sysres_));
  sysres_.maxEncodeStreams = IAV_MAX_ENCODE_STREAMS;
  sysres_.maxSourceBuffers = 4;
  sysres_.exposureNum = 1;
  for (uint32_t id = 0; id < IAV_MAX_ENCODE_STREAMS; ++id) {
    StreamConfig& s = streams_[id];
    uint32_t generation = s.generation;
    s = StreamConfig();
    s.generation = generation + 1;
    s.format.id = id;
    s.h264.id = id;
    s.h264.M = 1;
    s.h264.N = 30;
    s.h264.cabac = 1;
    s.h264.audType = 1;
    s.fps = iav_stream_fps_t{1, 1};
    s.gop = iav_stream_gop_t{30, 1};
    s.bitrate.targetBitrate = 4000000;
    s.bitrate.rcMode = IAV_BRC_MODE_VBR;
    s.bitrate.vbrLevel = 4;
    s.bitrate.qpMinI = s.bitrate.qpMinP = s.bitrate.qpMinB = 1;
    s.bitrate.qpMaxI = s.bitrate.qpMaxP = s.bitrate.qpMaxB = 51;
    s.quality = 50;
  }
  lastStartArgument_ = lastStopArgument_ = 0;
  requestCounts_.clear();
  if (bsb_.Size() != VCAM_DEFAULT_BITSTREAM_SIZE) bsb_.Create("vcam-bsb", VCAM_DEFAULT_BITSTREAM_SIZE);
  queueDepth_ = VCAM_DEFAULT_QUEUE_DEPTH;
  ClearQueueLocked();
  ringWrite_ = 0;
  picturesWritten_ = picturesLost_ = picturesRead_ = 0;
  memset(&lastWritten_, 0, sizeof(lastWritten_));
  me0_.Clear();
  memset(&me0Latest_, 0, sizeof(me0Latest_));
  faults_.clear();
  fakeDescriptors_.clear();
  corruptNal_ = 0;
}

// mutex_ held.
void VirtualCamera::ClearQueueLocked() {
  queue_.assign(queueDepth_, QueuedDescriptor());
  queueHead_ = 0;
  queueCount_ = 0;
}

void VirtualCamera::SetChipId(int32_t chipId) {
  std::lock_guard<std::mutex> lock(mutex_);
  chipId_ = chipId;
}

bool VirtualCamera::SetSensorModes(const vcam_sensor_mode_t* modes, size_t count) {
  if (count > VCAM_MAX_SENSOR_MODES || (count > 0 && modes == nullptr)) return false;
  std::lock_guard<std::mutex> lock(mutex_);
  sensorModes_.assign(modes, modes + count);
  return true;
}

size_t VirtualCamera::GetSensorModes(vcam_sensor_mode_t* modes, size_t capacity) {
  std::lock_guard<std::mutex> lock(mutex_);
  size_t n = sensorModes_.size() < capacity ? sensorModes_.size() : capacity;
  for (size_t i = 0; i < n; ++i) modes[i] = sensorModes_[i];
  return sensorModes_.size();
}

void VirtualCamera::SetScene(vcam_scene_t scene) {
  std::lock_guard<std::mutex> lock(mutex_);
  scene_ = scene;
}

void VirtualCamera::SetUcodeLoaded(bool loaded) {
  std::lock_guard<std::mutex> lock(mutex_);
  ucodeLoaded_ = loaded;
  if (!loaded) ucode_.Clear();
}

bool VirtualCamera::UcodeLoaded() {
  std::lock_guard<std::mutex> lock(mutex_);
  return ucodeLoaded_;
}

bool VirtualCamera::SetBitstreamSize(uint32_t bytes) {
  if (bytes < 65536 || bytes % 4096 != 0) return false;
  std::lock_guard<std::mutex> production(production_);
  std::lock_guard<std::mutex> lock(mutex_);
  if (!bsb_.Create("vcam-bsb", bytes)) return false;
  ClearQueueLocked();
  ringWrite_ = 0;
  return true;
}

bool VirtualCamera::SetQueueDepth(uint32_t depth) {
  if (depth < 1 || depth > 4096) return false;
  std::lock_guard<std::mutex> lock(mutex_);
  queueDepth_ = depth;
  ClearQueueLocked();
  return true;
}

void VirtualCamera::SetClockMode(vcam_clock_mode_t mode) {
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (mode == clockMode_) return;
    uint64_t now = NowNsLocked();
    if (mode == VCAM_CLOCK_MANUAL) {
      manualNowNs_ = now;
    } else {
      AnchorLocked(now);
    }
    clockMode_ = mode;
  }
  changed_.notify_all();
}

void VirtualCamera::SetManualWaitLimit(uint32_t milliseconds) {
  std::lock_guard<std::mutex> lock(mutex_);
  manualWaitLimitMs_ = milliseconds;
}

void VirtualCamera::SetReplay(bool enabled) {
  std::lock_guard<std::mutex> lock(mutex_);
  replay_ = enabled;
}

uint64_t VirtualCamera::TimerTicks() {
  std::lock_guard<std::mutex> lock(mutex_);
  return TicksAtNs(NowNsLocked());
}

// mutex_ held.
bool VirtualCamera::SetClockRatePpm(int32_t ppm) {
  if (ppm < -VCAM_CLOCK_RATE_LIMIT_PPM || ppm > VCAM_CLOCK_RATE_LIMIT_PPM) return false;
  {
    std::lock_guard<std::mutex> lock(mutex_);
    if (clockMode_ == VCAM_CLOCK_REALTIME) AnchorLocked(NowNsLocked());
    ratePpm_ = ppm;
  }
  changed_.notify_all();
  return true;
}

// mutex_ held. The camera's time continues from cameraNs at the real time now.
void VirtualCamera::AnchorLocked(uint64_t cameraNs) {
  anchorRealNs_ = MonotonicNs() - monotonicBaseNs_;
  anchorCamNs_ = cameraNs;
}

// mutex_ held.
uint64_t VirtualCamera::NowNsLocked() const {
  if (clockMode_ == VCAM_CLOCK_MANUAL) return manualNowNs_;
  uint64_t real = MonotonicNs() - monotonicBaseNs_ - anchorRealNs_;
  return anchorCamNs_ + static_cast<uint64_t>(static_cast<unsigned __int128>(real) *
                                              static_cast<uint64_t>(1000000 + ratePpm_) / 1000000u);
}

// mutex_ held. Real time until the camera's clock reaches cameraNs (0 when it has).
uint64_t VirtualCamera::RealNsUntilLocked(uint64_t cameraNs) const {
  uint64_t now = NowNsLocked();
  if (cameraNs <= now) return 0;
  return static_cast<uint64_t>(static_cast<unsigned __int128>(cameraNs - now) * 1000000u /
                               static_cast<uint64_t>(1000000 + ratePpm_)) + 1;
}

uint64_t VirtualCamera::TicksAtNs(uint64_t ns) const {
  return kTimerStartTicks + static_cast<uint64_t>(static_cast<unsigned __int128>(ns) * VCAM_TIMER_FREQUENCY /
                                                  1000000000u);
}

// ---- Status -----------------------------------------------------------------

void VirtualCamera::GetStatus(vcam_status_t* status) {
  std::lock_guard<std::mutex> lock(mutex_);
  memset(status, 0, sizeof(*status));
  status->iavState = iavState_;
  status->ucodeLoaded = ucodeLoaded_ ? 1 : 0;
  status->vinMode = vinMode_;
  status->vinHdrMode = vinHdrMode_;
  status->vinFramePeriod = vinPeriod_;
  status->vinWidth = vinWidth_;
  status->vinHeight = vinHeight_;
  for (uint32_t id = 0; id < IAV_MAX_ENCODE_STREAMS; ++id)
    if (streams_[id].encoding) status->encodeMask |= 1u << id;
  status->lastStartArgument = lastStartArgument_;
  status->lastStopArgument = lastStopArgument_;
  status->vinFrames = vinFrames_;
  status->vinFramesLate = vinFramesLate_;
  status->picturesWritten = picturesWritten_;
  status->picturesLost = picturesLost_;
  status->picturesRead = picturesRead_;
}

bool VirtualCamera::GetStreamStatus(uint32_t id, vcam_stream_status_t* status) {
  if (id >= IAV_MAX_ENCODE_STREAMS) return false;
  std::lock_guard<std::mutex> lock(mutex_);
  const StreamConfig& s = streams_[id];
  memset(status, 0, sizeof(*status));
  status->encoding = s.encoding ? 1 : 0;
  status->type = s.format.type;
  status->sourceBuf = s.format.sourceBuf;
  status->width = s.format.width;
  status->height = s.format.height;
  status->M = s.h264.M;
  status->N = s.h264.N;
  status->gopModel = s.h264.gopModel;
  status->fpsNumerator = s.fps.numerator;
  status->fpsDenominator = s.fps.denominator;
  status->idrInterval = s.gop.idrInterval;
  status->rcMode = s.bitrate.rcMode;
  status->targetBitrate = s.bitrate.targetBitrate;
  status->quality = s.quality;
  status->forcedIdrs = s.forcedIdrs;
  status->pictures = s.pictures;
  status->bytes = s.bytes;
  return true;
}

uint32_t VirtualCamera::RequestCount(unsigned long request) {
  std::lock_guard<std::mutex> lock(mutex_);
  auto it = requestCounts_.find(request);
  return it == requestCounts_.end() ? 0 : it->second;
}

void VirtualCamera::GetSystemResource(iav_system_resource_t* record) {
  std::lock_guard<std::mutex> lock(mutex_);
  *record = sysres_;
}

void VirtualCamera::GetSourceBuffers(iav_srcbuf_setup_t* record) {
  std::lock_guard<std::mutex> lock(mutex_);
  *record = srcbuf_;
}

}  // namespace vesk::virtualcam

// The virtual camera's one device state: the emulated IAV driver (states,
// configuration, bitstream ring, descriptor queue, motion statistics), its
// clock, and the production of the pictures.
//
// Locks: `production_` serialises producing VIN frames (it is held while
// pictures are encoded); `mutex_` guards everything else and is held only
// briefly. Order: production_ before mutex_. Requests take mutex_ only.
#ifndef VESK_VIRTUALCAM_CAMERA_H
#define VESK_VIRTUALCAM_CAMERA_H

#include <stdint.h>

#include <array>
#include <condition_variable>
#include <map>
#include <mutex>
#include <thread>
#include <vector>

#include "h264encoder.h"
#include "jpegencoder.h"
#include "mirror.h"
#include "scene.h"
#include "vesk/device/iav.h"
#include "vesk/virtualcam/virtualcam.h"

namespace vesk::virtualcam {

constexpr uint32_t kBsbOffset = 0;                // mmap offset of the bitstream ring
constexpr uint32_t kMe0Offset = 0x10000000;       // mmap offset of the statistics buffer
constexpr uint32_t kMe0Size = 256 * 1024;         // two planes of at most half of it
constexpr uint32_t kUcodeSize = 64 * 1024;        // the mapped /dev/ucode region
constexpr uint64_t kTimerStartTicks = 1000ull * VCAM_TIMER_FREQUENCY;  // timer at "boot"

enum class DeviceKind { kIav, kUcode };

struct OpenFile {
  DeviceKind kind = DeviceKind::kIav;
  int accessMode = 0;        // O_RDONLY / O_WRONLY / O_RDWR
  uint32_t lastMe0Seq = 0;   // the last statistics plane this descriptor was given
};

// One queued picture.
struct QueuedDescriptor {
  iav_framedesc_t desc = {};
  uint64_t ringStart = 0;    // monotonic byte position of its data
  bool taken = false;
};

// Configuration of one encode stream (guarded by mutex_).
struct StreamConfig {
  iav_stream_format_t format = {};
  iav_h264_config_t h264 = {};
  iav_stream_fps_t fps = {};
  iav_stream_gop_t gop = {};
  iav_stream_bitrate_t bitrate = {};
  uint32_t quality = 0;
  bool encoding = false;
  uint32_t generation = 0;   // bumped at every start: the producer reopens its encoder
  bool forceIdr = false;     // consumed by the producer
  uint32_t accumulator = 0;  // frame-rate factor phase
  uint32_t frameNum = 0;
  uint32_t forcedIdrs = 0;
  uint64_t pictures = 0;
  uint64_t bytes = 0;
};

// A stored picture for replay.
struct ReplayPicture {
  size_t offset = 0;
  size_t size = 0;
  int type = 0;
};

// The producer's side of one stream (guarded by production_).
struct StreamEncoder {
  uint32_t generation = 0;
  uint32_t type = IAV_STREAM_TYPE_NONE;
  H264Encoder h264;
  JpegEncoder jpeg;
  SceneRenderer renderer;
  uint32_t fpsNumerator = 0;
  uint32_t sinceIdr = 0;     // pictures since the last IDR
  bool replay = false;
  std::vector<uint8_t> replayData;
  std::vector<ReplayPicture> replayPictures;
  size_t replayNext = 0;
};

// What the producer copies out of a StreamConfig for one picture.
struct PictureJob {
  uint32_t id = 0;
  StreamConfig config;
  bool forceIdr = false;
  uint32_t vinRate = 0;  // VIN frames per second
  bool replay = false;
};

// Bytes of one picture to write into the ring, in order, each NAL unit
// behind a 4-byte start code when `startCode` is set.
struct Segment {
  const uint8_t* data = nullptr;
  size_t size = 0;
  bool startCode = false;
};

class VirtualCamera {
 public:
  static VirtualCamera& Instance();
  ~VirtualCamera();
  // Ends the real-time production thread (at process exit).
  void StopRealTime();

  // Device entry points (backend.h).
  int Open(const char* path, int flags);
  bool Owns(int fd);
  int Close(int fd);
  int Ioctl(int fd, unsigned long request, unsigned long argument);
  void* Mmap(size_t length, int prot, int flags, int fd, off_t offset);
  FILE* OpenTimerFile(const char* path);

  // Control (virtualcam.h).
  void Reset();
  void SetChipId(int32_t chipId);
  bool SetSensorModes(const vcam_sensor_mode_t* modes, size_t count);
  size_t GetSensorModes(vcam_sensor_mode_t* modes, size_t capacity);
  void SetScene(vcam_scene_t scene);
  void SetUcodeLoaded(bool loaded);
  bool UcodeLoaded();
  bool SetBitstreamSize(uint32_t bytes);
  bool SetQueueDepth(uint32_t depth);
  void SetClockMode(vcam_clock_mode_t mode);
  bool SetClockRatePpm(int32_t ppm);
  void Advance(uint64_t microseconds);
  uint64_t TimerTicks();
  void SetManualWaitLimit(uint32_t milliseconds);
  void SetReplay(bool enabled);
  void FaultRequest(unsigned long request, int err, int count);
  void FaultDescriptor(int32_t streamId, uint32_t picType);
  void FaultCorruptNal(uint32_t count);
  void ClearFaults();
  void GetStatus(vcam_status_t* status);
  bool GetStreamStatus(uint32_t id, vcam_stream_status_t* status);
  uint32_t RequestCount(unsigned long request);
  void GetSystemResource(iav_system_resource_t* record);
  void GetSourceBuffers(iav_srcbuf_setup_t* record);

 private:
  VirtualCamera();

  // Requests (driver.cpp); mutex_ held.
  int HandleIav(int fd, OpenFile& file, unsigned long request, unsigned long argument,
                std::unique_lock<std::mutex>& lock);
  int HandleUcode(OpenFile& file, unsigned long request, unsigned long argument);
  int EnterIdle();
  int EnablePreview();
  int StartEncode(uint32_t argument);
  int StopEncode(uint32_t argument);
  int VinGetVideoInfo(vindev_video_info_t* info);
  int VinSetMode(const iav_vin_mode_t* mode);
  int VinSetFps(const iav_vin_fps_t* fps);
  int SetSourceBuffers(const iav_srcbuf_setup_t* setup);
  int SetSystemResource(const iav_system_resource_t* resource);
  int GetStreamFormat(iav_stream_format_t* format);
  int SetStreamFormat(const iav_stream_format_t* format);
  int GetH264Config(iav_h264_config_t* config);
  int SetH264Config(const iav_h264_config_t* config);
  int GetStreamConfig(iav_stream_cfg_t* config);
  int SetStreamConfig(const iav_stream_cfg_t* config);
  int QueryBuf(iav_querybuf_t* query);
  int QueryFrame(iav_framedesc_t* desc);
  int QueryMe0(int fd, iav_me0desc_t* desc, std::unique_lock<std::mutex>& lock);
  int UpdateUcode();
  bool StreamFitsSourceBuffer(const iav_stream_format_t& format) const;
  bool TakeFault(unsigned long request, int* err);
  void ResetLocked();
  void ClearQueueLocked();

  // Clock (production.cpp); mutex_ held.
  uint64_t NowNsLocked() const;
  uint64_t RealNsUntilLocked(uint64_t cameraNs) const;
  void AnchorLocked(uint64_t cameraNs);
  uint64_t TicksAtNs(uint64_t ns) const;
  uint64_t VinFrameNs(uint64_t index) const;
  void Me0Geometry(uint32_t* width, uint32_t* height, uint32_t* pitch) const;
  uint32_t VinRate() const;

  // Production (production.cpp); production_ held.
  void ProduceDue(uint64_t nowNs, bool dropLate);
  void ProduceVinFrame(uint64_t index, bool encode);
  void EncodePicture(PictureJob& job, const SceneTime& when, uint64_t ticks);
  bool PrepareEncoder(StreamEncoder& encoder, const PictureJob& job);
  void PrepareReplay(StreamEncoder& encoder, const PictureJob& job);
  int ChoosePictureType(StreamEncoder& encoder, const PictureJob& job);
  int EncodeOne(StreamEncoder& encoder, const PictureJob& job, const SceneTime& when, int64_t pts,
                Segment* segments, int* type, int64_t* outPts);
  // mutex_ held: writes one picture into the ring and queues its descriptor.
  void WritePictureLocked(const PictureJob& job, const Segment* segments, int count, int type, uint64_t pts,
                          uint64_t ticks);
  void RealTimeLoop();

  std::mutex production_;
  std::mutex mutex_;
  std::condition_variable changed_;  // new plane, new configuration, reset, close
  std::thread realTime_;
  bool stopping_ = false;

  // Descriptors.
  std::map<int, OpenFile> files_;

  // Configuration of the hardware.
  int32_t chipId_ = VCAM_DEFAULT_CHIP_ID;
  std::vector<vcam_sensor_mode_t> sensorModes_;
  vcam_scene_t scene_ = VCAM_SCENE_MOVING;
  bool ucodeLoaded_ = true;
  bool replay_ = false;
  uint32_t queueDepth_ = VCAM_DEFAULT_QUEUE_DEPTH;

  // Clock.
  vcam_clock_mode_t clockMode_ = VCAM_CLOCK_REALTIME;
  uint64_t monotonicBaseNs_ = 0;
  // Real time: the camera's time is anchorCamNs_ plus the real time elapsed
  // since anchorRealNs_, scaled by (1 + ratePpm_ / 10^6).
  uint64_t anchorRealNs_ = 0;
  uint64_t anchorCamNs_ = 0;
  int32_t ratePpm_ = 0;
  uint64_t manualNowNs_ = 0;
  uint32_t manualWaitLimitMs_ = 200;
  uint64_t epoch_ = 0;          // bumped by reset: waiters give up

  // Driver state.
  int iavState_ = VCAM_IAV_STATE_IDLE;
  bool vinModeSet_ = false;
  uint32_t vinMode_ = 0;
  uint32_t vinHdrMode_ = 0;
  uint32_t vinWidth_ = 0;
  uint32_t vinHeight_ = 0;
  uint32_t vinModePeriod_ = 0;
  uint32_t vinPeriod_ = 0;      // VIN_SET_FPS, 0 when not set
  bool vinRunning_ = false;
  uint64_t vinStartNs_ = 0;
  uint64_t vinNextIndex_ = 1;   // the next VIN frame to produce
  uint64_t vinFrames_ = 0;
  uint64_t vinFramesLate_ = 0;
  iav_srcbuf_setup_t srcbuf_ = {};
  iav_system_resource_t sysres_ = {};
  std::array<StreamConfig, IAV_MAX_ENCODE_STREAMS> streams_;
  uint32_t lastStartArgument_ = 0;
  uint32_t lastStopArgument_ = 0;
  std::map<unsigned long, uint32_t> requestCounts_;

  // Bitstream ring and descriptor queue.
  MirrorBuffer bsb_;
  uint64_t ringWrite_ = 0;      // monotonic bytes written
  std::vector<QueuedDescriptor> queue_;  // circular, queueDepth_ entries
  size_t queueHead_ = 0;
  size_t queueCount_ = 0;
  uint64_t picturesWritten_ = 0;
  uint64_t picturesLost_ = 0;
  uint64_t picturesRead_ = 0;
  iav_framedesc_t lastWritten_ = {};

  // Motion statistics.
  MirrorBuffer me0_;
  uint32_t me0Seq_ = 0;
  iav_me0desc_t me0Latest_ = {};

  // Microcode.
  MirrorBuffer ucode_;

  // Faults.
  struct Fault {
    int err = 0;
    int count = 0;
  };
  std::map<unsigned long, Fault> faults_;
  std::vector<iav_framedesc_t> fakeDescriptors_;
  uint32_t corruptNal_ = 0;

  // Producer side.
  std::array<StreamEncoder, IAV_MAX_ENCODE_STREAMS> encoders_;
};

}  // namespace vesk::virtualcam

#endif

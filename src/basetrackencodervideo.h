// The video track: the chip-independent sequence over the IAV driver
// (microcode, states and their IPC events, settings processing, the frame
// pump and the adaptive bit rate). The chip layer implements the steps.
#pragma once

#include <cstdint>
#include <string>

#include "basetrackencoder.h"
#include "bitratelimits.h"
#include "fps.h"
#include "vesk/messages/eventiavstateenterencode.h"
#include "vesk/messages/eventiavstateenteridle.h"
#include "vesk/messages/eventiavstateenterpreview.h"
#include "vesk/messages/eventiavstateexitencode.h"
#include "vesk/records.h"

namespace vesk {
namespace encoder {
namespace internal {

using vesk::variant::Variant;

constexpr uint32_t kVideoStreamSlots = 4;  // hardware encoder streams 0..3
constexpr uint32_t kAdaptiveSlots = 3;     // H.264 streams that adapt their bit rate
constexpr uint8_t kNoLevel = 255;          // no report yet

// One adaptive bit rate: limits plus the stepping state.
struct adaptive_bitrate_t : public bitrate_limits_t {
  adaptive_bitrate_t(uint16_t stepThreshold = 0);
  virtual ~adaptive_bitrate_t();
  // Limits and current value at the maximum; stepping state back to its start.
  void Load(uint32_t minimumRate, uint32_t maximumRate);
  // The step rule for a report of level L (0 no congestion .. 100). A
  // non-negative limit also caps a decrease at downPercent x limit / 100.
  void Step(uint8_t reportLevel, int limit = -1);

  uint32_t current;
  uint8_t level;
  uint16_t count;
  uint16_t threshold;
  uint8_t upPercent;
  uint8_t downPercent;
};

// Camera-server and server-player records (transport and peer pressure).
struct buffer_adaptive_bitrate_t : public adaptive_bitrate_t {
  explicit buffer_adaptive_bitrate_t(uint16_t stepThreshold) : adaptive_bitrate_t(stepThreshold) {}
  ~buffer_adaptive_bitrate_t() override;
};

// The motion record: only its limits and current value are used.
struct motion_adaptive_bitrate_t : public adaptive_bitrate_t {
  motion_adaptive_bitrate_t() : adaptive_bitrate_t(0) {}
  ~motion_adaptive_bitrate_t() override;
};

// The three pressures of one H.264 stream slot.
struct stream_bitrate_t {
  stream_bitrate_t();
  int32_t applied;
  buffer_adaptive_bitrate_t cameraServer;
  bool serverPlayerEnabled;
  buffer_adaptive_bitrate_t serverPlayer;
  bool motionEnabled;
  motion_adaptive_bitrate_t motion;
  uint8_t lastMotionLevel;
  uint64_t nextMotionStep;
  uint32_t motionInterval;
};

// The correction SetBitRate applies: bitrate x numerator / denominator unless
// passThrough (JPEG streams).
struct bitrate_fix_t {
  bool passThrough;
  uint32_t numerator;    // VIN rate
  uint32_t denominator;  // stream rate
};

// What the track last gave the chip for one stream.
struct stream_slot_t {
  uint32_t fpsNumerator;    // stream rate
  uint32_t fpsDenominator;  // VIN rate
  uint32_t width;
  uint32_t height;
  uint32_t M;
  uint32_t gopLength;       // N x nMultiplier
  uint32_t idrMultiplier;
  uint32_t idrInterval;     // frames
  uint64_t pictures;        // pictures handed out since the cadence was set
};

// One stream's frame record plus its clocks and its timestamp rebase point.
struct frame_slot_t {
  video_frame_t frame;
  uint32_t clockRates[3];  // 90000 each
  double rebasePoint;      // NaN: none; 0: rebase requested
  bool nalMapValid;        // nalMap describes the last key picture of the stream
  bool auxInfoValid;       // auxInfo describes the last other picture
};

// One entry of the capacity budget.
struct budget_stream_t {
  const char* name;                   // the element's key: "video1", ..., "mjpg2"
  BaseVideoEncoderSettings* element;  // in the settings tree
};
constexpr uint32_t kMaxConfiguredStreams = 5;  // video1-3, the MJPEG stream, mjpg2

class BaseTrackEncoderVideo : public BaseTrackEncoder {
 public:
  explicit BaseTrackEncoderVideo(EncoderSettings& settings);
  ~BaseTrackEncoderVideo() override;

  bool Initialize() override;
  bool StartEncoding() override;
  bool StopEncoding() override;
  bool UpdateSettings(vesk::ipc::messages::ChangeVideoSettings& request) override;

  virtual unsigned int ComputeStreamId(unsigned int ordinal) = 0;
  virtual unsigned int ComputeStreamOrdinal(unsigned int streamId) = 0;
  virtual bool PreProcessSettings() = 0;
  virtual bool InitializeVideoInputInfo() = 0;
  virtual bool SetVIN() = 0;
  virtual bool SetResourceLimits() = 0;
  virtual bool SetSourceBuffers() = 0;
  virtual bool InitializeFramesMemory() = 0;
  virtual bool EnterPreview() = 0;
  virtual bool SetGopInfo(unsigned int ordinal, int streamId, unsigned char fps,
                          unsigned char multiplier, bool isH264) = 0;
  virtual bool SetBitRate(int streamId, bool isCbr, unsigned int cbrAvg, unsigned int vbrMax) = 0;
  virtual bool SetH264Encoding(vesk::variant::Variant& element) = 0;
  virtual bool SetMJPGEncoding(vesk::variant::Variant& element) = 0;
  virtual bool ForceIDR(const vesk::variant::Variant& element) = 0;
  virtual video_frame_t* GetFrameInfo() = 0;
  virtual bool IsValidVideoFrame() = 0;
  virtual bool StartStopEncoding(bool start) = 0;
  virtual bool NormalizeVinFps() = 0;
  virtual unsigned int GetVinFps(unsigned int sensor) = 0;
  virtual int CalculateTargetQP(unsigned int bitrate, int streamId) = 0;

  // Lifecycle steps of Initialize.
  void Close();
  bool OpenIAV();
  bool EnterIdle();
  bool LoadUCode();
  bool InitializeIpcMessages();
  bool ProcessSettings();
  bool SetEncodings();

  // An IDR picture on every enabled H.264 stream.
  bool ForceIDR();
  // The largest r <= min(wanted, maximum) that divides base; 1 when either is 0.
  unsigned int ComputeFPS(unsigned int wanted, unsigned int maximum, unsigned int base);

  // Frame retrieval: the next picture or null.
  video_frame_t* GetFrame();
  // Fills the picture's codecInfo block; true when it found a slice and
  // nothing invalid.
  bool ParseNALMap(video_frame_t* frame);
  void ForceTimestampsRebase();
  void ForceTimestampsRebase(unsigned int stream);
  // The rebase point of one slot (NaN when none is pending).
  double GetRebasePoint(unsigned int stream) const;

  // Adaptive bit rate.
  void AdaptCameraServerBitrate(unsigned char level);
  bool AdaptServerPlayerBitrate(unsigned int stream, signed char level, int limit, bool reset);
  void AdaptMotion(unsigned long long now);
  unsigned int FixBitrate(int streamId, unsigned int bitrate);
  void ComputeMaxAllowedBitrates();
  // The on-screen statistics text of one H.264 stream slot.
  void GetChannelsOSDStats(signed char level, std::string& line, unsigned int slot);

  // Runtime changes of one stream (current element of the settings, requested
  // element of a change request) and of the VIN (the "video" blocks); the
  // applied values are written into the current settings.
  bool UpdateStreamSettings(Variant& current, Variant& requested);
  bool UpdateVinSettings(Variant& current, Variant& requested, bool& restartNeeded);

  // Read-only views for the owner and for diagnostics.
  const stream_bitrate_t& GetStreamBitrate(unsigned int slot) const { return bitrates_[slot % kVideoStreamSlots]; }
  const stream_slot_t& GetStreamSlot(unsigned int slot) const { return streams_[slot % kVideoStreamSlots]; }
  const fps_matrix_t& GetFpsMatrix() const { return fpsMatrix_; }
  int GetIavFd() const { return iavFd_; }
  int GetUcodeFd() const { return ucodeFd_; }

 protected:
  // The budget walk over the enabled streams in their dense order.
  bool CheckBudget(budget_stream_t* list, uint32_t count);
  bool ProcessStreamRates(H264VideoEncoderSettings& element);
  // The enabled streams in their dense order (at most kMaxConfiguredStreams).
  uint32_t GatherEnabledStreams(budget_stream_t* list);
  // Writes "name", "streamId", "streamOrdinal" and "maxFps" into the
  // configured elements and removes "streamOrdinal" from the others.
  void NumberStreams(budget_stream_t* list, uint32_t count);
  // The adaptive limits of one H.264 stream, loaded by the encoding setup.
  void LoadBitrateLimits(unsigned int ordinal, Variant& element);
  // Applies the smallest ceiling of the slot when it changed; false when the
  // chip refused it.
  bool RecomputeBitrate(unsigned int slot);
  // Runtime change steps of one stream (element: its current settings).
  bool UpdateH264Stream(Variant& element, Variant& requested);
  bool UpdateMJPGStream(Variant& element, Variant& requested);
  bool UpdateFrameRate(Variant& element, vesk::ipc::messages::VideoSettingsElement& request);
  bool UpdateBitrate(Variant& element, vesk::ipc::messages::VideoSettingsElement& request);
  bool UpdateAdaptiveMinima(Variant& element, vesk::ipc::messages::VideoSettingsElement& request);
  // The capacity budget with one stream at a new frame rate.
  bool BudgetTakesFps(const std::string& name, unsigned int fps);
  // The slot's bit rate programmed again (after a frame-rate change moved
  // the correction factors).
  bool ReapplyBitrate(Variant& element);
  bool NalMapStillFits(const video_frame_t* frame, const uint32_t* map);
  bool ReloadUCode();
  bool LoadUCodeItems(uint8_t* region, const void* loadRecord);
  bool ReadUCodeVersion(void* version);
  void RunRecoveryLadder();

  int ucodeFd_;
  int iavFd_;

  // Run-time IAV state, cleared by Close.
  uint8_t* ringBase_;
  uint32_t ringSize_;
  frame_slot_t frames_[kVideoStreamSlots];
  stream_slot_t streams_[kVideoStreamSlots];
  bitrate_fix_t fixes_[kVideoStreamSlots];

  vesk::ipc::messages::EventIavStateEnterIdle eventEnterIdle_;
  vesk::ipc::messages::EventIavStateEnterPreview eventEnterPreview_;
  vesk::ipc::messages::EventIavStateEnterEncode eventEnterEncode_;
  vesk::ipc::messages::EventIavStateExitEncode eventExitEncode_;

  fps_matrix_t fpsMatrix_;
  stream_bitrate_t bitrates_[kVideoStreamSlots];

  // Filled by the chip layer from the VIN and the chip.
  uint32_t vinWidth_;
  uint32_t vinHeight_;
  uint8_t hdrModeInForce_;
  uint32_t chipPerformance_;
};

}  // namespace internal
}  // namespace encoder
}  // namespace vesk

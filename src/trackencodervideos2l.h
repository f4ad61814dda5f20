// The S2L chip layer of the video track: every chip-specific step of the
// IAV sequence (VIN, resources, source buffers, encodings, frames).
#pragma once

#include "basetrackencodervideo.h"
#include "trackencodervideos2lcommon.h"

namespace vesk {
namespace encoder {
namespace internal {

// The VIN as the track set it up.
struct vin_state_t {
  uint32_t sourceId;
  uint32_t mode;
  uint8_t hdrMode;
  fps_t maxFps;     // the sensor mode's own rate
  fps_t chosenFps;  // the rate the VIN runs at
  uint32_t width;
  uint32_t height;
  chip_t chip;
};

// One sensor mode as VIN_GET_VIDEOINFO reported it.
struct sensor_mode_t {
  uint32_t sourceId;
  uint32_t mode;
  uint8_t hdrMode;
  uint32_t width;
  uint32_t height;
  uint32_t framePeriod;
};

class TrackEncoderVideoS2L : public BaseTrackEncoderVideo {
 public:
  explicit TrackEncoderVideoS2L(EncoderSettings& settings);
  ~TrackEncoderVideoS2L() override;

  unsigned int ComputeStreamId(unsigned int ordinal) override;
  unsigned int ComputeStreamOrdinal(unsigned int streamId) override;
  bool PreProcessSettings() override;
  bool InitializeVideoInputInfo() override;
  bool SetVIN() override;
  bool SetResourceLimits() override;
  bool SetSourceBuffers() override;
  bool InitializeFramesMemory() override;
  bool EnterPreview() override;
  bool SetGopInfo(unsigned int ordinal, int streamId, unsigned char fps, unsigned char multiplier,
                  bool isH264) override;
  bool SetBitRate(int streamId, bool isCbr, unsigned int cbrAvg, unsigned int vbrMax) override;
  bool SetH264Encoding(vesk::variant::Variant& element) override;
  bool SetMJPGEncoding(vesk::variant::Variant& element) override;
  bool ForceIDR(const vesk::variant::Variant& element) override;
  using BaseTrackEncoderVideo::ForceIDR;
  video_frame_t* GetFrameInfo() override;
  bool IsValidVideoFrame() override;
  bool StartStopEncoding(bool start) override;
  bool NormalizeVinFps() override;
  unsigned int GetVinFps(unsigned int sensor) override;
  int CalculateTargetQP(unsigned int bitrate, int streamId) override;

  bool ForceIDR(int streamId);
  bool SetPtsDts(video_frame_t& frame);
  bool SetEncodingFormat(int streamId, uint32_t type, uint32_t sourceBuffer, uint32_t width,
                         uint32_t height);
  const vin_state_t& GetVinState() const { return vin_; }

 private:
  // Sensor modes with a known period, the best first; 0 when none.
  size_t EnumerateSensorModes(sensor_mode_t* modes, size_t capacity, uint8_t* maxHdr);
  uint8_t WantedHdrMode(uint8_t sensorMax);
  // The H.264 configuration record of the stream with M, N and the GOP model.
  bool SetH264Config(int streamId, Variant& element);
  bool SetStreamItem(int streamId, uint32_t item, const void* payload, size_t size);
  bool GetStreamItem(int streamId, uint32_t item, void* record);
  void FillStreamLimits(void* resource);

  vin_state_t vin_;
  int64_t lastDescriptorPts_;
};

}  // namespace internal
}  // namespace encoder
}  // namespace vesk

#include "trackencodervideos2l.h"

#include <errno.h>
#include <string.h>

#include "vesk/device/device.h"
#include "vesk/device/iav.h"
#include "vlog.h"

namespace vesk {
namespace encoder {
namespace internal {

TrackEncoderVideoS2L::TrackEncoderVideoS2L(EncoderSettings& settings)
    : BaseTrackEncoderVideo(settings), lastDescriptorPts_(-1) {
  memset(&vin_, 0, sizeof(vin_));
}

TrackEncoderVideoS2L::~TrackEncoderVideoS2L() {}

unsigned int TrackEncoderVideoS2L::ComputeStreamId(unsigned int ordinal) { return ordinal; }

unsigned int TrackEncoderVideoS2L::ComputeStreamOrdinal(unsigned int streamId) { return streamId; }

bool TrackEncoderVideoS2L::PreProcessSettings() { return true; }

bool TrackEncoderVideoS2L::EnterPreview() {
  if (vdev_ioctl(iavFd_, IAV_IOC_ENABLE_PREVIEW, 0ul) != 0) {
    VLOG_ERRNO(VESK_PRIO_ERROR, errno, "IAV_IOC_ENABLE_PREVIEW failed");
    return false;
  }
  return true;
}

bool TrackEncoderVideoS2L::StartStopEncoding(bool start) {
  VideoEncoderSettings& video = settings_.video();
  bool enabled[] = {video.video1().enabled(), video.video2().enabled(), video.video3().enabled(),
                    video.mjpg1().enabled() || video.mjpg().enabled(), video.mjpg2().enabled()};
  unsigned long mask = 0;
  unsigned int bit = 0;
  for (bool on : enabled)
    if (on) mask |= 1ul << bit++;
  bool hrd = video.enableHrd();
  unsigned long argument = hrd ? mask : (mask | (mask << 16));
  if (vdev_ioctl(iavFd_, start ? IAV_IOC_START_ENCODE : IAV_IOC_STOP_ENCODE, argument) != 0) {
    VLOG_ERRNO(VESK_PRIO_ERROR, errno, "start ? IAV_IOC_START_ENCODE : IAV_IOC_STOP_ENCODE failed");
    return false;
  }
  return true;
}

unsigned int TrackEncoderVideoS2L::GetVinFps(unsigned int sensor) {
  (void)sensor;
  return vin_.chosenFps.rate;
}

int TrackEncoderVideoS2L::CalculateTargetQP(unsigned int bitrate, int streamId) {
  const stream_slot_t& slot = streams_[ComputeStreamOrdinal((unsigned int)streamId) % kVideoStreamSlots];
  return LookupTargetQP(bitrate, (uint64_t)slot.width * slot.height);
}

}  // namespace internal
}  // namespace encoder
}  // namespace vesk

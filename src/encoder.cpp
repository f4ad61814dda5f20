#include "vesk/encoder.h"

#include <errno.h>

#include "vesk/device/device.h"
#include "vlog.h"

namespace vesk {
namespace encoder {

Encoder::Encoder() {}

Encoder::~Encoder() {}

bool Encoder::ForceIDR() {
  // No video track is configured yet.
  VLOG_ERROR("No video encoder configured");
  return false;
}

bool Encoder::AdaptServerPlayerBitrate(unsigned int channel, signed char level, int bitrate,
                                       bool resetOutputBitrate) {
  return false;  // no video track to adapt
}

bool Encoder::ReadHWClockFile(const char* path, long long& value) {
  FILE* file = vdev_fopen(path, "r");
  if (file == nullptr) {
    VLOG_ERRNO(VESK_PRIO_ERROR, errno, "Unable to open file %s", path);
    return false;
  }
  int converted = fscanf(file, "%lld", &value);
  fclose(file);
  if (converted != 1) {
    VLOG_ERROR("Unable to properly read the formatted value in %s", path);
    return false;
  }
  return true;
}

bool Encoder::GetCurrentHWClock(timestamp_t* out) {
  if (out == nullptr) {
    VLOG_ERROR("Invalid arguments");
    return false;
  }
  *out = timestamp_t();
  long long frequency = 0;
  long long ticks = 0;
  if (!ReadHWClockFile(VDEV_PATH_HWTIMER_OUTFREQ, frequency)) return false;
  if (!ReadHWClockFile(VDEV_PATH_HWTIMER, ticks)) return false;
  out->value = ticks;
  out->timescale = (uint32_t)frequency;
  return true;
}

}  // namespace encoder
}  // namespace vesk

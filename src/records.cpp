#include "vesk/records.h"

namespace vesk {
namespace encoder {

int64_t RescaleTimestamp(int64_t value, uint32_t fromTimescale, uint32_t toTimescale) {
  if (fromTimescale == toTimescale || fromTimescale == 0) return value;
  int64_t half = (int64_t)(fromTimescale >> 1);
  return (value * (int64_t)toTimescale + half) / (int64_t)fromTimescale;
}

int64_t timestamp_t::In(uint32_t targetTimescale) const {
  return RescaleTimestamp(value, timescale, targetTimescale);
}

int64_t timestamp_t::Compare(const timestamp_t& other) const {
  return value - other.In(timescale);
}

uint32_t GetPayloadRuns(const video_frame_t& frame, payload_runs_t& runs) {
  runs.count = 1;
  runs.length[1] = 0;
  runs.data[1] = nullptr;
  if (frame.isContiguous) {
    runs.data[0] = frame.ringBase + frame.offset;
    runs.length[0] = frame.length;
  } else if (frame.offset >= frame.ringSize) {
    runs.data[0] = frame.ringBase + (frame.offset - frame.ringSize);
    runs.length[0] = frame.length;
  } else if ((uint64_t)frame.offset + frame.length > frame.ringSize) {
    runs.data[0] = frame.ringBase + frame.offset;
    runs.length[0] = frame.ringSize - frame.offset;
    runs.data[1] = frame.ringBase;
    runs.length[1] = frame.length - runs.length[0];
    runs.count = 2;
  } else {
    runs.data[0] = frame.ringBase + frame.offset;
    runs.length[0] = frame.length;
  }
  return runs.count;
}

}  // namespace encoder
}  // namespace vesk

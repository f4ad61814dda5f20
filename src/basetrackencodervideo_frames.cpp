// The frame pump of the video track: the next picture, its NAL map over the
// bitstream ring (wrap rule), the recovery from a malformed picture and the
// timestamp rebase points.
#include <cmath>
#include <cstring>
#include <limits>

#include "basetrackencodervideo.h"
#include "vesk/host/log.h"
#include "vlog.h"

namespace vesk {
namespace encoder {
namespace internal {

namespace {

// Bytes of a contiguous payload.
struct linear_bytes_t {
  const uint8_t* data;
  uint8_t operator()(uint32_t i) const { return data[i]; }
};

// Bytes of a payload that wraps: ringBase[(offset + i) mod ringSize].
struct ring_bytes_t {
  const video_frame_t* frame;
  uint8_t operator()(uint32_t i) const { return PayloadByte(*frame, i); }
};

template <typename Bytes>
bool IsStartCode(const Bytes& at, uint32_t i) {
  return at(i) == 0 && at(i + 1) == 0 && at(i + 2) == 0 && at(i + 3) == 1;
}

// The open unit's length entry, or -1.
struct nal_cursor_t {
  int openLength = -1;
  uint32_t openOffset = 0;
  bool slice = false;

  void CloseAt(uint32_t* map, uint32_t position) {
    if (openLength >= 0) map[openLength] = position - openOffset;
    openLength = -1;
  }
};

// One start code at i with NAL type `type`; false when the type invalidates the picture.
bool MapUnit(uint32_t* map, nal_cursor_t& cursor, uint32_t i, uint32_t type) {
  int offsetEntry = -1;
  switch (type) {
    case 7: offsetEntry = NAL_SPS_OFFSET; break;
    case 8: offsetEntry = NAL_PPS_OFFSET; break;
    case 6: offsetEntry = NAL_SEI_OFFSET; break;
    case 9: offsetEntry = NAL_AUD_OFFSET; break;
    case 1:
    case 5:
      cursor.CloseAt(map, i);
      if (!cursor.slice) map[NAL_SLICE_OFFSET] = i;
      cursor.slice = true;
      return true;
    default:
      return false;
  }
  cursor.CloseAt(map, i);
  map[offsetEntry] = i;
  cursor.openLength = offsetEntry + 1;
  cursor.openOffset = i;
  return true;
}

template <typename Bytes>
bool ScanNalUnits(const Bytes& at, uint32_t size, uint32_t* map) {
  nal_cursor_t cursor;
  uint32_t i = 0;
  while (i + 5 < size) {
    uint8_t fourth = at(i + 3);
    if (fourth > 1) {  // no start code can cover byte i + 3
      i += 4;
      continue;
    }
    if (fourth == 1 && at(i) == 0 && at(i + 1) == 0 && at(i + 2) == 0) {
      if (!MapUnit(map, cursor, i, at(i + 4) & 0x1Fu)) {
        memset(map, 0, sizeof(uint32_t) * 9);
        return false;
      }
      i += 4;
      continue;
    }
    i++;
  }
  cursor.CloseAt(map, size);
  return cursor.slice;
}

// The recorded unit still starts with a start code of its type and ends at
// the next start code (or the end) inside the picture.
template <typename Bytes>
bool UnitFits(const Bytes& at, uint32_t size, uint32_t offset, uint32_t length, uint32_t type,
              uint32_t limit) {
  if (length == 0) return true;
  if (length < 5 || (uint64_t)offset + length > limit) return false;
  if (!IsStartCode(at, offset) || (at(offset + 4) & 0x1Fu) != type) return false;
  uint32_t end = offset + length;
  return end == size || (end + 4 <= size && IsStartCode(at, end));
}

template <typename Bytes>
bool MapFits(const Bytes& at, uint32_t size, const uint32_t* map) {
  uint32_t slice = map[NAL_SLICE_OFFSET];
  if ((uint64_t)slice + 5 > size || !IsStartCode(at, slice)) return false;
  uint32_t sliceType = at(slice + 4) & 0x1Fu;
  if (sliceType != 1 && sliceType != 5) return false;
  static const uint32_t kTypes[4] = {7, 8, 6, 9};
  uint64_t covered = 0;
  for (uint32_t k = 0; k < 4; k++) {
    if (!UnitFits(at, size, map[2 * k], map[2 * k + 1], kTypes[k], slice)) return false;
    covered += map[2 * k + 1];
  }
  // The units tile the bytes in front of the slice exactly.
  return covered == slice;
}

}  // namespace

bool BaseTrackEncoderVideo::ParseNALMap(video_frame_t* frame) {
  uint32_t* map = frame->codecInfo;
  memset(map, 0, sizeof(uint32_t) * 9);
  if (frame->length == 5) return false;
  if (frame->isContiguous) return ScanNalUnits(linear_bytes_t{frame->ringBase + frame->offset}, frame->length, map);
  return ScanNalUnits(ring_bytes_t{frame}, frame->length, map);
}

bool BaseTrackEncoderVideo::NalMapStillFits(const video_frame_t* frame, const uint32_t* map) {
  if (frame->isContiguous) return MapFits(linear_bytes_t{frame->ringBase + frame->offset}, frame->length, map);
  return MapFits(ring_bytes_t{frame}, frame->length, map);
}

video_frame_t* BaseTrackEncoderVideo::GetFrame() {
  video_frame_t* frame = GetFrameInfo();
  if (frame == nullptr) return nullptr;
  if (frame->isJpeg) return frame;
  if (!IsValidVideoFrame()) {
    RunRecoveryLadder();
    return nullptr;
  }
  frame_slot_t& slot = frames_[frame->streamIndex % kVideoStreamSlots];
  bool& known = frame->isKeyFrame ? slot.nalMapValid : slot.auxInfoValid;
  bool parsed = known && NalMapStillFits(frame, frame->codecInfo);
  if (!parsed) {
    parsed = ParseNALMap(frame);
    known = parsed;
  }
  if (frame->isKeyFrame && frame->codecInfo[NAL_SPS_LENGTH] == 0) return nullptr;
  return parsed ? frame : nullptr;
}

void BaseTrackEncoderVideo::RunRecoveryLadder() {
  if (!StopEncoding()) {
    VLOG_ERROR("Unable to stop encoding");
    forceCrash();
  }
  VLOG_WARN("Encoder stopped due to a malformed frame!");
  VLOG_INFO("Attempting to restart the encoder due to a malformed frame!");
  if (StartEncoding()) {
    VLOG_INFO("Encoder restarted due to a malformed frame!");
    return;
  }
  VLOG_WARN("Unable to restart the encoder. Will try to reset the VIN, go back to idle and than try to start again");
  if (!SetVIN() || !EnterPreview() || !StartEncoding()) {
    VLOG_ERROR("Unable to restart the encoder. Permanent failure");
    forceCrash();
  }
  VLOG_INFO("Encoder restarted due to a malformed frame!");
}

void BaseTrackEncoderVideo::ForceTimestampsRebase() {
  for (unsigned int i = 0; i < kVideoStreamSlots; i++) ForceTimestampsRebase(i);
}

void BaseTrackEncoderVideo::ForceTimestampsRebase(unsigned int stream) {
  if (stream >= kVideoStreamSlots) return;
  frames_[stream].rebasePoint = 0;
}

double BaseTrackEncoderVideo::GetRebasePoint(unsigned int stream) const {
  if (stream >= kVideoStreamSlots) return std::numeric_limits<double>::quiet_NaN();
  return frames_[stream].rebasePoint;
}

}  // namespace internal
}  // namespace encoder
}  // namespace vesk

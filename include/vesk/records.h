// The plain records that travel from the tracks through the Encoder pump and
// an output stream into a container, and from the container as a scatter
// list into the transports. None of them owns the bytes it points to.
#pragma once

#include <sys/uio.h>

#include <cstddef>
#include <cstdint>

namespace vesk {
namespace encoder {

// A tick count with its timescale (ticks per second).
struct timestamp_t {
  int64_t value = -1;      // -1: not set
  uint32_t timescale = 0;  // 0: not set

  timestamp_t() = default;
  timestamp_t(int64_t v, uint32_t scale) : value(v), timescale(scale) {}
  bool IsSet() const { return value >= 0 && timescale != 0; }
  // This timestamp's value expressed in another timescale.
  int64_t In(uint32_t targetTimescale) const;
  // Negative, zero or positive as this is before, at or after other (other is
  // converted into this timestamp's timescale first).
  int64_t Compare(const timestamp_t& other) const;
};

// Expresses value v of timescale s in timescale t: (v * t + s / 2) / s in
// signed 64-bit arithmetic (half up). No conversion when s equals t or s is 0.
int64_t RescaleTimestamp(int64_t value, uint32_t fromTimescale, uint32_t toTimescale);

// One encoded picture, pointing into the video driver's bitstream ring.
struct video_frame_t {
  uint32_t streamIndex;  // hardware encoder stream 0..3; output slot is streamIndex % 5
  uint8_t isJpeg;        // 1 only for a JPEG picture
  uint8_t isKeyFrame;    // 1 for JPEG, IDR and I pictures
  uint32_t pictureType;  // 1 IDR and I, 3 P, 4 B; not set for JPEG
  uint32_t isContiguous; // 1 when offset + length does not exceed ringSize
  uint32_t offset;       // payload start inside the ring
  uint32_t length;       // payload size (24 bits significant)
  uint32_t* codecInfo;   // nalMap for key pictures, auxInfo otherwise
  // SPS offset, SPS length, PPS offset, PPS length, SEI offset, SEI length,
  // delimiter offset, delimiter length, slice offset; relative to the payload.
  uint32_t nalMap[9];
  uint32_t auxInfo[9];   // same layout, for pictures that are not key pictures
  uint8_t* ringBase;
  uint32_t ringSize;
  uint32_t gopM;
  timestamp_t dts;
  timestamp_t pts;
  timestamp_t ptsDtsDelta;  // dts.value - pts.value, in pts's timescale
  int64_t duration;         // in pts ticks
};

// Indices into nalMap/auxInfo.
enum NalMapEntry : uint32_t {
  NAL_SPS_OFFSET = 0,
  NAL_SPS_LENGTH = 1,
  NAL_PPS_OFFSET = 2,
  NAL_PPS_LENGTH = 3,
  NAL_SEI_OFFSET = 4,
  NAL_SEI_LENGTH = 5,
  NAL_AUD_OFFSET = 6,
  NAL_AUD_LENGTH = 7,
  NAL_SLICE_OFFSET = 8,
};

// The payload of a picture as at most two runs of the ring (the wrap rule).
struct payload_runs_t {
  const uint8_t* data[2];
  uint32_t length[2];
  uint32_t count;
};
// Fills runs from the picture's ring fields; returns the number of runs (1 or 2).
uint32_t GetPayloadRuns(const video_frame_t& frame, payload_runs_t& runs);
// Byte i of the payload: ringBase[(offset + i) mod ringSize].
inline uint8_t PayloadByte(const video_frame_t& frame, uint32_t i) {
  uint64_t pos = ((uint64_t)frame.offset + i) % frame.ringSize;
  return frame.ringBase[pos];
}

// One encoded audio access unit, owned by the audio thread's pool.
struct audio_frame_t {
  uint32_t capacity;          // size of each payload buffer
  uint8_t* payload;           // the microphone signal (AAC with its ADTS header)
  uint8_t* altPayload;        // the same with talkback mixed in
  uint32_t payloadLength;     // 0: empty
  uint32_t altPayloadLength;  // 0: no talkback in this frame
  uint32_t muted;             // 1 when the microphone was muted
  timestamp_t pts;            // capture time in samples, timescale = sample rate
  int64_t duration;           // 1024 for an AAC access unit
};

// A scatter list, laid out exactly as POSIX iovec so sendmsg takes it unchanged.
struct message_part_t {
  void* data;
  size_t length;
};
static_assert(sizeof(message_part_t) == sizeof(struct iovec), "message_part_t must match iovec");
static_assert(offsetof(message_part_t, data) == offsetof(struct iovec, iov_base), "iov_base");
static_assert(offsetof(message_part_t, length) == offsetof(struct iovec, iov_len), "iov_len");

struct message_t {
  message_part_t* parts;
  uint32_t partCount;
  uint32_t totalLength;

  bool IsEmpty() const { return parts == nullptr || partCount == 0 || totalLength == 0; }
  const struct iovec* AsIovec() const { return reinterpret_cast<const struct iovec*>(parts); }
  void Reset() {
    partCount = 0;
    totalLength = 0;
  }
  // Appends one part (the caller sized the parts array).
  void Append(const void* data, uint32_t length) {
    parts[partCount].data = const_cast<void*>(data);
    parts[partCount].length = length;
    partCount++;
    totalLength += length;
  }
};

// The kind of container an output stream carries.
enum ContainerType : uint32_t {
  CONTAINER_UNKNOWN = 0,
  CONTAINER_FLV = 1,  // plain and extended FLV
  CONTAINER_VESK = 2,
  CONTAINER_PASSTHROUGH = 3,
};

}  // namespace encoder
}  // namespace vesk

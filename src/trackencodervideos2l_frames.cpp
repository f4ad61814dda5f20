// The bitstream ring of the S2L: its mapping, the next picture's
// descriptor and its timestamps.
#include <errno.h>
#include <string.h>
#include <sys/mman.h>

#include <cstdint>

#include "trackencodervideos2l.h"
#include "vesk/device/device.h"
#include "vesk/device/iav.h"
#include "vesk/utils/utils.h"
#include "vlog.h"

namespace vesk {
namespace encoder {
namespace internal {

namespace {
constexpr uint32_t kLengthMask = 0x00FFFFFFu;  // 24 significant bits
constexpr uint32_t kUnsupportedM = 0x80010001u;
}  // namespace

bool TrackEncoderVideoS2L::InitializeFramesMemory() {
  iav_querybuf_t query;
  memset(&query, 0, sizeof(query));
  query.buf = IAV_BUFFER_BSB;
  if (vdev_ioctl(iavFd_, IAV_IOC_QUERY_BUF, &query) != 0) {
    VLOG_ERRNO(VESK_PRIO_ERROR, errno, "IAV_IOC_QUERY_BUF failed");
    return false;
  }
  size_t length = (size_t)query.length * 2;
  void* base = vdev_mmap(nullptr, length, PROT_READ, MAP_SHARED, iavFd_, query.offset);
  if (base == MAP_FAILED) {
    VLOG_ERRNO(VESK_PRIO_ERROR, errno, "Unable to mmap memory");
    return false;
  }
  ringBase_ = static_cast<uint8_t*>(base);
  ringSize_ = (uint32_t)length;
  VLOG_DEBUG("DMA on circular buffer of %zu bytes at address %p", length, base);
  for (frame_slot_t& slot : frames_) {
    slot.frame.ringBase = ringBase_;
    slot.frame.ringSize = ringSize_;
    for (uint32_t& rate : slot.clockRates) rate = kVideoClock;
    // "No rebase yet": a NaN with every bit set.
    const uint64_t allOnes = ~0ull;
    memcpy(&slot.rebasePoint, &allOnes, sizeof(slot.rebasePoint));
    slot.nalMapValid = false;
    slot.auxInfoValid = false;
  }
  return true;
}

video_frame_t* TrackEncoderVideoS2L::GetFrameInfo() {
  iav_querydesc_t query;
  const iav_framedesc_t& desc = query.arg.frame;
  for (;;) {
    memset(&query, 0, sizeof(query));
    query.qid = IAV_DESC_FRAME;
    query.arg.frame.id = IAV_STREAM_ID_ANY;
    if (vdev_ioctl(iavFd_, IAV_IOC_QUERY_DESC, &query) != 0) {
      if (errno != EAGAIN) VLOG_ERRNO(VESK_PRIO_ERROR, errno, "IAV_IOC_QUERY_DESC failed");
      return nullptr;
    }
    if (desc.id >= 0 && desc.id < (int32_t)IAV_MAX_ENCODE_STREAMS) break;
  }
  frame_slot_t& slot = frames_[desc.id];
  video_frame_t& frame = slot.frame;
  switch (desc.picType & 0x7u) {
    case IAV_PIC_TYPE_JPEG: frame.isJpeg = 1; frame.isKeyFrame = 1; break;
    case IAV_PIC_TYPE_IDR:
    case IAV_PIC_TYPE_I: frame.isJpeg = 0; frame.isKeyFrame = 1; frame.pictureType = 1; break;
    case IAV_PIC_TYPE_P: frame.isJpeg = 0; frame.isKeyFrame = 0; frame.pictureType = 3; break;
    case IAV_PIC_TYPE_B: frame.isJpeg = 0; frame.isKeyFrame = 0; frame.pictureType = 4; break;
    default:
      VLOG_WARN("Frame type not supported");
      return nullptr;
  }
  const stream_slot_t& stream = streams_[desc.id];
  frame.streamIndex = (uint32_t)desc.id;
  frame.gopM = stream.M;
  frame.ringBase = ringBase_;
  frame.ringSize = ringSize_;
  lastDescriptorPts_ = (int64_t)desc.pts;
  if (!SetPtsDts(frame)) return nullptr;
  frame.duration = stream.fpsNumerator != 0 ? kVideoClock / stream.fpsNumerator : 0;
  frame.offset = desc.dataOffset;
  frame.length = desc.size & kLengthMask;
  frame.isContiguous = (uint64_t)frame.offset + frame.length <= frame.ringSize ? 1 : 0;
  frame.codecInfo = frame.isKeyFrame ? frame.nalMap : frame.auxInfo;
  streams_[desc.id].pictures++;
  return &frame;
}

bool TrackEncoderVideoS2L::SetPtsDts(video_frame_t& frame) {
  if (!frame.isJpeg && frame.gopM != 1) vesk::utils::announceTerminate(kUnsupportedM, "M value not supported");
  frame.pts = timestamp_t(lastDescriptorPts_, kVideoClock);
  frame.dts = frame.pts;
  frame.ptsDtsDelta = timestamp_t(frame.dts.value - frame.pts.value, frame.pts.timescale);
  return true;
}

bool TrackEncoderVideoS2L::IsValidVideoFrame() { return true; }

}  // namespace internal
}  // namespace encoder
}  // namespace vesk

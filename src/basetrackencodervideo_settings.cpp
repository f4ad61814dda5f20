// Settings processing before anything reaches the driver: the per-stream
// rate rules, the dense stream numbering, the capacity budget, and the
// encoding set-up that follows it.
#include <cstring>

#include "basetrackencodervideo.h"
#include "vlog.h"

namespace vesk {
namespace encoder {
namespace internal {

namespace {

// The value under key brought into [low, high] and written back.
uint32_t ClampInto(Variant& element, const char* key, int64_t low, int64_t high) {
  if (low < 0) low = 0;
  if (high < 0) high = 0;
  double value = element[key].IsNumeric() ? (double)element[key] : (double)low;
  if (value < (double)low) value = (double)low;
  if (value > (double)high) value = (double)high;
  return (uint32_t)value;
}

uint32_t AlignUp16(uint32_t value) { return (value + 15u) & ~15u; }

}  // namespace

uint32_t BaseTrackEncoderVideo::GatherEnabledStreams(budget_stream_t* list) {
  VideoEncoderSettings& video = settings_.video();
  uint32_t count = 0;
  if (video.video1().enabled()) list[count++] = {"video1", &video.video1()};
  if (video.video2().enabled()) list[count++] = {"video2", &video.video2()};
  if (video.video3().enabled()) list[count++] = {"video3", &video.video3()};
  if (video.mjpg1().enabled())
    list[count++] = {"mjpg1", &video.mjpg1()};
  else if (video.mjpg().enabled())
    list[count++] = {"mjpg", &video.mjpg()};
  if (video.mjpg2().enabled()) list[count++] = {"mjpg2", &video.mjpg2()};
  return count;
}

void BaseTrackEncoderVideo::NumberStreams(budget_stream_t* list, uint32_t count) {
  VideoEncoderSettings& video = settings_.video();
  BaseVideoEncoderSettings* all[] = {&video.video1(), &video.video2(), &video.video3(),
                                     &video.mjpg(),   &video.mjpg1(),  &video.mjpg2()};
  for (BaseVideoEncoderSettings* element : all) element->RemoveValue("streamOrdinal");
  unsigned char vinFps = (unsigned char)GetVinFps(0);
  for (uint32_t i = 0; i < count; i++) {
    Variant& element = *list[i].element;
    element["name"] = list[i].name;
    element["streamOrdinal"] = (unsigned int)i;
    element["streamId"] = (int)ComputeStreamId(i);
    element["maxFps"] = vinFps;
  }
}

bool BaseTrackEncoderVideo::ProcessStreamRates(H264VideoEncoderSettings& element) {
  unsigned int vinFps = GetVinFps(0);
  element["gopModel"] = ClampInto(element, "gopModel", 0, 4);
  element["M"] = ClampInto(element, "M", 1, 0xFFFFFFFFll);
  (void)element.N();
  if (settings_.video().lowDelay() && element.M() != 1) {
    VLOG_WARN("lowDelay flag is true while M is not 1. Making M = 1 by force");
    element["M"] = 1u;
  } else if (hdrModeInForce_ != 0 && element.M() != 1) {
    VLOG_WARN("When HDR is active, M can only be 1");
    element["M"] = 1u;
  }
  element["fps"] = (unsigned char)ComputeFPS(element.fps(), vinFps, kVideoClock);
  Variant values;
  values.IsArray(true);
  for (unsigned int rate = 1; rate <= vinFps; rate++)
    if (kVideoClock % rate == 0) values.PushToArray(Variant(rate));
  element["validFpsValues"] = values;
  return true;
}

bool BaseTrackEncoderVideo::CheckBudget(budget_stream_t* list, uint32_t count) {
  uint64_t total = 0;
  unsigned int vinFps = GetVinFps(0);
  for (uint32_t i = 0; i < count && i < kVideoStreamSlots; i++) {
    Variant& element = *list[i].element;
    std::string type = list[i].element->type();
    bool h264Element = strncmp(list[i].name, "video", 5) == 0;
    if (h264Element != (type == "h264")) {
      VLOG_ERROR("Invalid MPMA settings");
      return false;
    }
    uint32_t width = ClampInto(element, "width", 160, vinWidth_);
    uint32_t height = ClampInto(element, "height", 120, vinHeight_);
    uint32_t fps = ClampInto(element, "fps", 1, vinFps);
    element["width"] = width;
    element["height"] = height;
    element["fps"] = (unsigned char)fps;
    uint64_t required = (uint64_t)fps * ((uint64_t)AlignUp16(width) * AlignUp16(height) / 256);
    VLOG_INFO("Encoding %ux%u@%u requires %uMbps out of %uMbps", width, height, fps,
              (unsigned)required, chipPerformance_);
    total += required;
    if (total > chipPerformance_) {
      VLOG_ERROR("Mbps exceeded: wanted: %u; max: %u", (unsigned)total, chipPerformance_);
      return false;
    }
  }
  VLOG_INFO("Setup is using %uMbps out of %uMbps (%%%.2f)", (unsigned)total, chipPerformance_,
            100.0 * (double)total / (double)chipPerformance_);
  return true;
}

bool BaseTrackEncoderVideo::ProcessSettings() {
  VideoEncoderSettings& video = settings_.video();
  H264VideoEncoderSettings* h264[] = {&video.video1(), &video.video2(), &video.video3()};
  for (H264VideoEncoderSettings* element : h264)
    if (element->enabled() && !ProcessStreamRates(*element)) return false;
  budget_stream_t list[kMaxConfiguredStreams];
  uint32_t count = GatherEnabledStreams(list);
  NumberStreams(list, count);
  return CheckBudget(list, count);
}

bool BaseTrackEncoderVideo::SetEncodings() {
  // Only the H.264 streams configured now adapt their bit rate.
  for (stream_bitrate_t& record : bitrates_) record = stream_bitrate_t();
  budget_stream_t list[kMaxConfiguredStreams];
  uint32_t count = GatherEnabledStreams(list);
  for (uint32_t i = 0; i < count; i++) {
    BaseVideoEncoderSettings& element = *list[i].element;
    bool h264 = strncmp(list[i].name, "video", 5) == 0;
    if (h264) LoadBitrateLimits((unsigned int)element["streamOrdinal"], element);
    bool ok = h264 ? SetH264Encoding(element) : SetMJPGEncoding(element);
    if (!ok) {
      VLOG_ERROR("Unable to setup encoding:\n%s", element.ToString().c_str());
      return false;
    }
  }
  return true;
}

}  // namespace internal
}  // namespace encoder
}  // namespace vesk

// The adaptive bit rate: camera-server, server-player and motion pressure,
// each with its own current rate; the smallest ceiling is applied.
#include <cstdio>

#include "basetrackencodervideo.h"
#include "motiondetectionthread.h"
#include "vlog.h"

namespace vesk {
namespace encoder {
namespace internal {

namespace {
constexpr uint16_t kCameraServerThreshold = 300;
constexpr uint16_t kServerPlayerThreshold = 10;
constexpr uint8_t kUpPercentStart = 110;
constexpr uint8_t kDownPercentStart = 75;
constexpr uint8_t kUpPercentMax = 200;
constexpr uint8_t kDownPercentAfterIncrease = 90;
constexpr uint8_t kPercentStep = 5;
constexpr uint8_t kMotionFull = 128;
constexpr uint32_t kMotionIntervalMs = 300;
}  // namespace

adaptive_bitrate_t::adaptive_bitrate_t(uint16_t stepThreshold)
    : bitrate_limits_t{0, 0},
      current(0),
      level(kNoLevel),
      count(0),
      threshold(stepThreshold),
      upPercent(kUpPercentStart),
      downPercent(kDownPercentStart) {}

adaptive_bitrate_t::~adaptive_bitrate_t() {}
buffer_adaptive_bitrate_t::~buffer_adaptive_bitrate_t() {}
motion_adaptive_bitrate_t::~motion_adaptive_bitrate_t() {}

void adaptive_bitrate_t::Load(uint32_t minimumRate, uint32_t maximumRate) {
  minimum = minimumRate;
  maximum = maximumRate;
  current = maximumRate;
  level = kNoLevel;
  count = 0;
  upPercent = kUpPercentStart;
  downPercent = kDownPercentStart;
}

void adaptive_bitrate_t::Step(uint8_t reportLevel, int limit) {
  uint8_t L = reportLevel > 100 ? 100 : reportLevel;
  if (level == kNoLevel) {
    level = L;
    count++;
  } else if (level == L) {
    count++;
  } else {
    count = 0;
  }
  if (L == 0 && count >= threshold) {
    upPercent = (uint8_t)(upPercent + kPercentStep > kUpPercentMax ? kUpPercentMax : upPercent + kPercentStep);
    uint32_t raised = current * upPercent / 100;
    current = raised < maximum ? raised : maximum;
    downPercent = kDownPercentAfterIncrease;
    count = 0;
    level = 0;
  } else if (L > 0 && (count >= threshold || (L > level && L / 5 > level / 5))) {
    downPercent = (uint8_t)(downPercent - kPercentStep < kDownPercentStart ? kDownPercentStart
                                                                         : downPercent - kPercentStep);
    uint32_t lowered = current * downPercent / 100;
    if (limit >= 0) {
      int64_t cap = (int64_t)downPercent * limit / 100;
      if ((int64_t)lowered > cap) lowered = (uint32_t)cap;
    }
    current = lowered > minimum ? lowered : minimum;
    upPercent = kUpPercentStart;
    count = 0;
    level = L;
  } else {
    level = L;
  }
}

stream_bitrate_t::stream_bitrate_t()
    : applied(0),
      cameraServer(kCameraServerThreshold),
      serverPlayerEnabled(false),
      serverPlayer(kServerPlayerThreshold),
      motionEnabled(false),
      lastMotionLevel(kMotionFull),
      nextMotionStep(0),
      motionInterval(kMotionIntervalMs) {}

void BaseTrackEncoderVideo::LoadBitrateLimits(unsigned int ordinal, Variant& element) {
  if (ordinal >= kAdaptiveSlots) return;
  // A typed copy of the (normalised) element: reads only, so nothing is lost.
  BaseVideoEncoderSettings settings(element);
  stream_bitrate_t& record = bitrates_[ordinal];
  uint32_t maximum = settings.bitRateVbrMax();
  record.cameraServer.Load(settings.validBitrateRangeMin(), maximum);
  int minClient = settings.minClientAdaptiveBitRate();
  record.serverPlayerEnabled = minClient > 0;
  record.serverPlayer.Load(minClient > 0 ? (uint32_t)minClient : 0, maximum);
  int minMotion = settings.minMotionAdaptiveBitRate();
  record.motionEnabled = minMotion > 0;
  record.motion.Load(minMotion > 0 ? (uint32_t)minMotion : 0, maximum);
  record.lastMotionLevel = kMotionFull;
  record.nextMotionStep = 0;
  record.motionInterval = kMotionIntervalMs;
  record.applied = (int32_t)maximum;
}

bool BaseTrackEncoderVideo::RecomputeBitrate(unsigned int slot) {
  stream_bitrate_t& record = bitrates_[slot];
  if (record.cameraServer.maximum == 0) return true;  // no H.264 stream in this slot
  uint32_t result = record.cameraServer.current;
  uint32_t player = record.serverPlayerEnabled ? record.serverPlayer.current : record.serverPlayer.maximum;
  uint32_t motion = record.motionEnabled ? record.motion.current : record.motion.maximum;
  if (player < result) result = player;
  if (motion < result) result = motion;
  if ((int32_t)result == record.applied) return true;
  record.applied = (int32_t)result;
  if (record.applied < 0) return true;
  if (SetBitRate((int)ComputeStreamId(slot), false, result, result)) return true;
  VLOG_ERROR("Unable to setup bitrate");
  return false;
}

void BaseTrackEncoderVideo::AdaptCameraServerBitrate(unsigned char level) {
  for (unsigned int slot = 0; slot < kAdaptiveSlots; slot++) {
    if (level != kNoLevel) bitrates_[slot].cameraServer.Step(level);
    RecomputeBitrate(slot);
  }
}

bool BaseTrackEncoderVideo::AdaptServerPlayerBitrate(unsigned int stream, signed char level, int limit,
                                                     bool reset) {
  unsigned int slot = stream % kVideoStreamSlots;
  stream_bitrate_t& record = bitrates_[slot];
  if (!record.serverPlayerEnabled) return true;
  adaptive_bitrate_t& sp = record.serverPlayer;
  if (reset) {
    sp.level = kNoLevel;
    sp.count = sp.threshold / 2;
    sp.upPercent = kUpPercentMax;
    sp.downPercent = kDownPercentStart;
    sp.current = sp.minimum;
  } else if (level < 0) {
    sp.level = kNoLevel;
    sp.count = 0;
    sp.upPercent = kUpPercentStart;
    sp.downPercent = kDownPercentStart;
    sp.current = sp.maximum;
  } else {
    sp.Step((uint8_t)(level > 100 ? 100 : level), limit);
  }
  RecomputeBitrate(slot);
  return true;
}

void BaseTrackEncoderVideo::AdaptMotion(unsigned long long now) {
  for (unsigned int slot = 0; slot < kAdaptiveSlots; slot++) {
    stream_bitrate_t& record = bitrates_[slot];
    if (!record.motionEnabled) continue;
    if (now >= record.nextMotionStep) {
      record.nextMotionStep = now + record.motionInterval;
      uint8_t m = MotionDetectionThread::GetCoefficient();
      if (m != record.lastMotionLevel) {
        record.lastMotionLevel = m;
        adaptive_bitrate_t& motion = record.motion;
        uint32_t value = motion.minimum + ((m * (motion.maximum - motion.minimum)) >> 7);
        motion.current = value < motion.maximum ? value : motion.maximum;
      }
    }
    RecomputeBitrate(slot);
  }
}

unsigned int BaseTrackEncoderVideo::FixBitrate(int streamId, unsigned int bitrate) {
  const bitrate_fix_t& fix = fixes_[ComputeStreamOrdinal((unsigned int)streamId) % kVideoStreamSlots];
  if (fix.passThrough || fix.denominator == 0) return bitrate;
  return (unsigned int)((uint64_t)bitrate * fix.numerator / fix.denominator);
}

void BaseTrackEncoderVideo::ComputeMaxAllowedBitrates() {}

namespace {
std::string Block(const adaptive_bitrate_t& r) {
  char text[64];
  snprintf(text, sizeof(text), "[%4u - %4u - %4d]", r.minimum / 1000, r.current / 1000, (int)(r.maximum / 1000));
  return text;
}
const char kNotEnabled[] = "[    not enabled   ]";
}  // namespace

void BaseTrackEncoderVideo::GetChannelsOSDStats(signed char level, std::string& line, unsigned int slot) {
  const stream_bitrate_t& r = bitrates_[slot % kVideoStreamSlots];
  char text[256];
  line.clear();
  if (level < 1) return;
  if (level == 1) {
    snprintf(text, sizeof(text), "%u kbps", (unsigned)(r.applied / 1000));
    line = text;
    return;
  }
  std::string cs = r.cameraServer.minimum != 0 ? Block(r.cameraServer) : kNotEnabled;
  std::string sp = kNotEnabled;
  if (r.serverPlayerEnabled) {
    snprintf(text, sizeof(text), "(%2u)", (unsigned)r.serverPlayer.level);
    sp = text + Block(r.serverPlayer);
  }
  std::string m = r.motionEnabled ? Block(r.motion) : kNotEnabled;
  snprintf(text, sizeof(text), "CS: %s; SP: %s; M: %s; T: %u", cs.c_str(), sp.c_str(), m.c_str(),
           (unsigned)(r.applied / 1000));
  line = text;
}

}  // namespace internal
}  // namespace encoder
}  // namespace vesk

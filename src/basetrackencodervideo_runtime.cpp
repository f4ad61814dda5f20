// Runtime video changes: frame rate and IDR cadence, bit rate and the
// adaptive minima of the H.264 streams, MJPEG quality, and the VIN's HDR
// mode (kept for the next start). Values still at a request's "not
// requested" default change nothing; the current settings always hold what
// the chip accepted.
#include <string>

#include "basetrackencodervideo.h"
#include "vlog.h"

namespace vesk {
namespace encoder {
namespace internal {

using vesk::ipc::messages::ChangeVideoSettings;
using vesk::ipc::messages::VideoSettings;
using vesk::ipc::messages::VideoSettingsElement;

namespace {

// A request's bit rate that was not given.
constexpr unsigned int kRateNotRequested = 16383;
// The motion level of full motion, the level a record starts from.
constexpr uint8_t kMotionLevelFull = 128;

std::string NameOf(const Variant& element) {
  const Variant& name = element["name"];
  return name.IsString() ? (std::string)name : std::string();
}

bool IsTrue(const Variant& element, const char* key) {
  const Variant& value = element[key];
  return value.IsBool() && (bool)value;
}

unsigned int NumberOr(const Variant& element, const char* key, unsigned int fallback) {
  const Variant& value = element[key];
  return value.IsNumeric() ? (unsigned int)value : fallback;
}

int SignedOr(const Variant& element, const char* key, int fallback) {
  const Variant& value = element[key];
  return value.IsNumeric() ? (int)value : fallback;
}

// A new minimum for one adaptive record. A record that starts adapting begins
// at its maximum; one that keeps adapting keeps its state above the minimum.
void SetAdaptiveMinimum(adaptive_bitrate_t& record, bool& enabled, int minimum) {
  bool wasEnabled = enabled;
  enabled = minimum > 0;
  uint32_t low = minimum > 0 ? (uint32_t)minimum : 0;
  if (low > record.maximum) low = record.maximum;
  if (enabled && !wasEnabled) {
    record.Load(low, record.maximum);
    return;
  }
  record.minimum = low;
  if (record.current < low) record.current = low;
}

}  // namespace

bool BaseTrackEncoderVideo::UpdateSettings(ChangeVideoSettings& request) {
  request.NormalizeFields();
  VideoEncoderSettings& video = settings_.video();
  VideoSettings& requested = request.video();
  const char* mjpeg = video.mjpg1().enabled() ? "mjpg1" : "mjpg";
  const char* keys[] = {"video1", "video2", "video3", mjpeg, "mjpg2"};
  for (const char* key : keys) {
    if (!requested.HasKey(key)) continue;
    if (!UpdateStreamSettings(video[key], requested[key])) return false;
  }
  bool restartNeeded = false;
  return UpdateVinSettings(video, requested, restartNeeded);
}

bool BaseTrackEncoderVideo::UpdateStreamSettings(Variant& current, Variant& requested) {
  // Only the streams the chip encodes now can change.
  if (!current.IsMap() || !IsTrue(current, "enabled") || !current.HasKey("streamOrdinal")) return true;
  const Variant& type = current["type"];
  if (type.IsString() && (std::string)type == "mjpg") return UpdateMJPGStream(current, requested);
  return UpdateH264Stream(current, requested);
}

bool BaseTrackEncoderVideo::UpdateH264Stream(Variant& element, Variant& requested) {
  VideoSettingsElement request(requested);
  request.NormalizeFields();
  if (!UpdateFrameRate(element, request)) return false;
  if (!UpdateBitrate(element, request)) return false;
  return UpdateAdaptiveMinima(element, request);
}

bool BaseTrackEncoderVideo::UpdateFrameRate(Variant& element, VideoSettingsElement& request) {
  std::string name = NameOf(element);
  unsigned int ordinal = (unsigned int)element["streamOrdinal"];
  int streamId = (int)element["streamId"];
  unsigned int oldFps = NumberOr(element, "fps", 0);
  unsigned int oldMultiplier = NumberOr(element, "nMultiplier", 1);
  unsigned int newFps = oldFps;
  unsigned int newMultiplier = oldMultiplier;
  if (request.fps() != 0)
    newFps = ComputeFPS(request.fps(), NumberOr(element, "maxFps", GetVinFps(0)), kVideoClock);
  if (request.nMultiplier() != 0) newMultiplier = request.nMultiplier();
  if (newFps == oldFps && newMultiplier == oldMultiplier) return true;

  if (newFps != oldFps && !BudgetTakesFps(name, newFps)) {
    VLOG_ERROR("Unable to set the new values on MPMA");
    return false;
  }
  if (!SetGopInfo(ordinal, streamId, (unsigned char)newFps, (unsigned char)newMultiplier, true)) {
    if (newFps != oldFps)
      VLOG_ERROR("Unable to change FPS on channel %s: %u -> %u", name.c_str(), oldFps, newFps);
    else
      VLOG_ERROR("Unable to change IDR interval on channel %s: %u -> %u", name.c_str(), oldMultiplier,
                 newMultiplier);
    return false;
  }
  element["fps"] = (unsigned char)newFps;
  element["nMultiplier"] = newMultiplier;
  if (newFps != oldFps) VLOG_INFO("Changed fps on channel %s: %u -> %u", name.c_str(), oldFps, newFps);
  if (newMultiplier != oldMultiplier)
    VLOG_INFO("Changed nMultiplier on channel %s: %u -> %u", name.c_str(), oldMultiplier, newMultiplier);
  // The bit-rate correction follows the stream rate: program it again so
  // that the delivered rate stays as configured.
  if (newFps != oldFps && !ReapplyBitrate(element)) return false;
  return true;
}

bool BaseTrackEncoderVideo::ReapplyBitrate(Variant& element) {
  unsigned int ordinal = (unsigned int)element["streamOrdinal"];
  int streamId = (int)element["streamId"];
  unsigned int rate = NumberOr(element, "bitRateVbrMax", 0);
  const stream_bitrate_t& record = bitrates_[ordinal % kVideoStreamSlots];
  if (ordinal < kAdaptiveSlots && record.cameraServer.maximum != 0 && record.applied >= 0)
    rate = (unsigned int)record.applied;
  if (SetBitRate(streamId, false, rate, rate)) return true;
  VLOG_ERROR("Unable to update the bitrate");
  return false;
}

bool BaseTrackEncoderVideo::BudgetTakesFps(const std::string& name, unsigned int fps) {
  budget_stream_t list[kMaxConfiguredStreams];
  uint32_t count = GatherEnabledStreams(list);
  // The budget walk writes its clamped values back: give it copies.
  BaseVideoEncoderSettings copies[kMaxConfiguredStreams];
  for (uint32_t i = 0; i < count; i++) {
    copies[i] = (const Variant&)*list[i].element;
    if (name == list[i].name) copies[i]["fps"] = (unsigned char)fps;
    list[i].element = &copies[i];
  }
  return CheckBudget(list, count);
}

bool BaseTrackEncoderVideo::UpdateBitrate(Variant& element, VideoSettingsElement& request) {
  bool vbrGiven = request.bitRateVbrMax() != kRateNotRequested;
  bool cbrGiven = request.bitRateCbrAvg() != kRateNotRequested;
  if (!vbrGiven && !cbrGiven) return true;

  std::string name = NameOf(element);
  unsigned int ordinal = (unsigned int)element["streamOrdinal"];
  int streamId = (int)element["streamId"];
  unsigned int oldVbr = NumberOr(element, "bitRateVbrMax", 0);
  unsigned int oldCbr = NumberOr(element, "bitRateCbrAvg", 0);
  bool oldIsCbr = IsTrue(element, "isCbr");
  unsigned int newVbr = vbrGiven ? request.bitRateVbrMax() : oldVbr;
  unsigned int newCbr = cbrGiven ? request.bitRateCbrAvg() : oldCbr;
  bool newIsCbr = request.isCbr();

  // Requested rates stay inside the stream's valid range; the VBR rate also
  // above its own floor when the stream has one.
  unsigned int low = NumberOr(element, "validBitrateRangeMin", 0);
  unsigned int high = NumberOr(element, "validBitrateRangeMax", 0);
  if (low <= high) {
    if (vbrGiven) newVbr = newVbr < low ? low : (newVbr > high ? high : newVbr);
    if (cbrGiven) newCbr = newCbr < low ? low : (newCbr > high ? high : newCbr);
  }
  unsigned int vbrFloor = NumberOr(element, "bitRateVbrMin", 0);
  if (vbrGiven && newVbr < vbrFloor) newVbr = vbrFloor;
  if (newVbr == oldVbr && newCbr == oldCbr && newIsCbr == oldIsCbr) return true;

  if (!SetBitRate(streamId, newIsCbr, newCbr, newVbr)) {
    VLOG_ERROR("Unable to update the bitrate");
    VLOG_ERROR("Unable to change bit rate on channel %s. VBR: %u -> %u; CBR: %u -> %u; isCbr: %d -> %d",
               name.c_str(), oldVbr, newVbr, oldCbr, newCbr, (int)oldIsCbr, (int)newIsCbr);
    return false;
  }
  element["bitRateVbrMax"] = newVbr;
  element["bitRateCbrAvg"] = newCbr;
  element["isCbr"] = newIsCbr;
  // The adaptive limits follow the new maximum, starting again from it.
  LoadBitrateLimits(ordinal, element);
  VLOG_INFO("Changed bitRateVbrMax/bitRateCbrAvg on channel %s. VBR: %u -> %u; CBR: %u -> %u; isCbr: %d -> %d",
            name.c_str(), oldVbr, newVbr, oldCbr, newCbr, (int)oldIsCbr, (int)newIsCbr);
  return true;
}

bool BaseTrackEncoderVideo::UpdateAdaptiveMinima(Variant& element, VideoSettingsElement& request) {
  std::string name = NameOf(element);
  unsigned int ordinal = (unsigned int)element["streamOrdinal"];
  stream_bitrate_t& record = bitrates_[ordinal % kVideoStreamSlots];
  bool adaptive = ordinal < kAdaptiveSlots;
  bool changed = false;

  int client = request.minClientAdaptiveBitRate();
  int oldClient = SignedOr(element, "minClientAdaptiveBitRate", 0);
  if (client >= 0 && client != oldClient) {
    element["minClientAdaptiveBitRate"] = client;
    if (adaptive) SetAdaptiveMinimum(record.serverPlayer, record.serverPlayerEnabled, client);
    VLOG_INFO("Changed newMinClientAdaptiveBitRate on channel %s. %d -> %d", name.c_str(), oldClient, client);
    changed = true;
  }
  int motion = request.minMotionAdaptiveBitRate();
  int oldMotion = SignedOr(element, "minMotionAdaptiveBitRate", 0);
  if (motion >= 0 && motion != oldMotion) {
    element["minMotionAdaptiveBitRate"] = motion;
    if (adaptive) {
      bool wasEnabled = record.motionEnabled;
      SetAdaptiveMinimum(record.motion, record.motionEnabled, motion);
      if (record.motionEnabled && !wasEnabled) {
        // The next motion step reads the level afresh.
        record.lastMotionLevel = kMotionLevelFull;
        record.nextMotionStep = 0;
      }
    }
    VLOG_INFO("Changed newMinMotionAdaptiveBitRate on channel  %s: %d -> %d", name.c_str(), oldMotion, motion);
    changed = true;
  }
  if (!changed || !adaptive) return true;
  if (RecomputeBitrate(ordinal)) return true;
  VLOG_ERROR("Unable to update the bitrate");
  return false;
}

bool BaseTrackEncoderVideo::UpdateMJPGStream(Variant& element, Variant& requested) {
  VideoSettingsElement request(requested);
  request.NormalizeFields();
  unsigned int quality = request.quality();
  unsigned int oldQuality = NumberOr(element, "quality", 0);
  if (quality == 0 || quality == oldQuality) return true;
  Variant changed = element;
  changed["quality"] = (unsigned char)quality;
  if (!SetMJPGEncoding(changed)) {
    VLOG_ERROR("Unable to update settings encoding:%s", changed.ToString().c_str());
    return false;
  }
  element["quality"] = (unsigned char)quality;
  VLOG_INFO("Changed quality on channel  %s: %u -> %u", NameOf(element).c_str(), oldQuality, quality);
  return true;
}

bool BaseTrackEncoderVideo::UpdateVinSettings(Variant& current, Variant& requested, bool& restartNeeded) {
  VideoSettings request(requested);
  int wanted = request.hdrMode();
  unsigned int old = NumberOr(current, "hdrMode", 0);
  if (wanted < 0 || (unsigned int)wanted == old) return true;
  // The VIN is programmed only by Initialize: the new mode waits for it.
  VLOG_INFO("Vin[%u]: Changed hdrMode. %u -> %u, restart to take effect", 0u, old, (unsigned int)wanted);
  current["hdrMode"] = (unsigned char)wanted;
  restartNeeded = true;
  return true;
}

}  // namespace internal
}  // namespace encoder
}  // namespace vesk

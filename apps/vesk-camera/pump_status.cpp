#include "pump_status.h"

namespace vesk {
namespace camera {

namespace {

constexpr int64_t kSamplesPerAudioFrame = 1024;

bool SameTime(const vesk::encoder::timestamp_t& a, const vesk::encoder::timestamp_t& b) {
  return a.value == b.value && a.timescale == b.timescale;
}

}  // namespace

PumpStatus::PumpStatus(const vesk::encoder::Encoder& encoder) : encoder_(encoder) {
  scratch_.name.reserve(64);
  for (unsigned slot = 0; slot < kSlots; slot++) {
    if (!encoder_.GetStreamStatus(slot, scratch_)) continue;
    slots_[slot].seen = slots_[slot].present = true;
    slots_[slot].lastVideo = scratch_.lastVideo;
    slots_[slot].lastAudio = scratch_.lastAudio;
  }
}

void PumpStatus::AfterPass(int moved) {
  // At most one picture per pass: find the stream whose last video time moved.
  int pictures = 0;
  bool audioFed[kSlots] = {};
  int64_t audioByTime = -1;
  for (unsigned slot = 0; slot < kSlots; slot++) {
    slot_t& state = slots_[slot];
    state.present = encoder_.GetStreamStatus(slot, scratch_);
    if (!state.present) continue;
    state.seen = true;
    if (scratch_.lastVideo.IsSet() && !SameTime(scratch_.lastVideo, state.lastVideo)) {
      state.pictures++;
      pictures = 1;
    }
    if (scratch_.lastAudio.IsSet() && !SameTime(scratch_.lastAudio, state.lastAudio)) {
      audioFed[slot] = true;
      // Consecutive audio frames are 1024 samples apart (the timescale is the sample rate).
      if (state.lastAudio.IsSet() && state.lastAudio.timescale == scratch_.lastAudio.timescale &&
          scratch_.lastAudio.value > state.lastAudio.value)
        audioByTime = (scratch_.lastAudio.value - state.lastAudio.value) / kSamplesPerAudioFrame;
    }
    state.lastVideo = scratch_.lastVideo;
    state.lastAudio = scratch_.lastAudio;
  }
  // The rest of the pass was audio, unless a picture went to an empty slot;
  // the audio clock tells which when it can.
  int64_t audio = moved - pictures;
  if (audioByTime >= 1 && audioByTime < audio) audio = audioByTime;
  if (audio < 0) audio = 0;
  for (unsigned slot = 0; slot < kSlots; slot++) {
    if (audioFed[slot]) slots_[slot].audioFrames += (uint64_t)audio;
  }
}

void PumpStatus::Print(FILE* out, uint64_t elapsedMs) {
  bool any = false;
  for (unsigned slot = 0; slot < kSlots; slot++) {
    slot_t& state = slots_[slot];
    if (!encoder_.GetStreamStatus(slot, scratch_)) {
      if (state.seen && state.present) fprintf(out, "[%6.1fs] stream %u: gone\n", elapsedMs / 1000.0, slot);
      state.present = false;
      continue;
    }
    state.seen = state.present = true;
    any = true;
    char rate[32];
    if (scratch_.outputBytesPerSecond < 0)
      snprintf(rate, sizeof(rate), "-");
    else
      snprintf(rate, sizeof(rate), "%.0f kbit/s", scratch_.outputBytesPerSecond * 8.0 / 1000.0);
    fprintf(out, "[%6.1fs] stream %u %s: pictures %llu (+%llu), audio frames %llu (+%llu), out %s, "
                 "destinations %u (%u delivering)\n",
            elapsedMs / 1000.0, slot, scratch_.name.c_str(), (unsigned long long)state.pictures,
            (unsigned long long)(state.pictures - state.picturesAtLastPrint),
            (unsigned long long)state.audioFrames, (unsigned long long)(state.audioFrames - state.audioAtLastPrint),
            rate, scratch_.transports, scratch_.connected);
    state.picturesAtLastPrint = state.pictures;
    state.audioAtLastPrint = state.audioFrames;
  }
  if (!any) fprintf(out, "[%6.1fs] no output stream\n", elapsedMs / 1000.0);
  fflush(out);
}

void PumpStatus::PrintTotals(FILE* out) {
  for (unsigned slot = 0; slot < kSlots; slot++) {
    const slot_t& state = slots_[slot];
    if (!state.seen) continue;
    fprintf(out, "total stream %u: pictures %llu, audio frames %llu\n", slot, (unsigned long long)state.pictures,
            (unsigned long long)state.audioFrames);
  }
}

}  // namespace camera
}  // namespace vesk

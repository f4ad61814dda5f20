// What the pump delivered, per output stream, for the run's status lines.
// The encoder reports how many frames a pass moved; which stream a picture
// went to shows in the stream's last video time, and every audio frame goes
// to every stream.
#pragma once

#include <cstdint>
#include <cstdio>

#include "vesk/encoder.h"

namespace vesk {
namespace camera {

class PumpStatus {
 public:
  explicit PumpStatus(const vesk::encoder::Encoder& encoder);

  // After a pass of EncodeFrames that moved `moved` frames.
  void AfterPass(int moved);
  // One line per output stream; `elapsedMs` since the pump started.
  void Print(FILE* out, uint64_t elapsedMs);
  // The totals, one line per stream that ever existed.
  void PrintTotals(FILE* out);

 private:
  static const unsigned kSlots = vesk::encoder::Encoder::kMaxOutStreams;
  struct slot_t {
    bool seen = false;
    bool present = false;
    vesk::encoder::timestamp_t lastVideo;
    vesk::encoder::timestamp_t lastAudio;
    uint64_t pictures = 0;
    uint64_t audioFrames = 0;
    uint64_t picturesAtLastPrint = 0;
    uint64_t audioAtLastPrint = 0;
  };

  const vesk::encoder::Encoder& encoder_;
  vesk::encoder::Encoder::stream_status_t scratch_;
  slot_t slots_[kSlots];
};

}  // namespace camera
}  // namespace vesk

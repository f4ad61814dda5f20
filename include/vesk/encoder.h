// The public entry point of libvesk_encoder.
#pragma once

#include "vesk/messages.h"
#include "vesk/records.h"
#include "vesk/settings.h"
#include "vesk/streaminfo.h"

namespace vesk {
namespace encoder {

// The library's one object, owned and driven by the host from its pump thread.
class Encoder {
 public:
  Encoder();
  virtual ~Encoder();
  Encoder(const Encoder&) = delete;
  Encoder& operator=(const Encoder&) = delete;

  // Asks the video track for an IDR picture on all streams.
  bool ForceIDR();
  // Forwards a peer's report (level, rate in bits per second, whether the peer
  // asked for an IDR picture) to the video track.
  bool AdaptServerPlayerBitrate(unsigned int channel, signed char level, int bitrate,
                                bool resetOutputBitrate);

  // Reads one decimal number from a text file (the hardware timer's files).
  static bool ReadHWClockFile(const char* path, long long& value);
  // The hardware timer's current tick count, with its frequency as timescale.
  // False, with out left not set, when either timer file cannot be read.
  static bool GetCurrentHWClock(timestamp_t* out);
};

}  // namespace encoder
}  // namespace vesk

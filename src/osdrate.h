// The output-rate suffix of an on-screen statistics line.
#pragma once

#include <cstdint>
#include <string>

#include "vesk/utils/utils.h"

namespace vesk {
namespace encoder {
namespace internal {

// Appends "; R: <rate>" for a measured output rate in bytes per second; an
// unknown (-1) or zero rate appends nothing. The rate is shifted right by 7
// bits: bytes per second / 128 = kibibits per second.
inline void AppendOutputRate(std::string& line, int64_t bytesPerSecond) {
  if (bytesPerSecond < 1) return;
  line += vesk::utils::format("; R: %lld", (long long)(bytesPerSecond >> 7));
}

}  // namespace internal
}  // namespace encoder
}  // namespace vesk

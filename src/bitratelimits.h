// A minimum and a maximum bit rate in bit/s.
#pragma once

#include <cstdint>

namespace vesk {
namespace encoder {
namespace internal {

struct bitrate_limits_t {
  uint32_t minimum;
  uint32_t maximum;
};

}  // namespace internal
}  // namespace encoder
}  // namespace vesk

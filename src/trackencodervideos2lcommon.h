// What the S2L chip family shares: the chip table, chip detection and the
// starting-QP table.
#pragma once

#include <cstddef>
#include <cstdint>

namespace vesk {
namespace encoder {
namespace internal {

struct chip_t {
  int32_t id;            // as IAV_IOC_GET_CHIP_ID reports it
  const char* name;
  uint32_t performance;  // macroblocks (16x16) per second the encoder can take
  uint32_t limit;        // always 0x7FFFFFFF
  uint32_t cortexMHz;
  uint32_t idspMHz;
  uint32_t coreMHz;
  uint32_t dramMHz;
};

extern const chip_t chips[];
extern const size_t chipsCount;

// The table row of the running chip; an unidentifiable chip ends the process.
const chip_t& GetChip();
uint32_t GetChipPerformance();

// The starting QP for a bit rate and a picture of `pixels` pixels; -1 (and an
// info line) when no column matches.
int LookupTargetQP(unsigned int bitrate, uint64_t pixels);

}  // namespace internal
}  // namespace encoder
}  // namespace vesk

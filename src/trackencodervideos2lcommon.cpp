#include "trackencodervideos2lcommon.h"

#include <errno.h>
#include <fcntl.h>

#include "vesk/device/device.h"
#include "vesk/device/iav.h"
#include "vesk/host/log.h"
#include "vlog.h"

namespace vesk {
namespace encoder {
namespace internal {

// One row more than chipsCount names: GetChip's bound lets id 8 read it, as
// the detection has always done; the extra row keeps that read inside memory.
const chip_t chips[] = {
    {-1, "UNKNOWN", 0, 0x7FFFFFFF, 0, 0, 0, 0},
    {0, "S2L_22M", 216000, 0x7FFFFFFF, 600, 144, 144, 456},
    {1, "S2L_33M", 305340, 0x7FFFFFFF, 600, 144, 144, 528},
    {2, "S2L_55M", 409140, 0x7FFFFFFF, 600, 216, 216, 528},
    {3, "S2L_99M", 0, 0x7FFFFFFF, 600, 216, 216, 564},
    {4, "S2L_63", 409140, 0x7FFFFFFF, 816, 336, 312, 600},
    {5, "S2L_66", 633420, 0x7FFFFFFF, 1008, 504, 432, 660},
    {6, "S2L_88", 633420, 0x7FFFFFFF, 1008, 504, 432, 660},
    {7, "S2L_99", 0, 0x7FFFFFFF, 1008, 504, 432, 660},
    {-1, "UNKNOWN", 0, 0x7FFFFFFF, 0, 0, 0, 0},
};
const size_t chipsCount = 9;

const chip_t& GetChip() {
  int fd = vdev_open(VDEV_PATH_IAV, O_RDWR);
  if (fd < 0) {
    VLOG_ERRNO(VESK_PRIO_ERROR, errno, "Opening IAV failed");
    forceCrash();
  }
  int32_t id = -1;
  if (vdev_ioctl(fd, IAV_IOC_GET_CHIP_ID, &id) != 0) {
    VLOG_ERRNO(VESK_PRIO_ERROR, errno, "IAV_IOC_GET_CHIP_ID failed");
    forceCrash();
  }
  if (id < 0) {
    VLOG_ERROR("chipId not properly detected");
    forceCrash();
  }
  if ((size_t)id >= chipsCount) {
    VLOG_ERROR("chipId is out of the known range of chip IDs. Max value is %zu.", chipsCount);
    forceCrash();
  }
  vdev_close(fd);
  return chips[id + 1];
}

uint32_t GetChipPerformance() { return GetChip().performance; }

namespace {
const unsigned int kQpBitrates[12] = {256000,  512000,  768000,  1000000, 1500000,  2000000,
                                      3000000, 4000000, 6000000, 8000000, 10000000, 2147483647};
const uint64_t kQpPixels[11] = {2073600, 1310720, 1228800, 921600, 786432, 480000,
                                414720,  345600,  307200,  101376, 84480};
const uint8_t kQpTable[12][11] = {
    {31, 29, 27, 27, 26, 23, 23, 22, 22, 17, 16}, {30, 26, 25, 25, 24, 22, 21, 20, 20, 16, 15},
    {28, 25, 24, 24, 23, 21, 20, 19, 19, 15, 14}, {27, 24, 23, 23, 22, 20, 19, 18, 18, 14, 13},
    {26, 24, 22, 22, 21, 19, 18, 17, 17, 12, 11}, {25, 23, 22, 21, 19, 18, 17, 16, 16, 11, 10},
    {24, 22, 21, 20, 19, 17, 16, 15, 15, 9, 8},   {23, 21, 20, 19, 18, 16, 15, 14, 14, 8, 7},
    {22, 20, 19, 18, 17, 15, 14, 13, 12, 5, 1},   {21, 19, 18, 17, 16, 14, 13, 12, 11, 1, 1},
    {21, 18, 17, 16, 15, 13, 12, 11, 10, 1, 1},   {1, 1, 1, 1, 1, 1, 1, 1, 1, 1, 1},
};
}  // namespace

int LookupTargetQP(unsigned int bitrate, uint64_t pixels) {
  int row = 11;
  for (int r = 0; r < 12; r++) {
    if (kQpBitrates[r] > bitrate) {
      row = r;
      break;
    }
  }
  int column = -1;
  uint64_t best = 0;
  for (int c = 0; c < 11; c++) {
    uint64_t distance = pixels > kQpPixels[c] ? pixels - kQpPixels[c] : kQpPixels[c] - pixels;
    if (column < 0 || distance < best) {
      column = c;
      best = distance;
    }
    if (distance == 0) break;
  }
  if (column < 0) {
    VLOG_INFO("Invalid resolution: %d", (int)pixels);
    return -1;
  }
  return kQpTable[row][column];
}

}  // namespace internal
}  // namespace encoder
}  // namespace vesk

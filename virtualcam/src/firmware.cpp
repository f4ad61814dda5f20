#include "firmware.h"

#include <errno.h>
#include <stdio.h>
#include <string.h>

namespace vesk::virtualcam {

const FirmwareItem kFirmwareItems[kFirmwareItemCount] = {
    {"vdsp_code.bin", 0x0000, 12 * 1024},
    {"vdsp_me.bin", 0x4000, 6 * 1024},
    {"vdsp_data.bin", 0x8000, 10 * 1024 + 123},
};

uint8_t FirmwareByte(int item, uint32_t position) {
  static const char kMagic[4] = {'V', 'D', 'S', 'P'};
  if (position < 4) return static_cast<uint8_t>(kMagic[position]);
  uint32_t h = (position + 1) * 0x9E3779B1u ^ static_cast<uint32_t>(item + 1) * 0x85EBCA77u;
  h ^= h >> 13;
  h *= 0xC2B2AE3Du;
  h ^= h >> 16;
  return static_cast<uint8_t>(h);
}

void FillUcodeLoad(iav_ucode_load_t* load, uint32_t mapSize) {
  memset(load, 0, sizeof(*load));
  load->mapSize = mapSize;
  load->itemCount = kFirmwareItemCount;
  for (int i = 0; i < kFirmwareItemCount; ++i) {
    load->items[i].offset = kFirmwareItems[i].offset;
    snprintf(load->items[i].fileName, sizeof(load->items[i].fileName), "%s", kFirmwareItems[i].fileName);
  }
}

bool FirmwareResident(const uint8_t* region, size_t regionSize) {
  for (int i = 0; i < kFirmwareItemCount; ++i) {
    const FirmwareItem& item = kFirmwareItems[i];
    if (item.offset + item.size > regionSize) return false;
    for (uint32_t p = 0; p < item.size; ++p)
      if (region[item.offset + p] != FirmwareByte(i, p)) return false;
  }
  return true;
}

bool WriteFirmware(const char* directory) {
  for (int i = 0; i < kFirmwareItemCount; ++i) {
    char path[4096];
    snprintf(path, sizeof(path), "%s/%s", directory, kFirmwareItems[i].fileName);
    FILE* file = fopen(path, "wb");
    if (file == nullptr) return false;
    uint8_t chunk[1024];
    uint32_t written = 0;
    bool ok = true;
    while (ok && written < kFirmwareItems[i].size) {
      uint32_t n = kFirmwareItems[i].size - written;
      if (n > sizeof(chunk)) n = sizeof(chunk);
      for (uint32_t k = 0; k < n; ++k) chunk[k] = FirmwareByte(i, written + k);
      ok = fwrite(chunk, 1, n, file) == n;
      written += n;
    }
    int err = errno;
    if (fclose(file) != 0) ok = false;
    if (!ok) {
      errno = err != 0 ? err : EIO;
      return false;
    }
  }
  return true;
}

}  // namespace vesk::virtualcam

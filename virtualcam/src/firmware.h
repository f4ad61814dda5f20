// The microcode items of the virtual DSP: their files, where they load and
// the bytes each file holds.
#ifndef VESK_VIRTUALCAM_FIRMWARE_H
#define VESK_VIRTUALCAM_FIRMWARE_H

#include <stddef.h>
#include <stdint.h>

#include "vesk/device/iav.h"

namespace vesk::virtualcam {

struct FirmwareItem {
  const char* fileName;
  uint32_t offset;  // in the mapped /dev/ucode region
  uint32_t size;
};

constexpr int kFirmwareItemCount = 3;
extern const FirmwareItem kFirmwareItems[kFirmwareItemCount];

// Byte `position` of item `item`'s file.
uint8_t FirmwareByte(int item, uint32_t position);

// Fills the load record.
void FillUcodeLoad(iav_ucode_load_t* load, uint32_t mapSize);

// True when the region holds every item's bytes at its offset.
bool FirmwareResident(const uint8_t* region, size_t regionSize);

// Writes the item files into `directory`. False with errno.
bool WriteFirmware(const char* directory);

}  // namespace vesk::virtualcam

#endif

// The C entry points: the device backend and the control interface.
#include <errno.h>
#include <string.h>
#include <sys/mman.h>

#include "camera.h"
#include "firmware.h"
#include "vesk/device/device.h"
#include "vesk/virtualcam/backend.h"
#include "vesk/virtualcam/virtualcam.h"

using vesk::virtualcam::VirtualCamera;

extern "C" {

int vcam_dev_serves(const char* path) {
  return strcmp(path, VDEV_PATH_IAV) == 0 || strcmp(path, VDEV_PATH_UCODE) == 0 ||
         strcmp(path, VDEV_PATH_HWTIMER) == 0 || strcmp(path, VDEV_PATH_HWTIMER_OUTFREQ) == 0;
}

int vcam_dev_open(const char* path, int flags) {
  if (strcmp(path, VDEV_PATH_IAV) != 0 && strcmp(path, VDEV_PATH_UCODE) != 0) {
    errno = EACCES;  // the timer files are read with vdev_fopen
    return -1;
  }
  return VirtualCamera::Instance().Open(path, flags);
}

int vcam_dev_owns(int fd) {
  if (fd < 0) return 0;
  return VirtualCamera::Instance().Owns(fd) ? 1 : 0;
}

int vcam_dev_close(int fd) { return VirtualCamera::Instance().Close(fd); }

int vcam_dev_ioctl(int fd, unsigned long request, unsigned long argument) {
  return VirtualCamera::Instance().Ioctl(fd, request, argument);
}

void* vcam_dev_mmap(void* /*addr*/, size_t length, int prot, int flags, int fd, off_t offset) {
  return VirtualCamera::Instance().Mmap(length, prot, flags, fd, offset);
}

FILE* vcam_dev_fopen(const char* path, const char* mode) {
  if (strcmp(path, VDEV_PATH_HWTIMER) != 0 && strcmp(path, VDEV_PATH_HWTIMER_OUTFREQ) != 0) {
    errno = ENOENT;
    return nullptr;
  }
  if (mode == nullptr || mode[0] != 'r' || strchr(mode, '+') != nullptr) {
    errno = EACCES;  // read-only files
    return nullptr;
  }
  return VirtualCamera::Instance().OpenTimerFile(path);
}

void vcam_reset(void) { VirtualCamera::Instance().Reset(); }
void vcam_set_chip_id(int32_t chipId) { VirtualCamera::Instance().SetChipId(chipId); }

int vcam_set_sensor_modes(const vcam_sensor_mode_t* modes, size_t count) {
  return VirtualCamera::Instance().SetSensorModes(modes, count) ? 0 : -1;
}

size_t vcam_get_sensor_modes(vcam_sensor_mode_t* modes, size_t capacity) {
  return VirtualCamera::Instance().GetSensorModes(modes, capacity);
}

void vcam_set_scene(vcam_scene_t scene) { VirtualCamera::Instance().SetScene(scene); }
void vcam_set_ucode_loaded(int loaded) { VirtualCamera::Instance().SetUcodeLoaded(loaded != 0); }
int vcam_get_ucode_loaded(void) { return VirtualCamera::Instance().UcodeLoaded() ? 1 : 0; }

int vcam_write_firmware(const char* directory) {
  return vesk::virtualcam::WriteFirmware(directory) ? 0 : -1;
}

int vcam_set_bitstream_size(uint32_t bytes) {
  return VirtualCamera::Instance().SetBitstreamSize(bytes) ? 0 : -1;
}

int vcam_set_queue_depth(uint32_t descriptors) {
  return VirtualCamera::Instance().SetQueueDepth(descriptors) ? 0 : -1;
}

void vcam_set_clock_mode(vcam_clock_mode_t mode) { VirtualCamera::Instance().SetClockMode(mode); }
int vcam_set_clock_rate_ppm(int32_t ppm) { return VirtualCamera::Instance().SetClockRatePpm(ppm) ? 0 : -1; }
void vcam_advance_us(uint64_t microseconds) { VirtualCamera::Instance().Advance(microseconds); }
void vcam_advance_ms(uint32_t milliseconds) {
  VirtualCamera::Instance().Advance(static_cast<uint64_t>(milliseconds) * 1000);
}
uint64_t vcam_timer_ticks(void) { return VirtualCamera::Instance().TimerTicks(); }
void vcam_set_manual_wait_limit_ms(uint32_t milliseconds) {
  VirtualCamera::Instance().SetManualWaitLimit(milliseconds);
}
void vcam_set_replay(int enabled) { VirtualCamera::Instance().SetReplay(enabled != 0); }

void vcam_fault_request(unsigned long request, int err, int count) {
  VirtualCamera::Instance().FaultRequest(request, err, count);
}
void vcam_fault_descriptor(int32_t streamId, uint32_t picType) {
  VirtualCamera::Instance().FaultDescriptor(streamId, picType);
}
void vcam_fault_corrupt_nal(uint32_t count) { VirtualCamera::Instance().FaultCorruptNal(count); }
void vcam_clear_faults(void) { VirtualCamera::Instance().ClearFaults(); }

void vcam_get_status(vcam_status_t* status) { VirtualCamera::Instance().GetStatus(status); }
int vcam_get_stream_status(uint32_t streamId, vcam_stream_status_t* status) {
  return VirtualCamera::Instance().GetStreamStatus(streamId, status) ? 0 : -1;
}
uint32_t vcam_request_count(unsigned long request) { return VirtualCamera::Instance().RequestCount(request); }
void vcam_get_system_resource(struct iav_system_resource* record) {
  VirtualCamera::Instance().GetSystemResource(record);
}
void vcam_get_source_buffers(struct iav_srcbuf_setup* record) {
  VirtualCamera::Instance().GetSourceBuffers(record);
}

}  // extern "C"

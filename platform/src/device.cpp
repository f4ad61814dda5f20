// The device layer: system calls of the kernel, or the virtual camera for the
// paths it serves when the library is built with it.
#include "vesk/device/device.h"

#include <errno.h>
#include <fcntl.h>
#include <stdarg.h>
#include <sys/ioctl.h>
#include <sys/mman.h>
#include <unistd.h>

#ifdef VESK_DEVICE_VIRTUAL
#include "vesk/virtualcam/backend.h"
#endif

extern "C" {

int vdev_open(const char* path, int flags, ...) {
  mode_t mode = 0;
  if ((flags & O_CREAT) != 0) {
    va_list args;
    va_start(args, flags);
    mode = static_cast<mode_t>(va_arg(args, unsigned int));
    va_end(args);
  }
#ifdef VESK_DEVICE_VIRTUAL
  if (path != nullptr && vcam_dev_serves(path)) return vcam_dev_open(path, flags);
#endif
  return open(path, flags, mode);
}

int vdev_close(int fd) {
#ifdef VESK_DEVICE_VIRTUAL
  if (vcam_dev_owns(fd)) return vcam_dev_close(fd);
#endif
  return close(fd);
}

int vdev_ioctl(int fd, unsigned long request, ...) {
  va_list args;
  va_start(args, request);
  // Read as the kernel does: one machine word, a pointer or a value.
  unsigned long argument = va_arg(args, unsigned long);
  va_end(args);
#ifdef VESK_DEVICE_VIRTUAL
  if (vcam_dev_owns(fd)) return vcam_dev_ioctl(fd, request, argument);
#endif
  return ioctl(fd, request, argument);
}

void* vdev_mmap(void* addr, size_t length, int prot, int flags, int fd, off_t offset) {
#ifdef VESK_DEVICE_VIRTUAL
  if (vcam_dev_owns(fd)) return vcam_dev_mmap(addr, length, prot, flags, fd, offset);
#endif
  return mmap(addr, length, prot, flags, fd, offset);
}

int vdev_munmap(void* addr, size_t length) {
  // The virtual camera's mappings are ordinary mappings of this process.
  return munmap(addr, length);
}

FILE* vdev_fopen(const char* path, const char* mode) {
#ifdef VESK_DEVICE_VIRTUAL
  if (path != nullptr && vcam_dev_serves(path)) return vcam_dev_fopen(path, mode);
#endif
  return fopen(path, mode);
}

}  // extern "C"

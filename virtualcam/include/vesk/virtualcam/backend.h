/* The virtual camera's device entry points, called by the platform's device
 * layer (vesk/device/device.h) for the paths the virtual camera serves. They
 * behave as the system calls: -1 (or MAP_FAILED, or NULL) with errno. */
#ifndef VESK_VIRTUALCAM_BACKEND_H
#define VESK_VIRTUALCAM_BACKEND_H

#include <stddef.h>
#include <stdio.h>
#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Non-zero when `path` is served by the virtual camera. */
int vcam_dev_serves(const char* path);

/* Opens a served device node; the descriptor is a real one of this process
 * (so it never collides with the kernel's), owned by the virtual camera. */
int vcam_dev_open(const char* path, int flags);

/* Non-zero when `fd` was opened by vcam_dev_open and is not yet closed. */
int vcam_dev_owns(int fd);

int vcam_dev_close(int fd);
int vcam_dev_ioctl(int fd, unsigned long request, unsigned long argument);
void* vcam_dev_mmap(void* addr, size_t length, int prot, int flags, int fd, off_t offset);

/* Opens one of the hardware timer files for reading; its text is taken when
 * it is opened. */
FILE* vcam_dev_fopen(const char* path, const char* mode);

#ifdef __cplusplus
}
#endif

#endif

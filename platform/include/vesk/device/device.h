/* The device layer: the only way the library touches hardware.
 *
 * The calls behave as the system calls of the same name (results, errno).
 * The backend is chosen when the library is built: on the camera they are the
 * kernel's system calls; on a PC (the default) the paths "/dev/iav",
 * "/dev/ucode", "/proc/ambarella/ambarella_hwtimer" and
 * "/proc/ambarella/ambarella_hwtimer_outfreq" are served by the virtual camera
 * and every other path still goes to the kernel.
 *
 * Request codes and driver records: vesk/device/iav.h. */
#ifndef VESK_DEVICE_DEVICE_H
#define VESK_DEVICE_DEVICE_H

#include <stddef.h>
#include <stdio.h>
#include <sys/types.h>

#ifdef __cplusplus
extern "C" {
#endif

#define VDEV_PATH_IAV "/dev/iav"
#define VDEV_PATH_UCODE "/dev/ucode"
#define VDEV_PATH_HWTIMER "/proc/ambarella/ambarella_hwtimer"
#define VDEV_PATH_HWTIMER_OUTFREQ "/proc/ambarella/ambarella_hwtimer_outfreq"

/* open(2): a descriptor, or -1 with errno. `mode` is read only with O_CREAT. */
int vdev_open(const char* path, int flags, ...);

/* close(2): 0, or -1 with errno. */
int vdev_close(int fd);

/* ioctl(2): the request's result (0 for the IAV requests), or -1 with errno.
 * The third argument is a pointer to the request's record or, for requests
 * that take a value, the value itself (see vesk/device/iav.h). */
int vdev_ioctl(int fd, unsigned long request, ...);

/* mmap(2): the address, or MAP_FAILED with errno. Undo with vdev_munmap. */
void* vdev_mmap(void* addr, size_t length, int prot, int flags, int fd, off_t offset);

/* munmap(2): 0, or -1 with errno. */
int vdev_munmap(void* addr, size_t length);

/* fopen(3) for reading device text files such as the hardware timer's; read
 * with fscanf and close with fclose as any stream. NULL with errno. */
FILE* vdev_fopen(const char* path, const char* mode);

#ifdef __cplusplus
}
#endif

#endif

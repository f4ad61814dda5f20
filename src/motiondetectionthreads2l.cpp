// The motion detection thread's work on the S2L IAV driver: the mapped
// statistics buffer and the wait for each new plane.
#include <errno.h>
#include <fcntl.h>
#include <string.h>
#include <sys/mman.h>

#include "motiondetectionthread.h"
#include "vesk/device/device.h"
#include "vesk/device/iav.h"
#include "vlog.h"

namespace vesk {
namespace encoder {
namespace internal {

void MotionDetectionThread::Work() {
  int fd = vdev_open(VDEV_PATH_IAV, O_RDWR);
  if (fd < 0) {
    VTLOG_ERRNO(VESK_PRIO_ERROR, errno, "Opening IAV failed");
    return;
  }
  iav_querybuf_t buffer;
  memset(&buffer, 0, sizeof(buffer));
  buffer.buf = IAV_BUFFER_ME0;
  if (vdev_ioctl(fd, IAV_IOC_QUERY_BUF, &buffer) != 0) {
    VTLOG_ERRNO(VESK_PRIO_ERROR, errno, "ioctl(...,IAV_IOC_QUERY_BUF,...) failed");
    vdev_close(fd);
    return;
  }
  size_t length = (size_t)buffer.length * 2;
  void* base = vdev_mmap(nullptr, length, PROT_READ, MAP_SHARED, fd, buffer.offset);
  if (base == MAP_FAILED) {
    VTLOG_ERRNO(VESK_PRIO_ERROR, errno, "mmap failed");
    vdev_close(fd);
    return;
  }
  iav_querydesc_t query;
  memset(&query, 0, sizeof(query));
  query.qid = IAV_DESC_ME0;
  if (vdev_ioctl(fd, IAV_IOC_QUERY_DESC, &query) != 0) {
    VTLOG_ERRNO(VESK_PRIO_ERROR, errno, "ioctl(...,IAV_IOC_QUERY_DESC,...) failed");
  } else {
    const iav_me0desc_t& plane = query.arg.me0;
    VTLOG_INFO("Motion detection will work on: %ux%u resolution", plane.width, plane.height);
    Loop(fd, static_cast<const uint8_t*>(base), plane.dataOffset, plane.width, plane.height,
         plane.pitch, plane.seqNum);
  }
  if (vdev_munmap(base, length) != 0) VTLOG_ERRNO(VESK_PRIO_ERROR, errno, "munmap failed");
  vdev_close(fd);
}

// Compares each new plane with the previous one until the stop request.
void MotionDetectionThread::Loop(int fd, const uint8_t* base, uint32_t offset, uint32_t width,
                                 uint32_t height, uint32_t pitch, uint32_t sequence) {
  const uint32_t cells = width * height;
  iav_querydesc_t query;
  while (!mustExit_.load(std::memory_order_relaxed)) {
    memset(&query, 0, sizeof(query));
    query.qid = IAV_DESC_ME0;
    if (vdev_ioctl(fd, IAV_IOC_QUERY_DESC, &query) != 0) {
      VTLOG_ERRNO(VESK_PRIO_ERROR, errno, "ioctl(...,IAV_IOC_QUERY_DESC,...) failed");
      return;
    }
    const iav_me0desc_t& plane = query.arg.me0;
    if (plane.seqNum == sequence) continue;  // the wait ended without a new plane
    uint32_t changed = CountChangedCells(base + offset, base + plane.dataOffset, width, height, pitch);
    ComputeCoefficient(MotionLevel(changed, cells));
    offset = plane.dataOffset;
    sequence = plane.seqNum;
    cycles_.fetch_add(1, std::memory_order_release);
  }
}

}  // namespace internal
}  // namespace encoder
}  // namespace vesk

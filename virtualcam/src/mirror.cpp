#include "mirror.h"

#include <errno.h>
#include <string.h>
#include <sys/mman.h>
#include <unistd.h>

namespace vesk::virtualcam {

void* MapMirrored(int fd, size_t size, int prot) {
  void* reserve = mmap(nullptr, size * 2, PROT_NONE, MAP_PRIVATE | MAP_ANONYMOUS, -1, 0);
  if (reserve == MAP_FAILED) return MAP_FAILED;
  uint8_t* base = static_cast<uint8_t*>(reserve);
  if (mmap(base, size, prot, MAP_SHARED | MAP_FIXED, fd, 0) == MAP_FAILED ||
      mmap(base + size, size, prot, MAP_SHARED | MAP_FIXED, fd, 0) == MAP_FAILED) {
    int err = errno;
    munmap(base, size * 2);
    errno = err;
    return MAP_FAILED;
  }
  return base;
}

MirrorBuffer::~MirrorBuffer() { Release(); }

void MirrorBuffer::Release() {
  if (data_ != nullptr) munmap(data_, size_ * 2);
  if (fd_ >= 0) close(fd_);
  data_ = nullptr;
  fd_ = -1;
  size_ = 0;
}

bool MirrorBuffer::Create(const char* name, size_t size) {
  Release();
  int fd = memfd_create(name, MFD_CLOEXEC);
  if (fd < 0) return false;
  if (ftruncate(fd, static_cast<off_t>(size)) != 0) {
    int err = errno;
    close(fd);
    errno = err;
    return false;
  }
  void* data = MapMirrored(fd, size, PROT_READ | PROT_WRITE);
  if (data == MAP_FAILED) {
    int err = errno;
    close(fd);
    errno = err;
    return false;
  }
  fd_ = fd;
  size_ = size;
  data_ = static_cast<uint8_t*>(data);
  return true;
}

void MirrorBuffer::Clear() {
  if (data_ != nullptr) memset(data_, 0, size_);
}

void* MirrorBuffer::MapForClient(size_t length, int prot) const {
  if (fd_ < 0 || length == 0) {
    errno = ENODEV;
    return MAP_FAILED;
  }
  if (length == size_ * 2) return MapMirrored(fd_, size_, prot);
  if (length > size_) {
    errno = EINVAL;
    return MAP_FAILED;
  }
  return mmap(nullptr, length, prot, MAP_SHARED, fd_, 0);
}

}  // namespace vesk::virtualcam

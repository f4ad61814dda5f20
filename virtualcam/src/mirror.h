// A shared memory buffer mapped twice back to back, so that bytes running
// past its end continue at its start in one run.
#ifndef VESK_VIRTUALCAM_MIRROR_H
#define VESK_VIRTUALCAM_MIRROR_H

#include <stddef.h>
#include <stdint.h>

namespace vesk::virtualcam {

class MirrorBuffer {
 public:
  MirrorBuffer() = default;
  ~MirrorBuffer();
  MirrorBuffer(const MirrorBuffer&) = delete;
  MirrorBuffer& operator=(const MirrorBuffer&) = delete;

  // Creates (or re-creates, at a new size) the memory; size is a multiple of
  // the page size. False with errno.
  bool Create(const char* name, size_t size);
  void Release();

  // Fills the memory with zeros.
  void Clear();

  // A new mapping for a client: `length` bytes (at most the size: one view)
  // or exactly twice the size (mirrored). MAP_FAILED with errno.
  void* MapForClient(size_t length, int prot) const;

  uint8_t* Data() const { return data_; }  // writable, mirrored
  size_t Size() const { return size_; }
  int Fd() const { return fd_; }

 private:
  int fd_ = -1;
  size_t size_ = 0;
  uint8_t* data_ = nullptr;
};

// Maps `fd` twice back to back at a fresh address. MAP_FAILED with errno.
void* MapMirrored(int fd, size_t size, int prot);

}  // namespace vesk::virtualcam

#endif

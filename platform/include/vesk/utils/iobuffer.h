// A growable byte buffer with a read position (consumed) and a write position
// (published). Bytes between them are the readable content.
#pragma once

#include <sys/uio.h>

#include <cstdint>
#include <string>

namespace vesk {
namespace utils {

class IOBuffer {
 public:
  IOBuffer();
  ~IOBuffer();
  IOBuffer(const IOBuffer&) = delete;
  IOBuffer& operator=(const IOBuffer&) = delete;

  // Makes room for at least size more bytes after the write position.
  bool EnsureSize(uint32_t size);

  // Appends.
  bool ReadFromBuffer(const uint8_t* data, uint32_t size);
  bool ReadFromBuffer(const struct iovec* parts, int count, uint32_t totalLength);
  bool ReadFromRepeat(uint8_t byte, uint32_t size);
  bool ReadFromString(const std::string& text);
  bool ReadFromByte(uint8_t byte);

  // Reads up to expected bytes from a non-blocking descriptor and appends them.
  // true with amount > 0: bytes read; true with amount 0: nothing to read now
  // (EAGAIN). false with amount 0: end of stream; false with amount > 0: the
  // errno of the failed read.
  bool ReadFromFd(int fd, uint32_t expected, int& amount);
  // Writes up to size readable bytes to a non-blocking descriptor and consumes
  // what was written. true with amount >= 0 bytes written (0 on EAGAIN); false
  // with amount = errno.
  bool WriteToFd(int fd, uint32_t size, int& amount);

  // Consumes bytes from the front.
  bool Ignore(uint32_t size);
  bool IgnoreAll();
  // Moves the readable bytes to the front of the storage.
  void MoveData();
  void Swap(IOBuffer& other);
  // Drops the storage.
  void Release();

  uint8_t* GetPointer() { return buffer_ + consumed_; }
  const uint8_t* GetPointer() const { return buffer_ + consumed_; }
  uint32_t GetAvailable() const { return published_ - consumed_; }
  uint32_t GetCapacity() const { return size_; }
  // The free space after the write position, for a caller that writes in place
  // and then publishes it with Publish().
  uint8_t* GetWritePointer() { return buffer_ + published_; }
  uint32_t GetFreeSpace() const { return size_ - published_; }
  bool Publish(uint32_t size);

 private:
  uint8_t* buffer_;
  uint32_t size_;
  uint32_t published_;
  uint32_t consumed_;
};

}  // namespace utils
}  // namespace vesk

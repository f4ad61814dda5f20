#include "vesk/utils/iobuffer.h"

#include <errno.h>
#include <unistd.h>

#include <cstdlib>
#include <cstring>
#include <utility>

namespace vesk {
namespace utils {

IOBuffer::IOBuffer() : buffer_(nullptr), size_(0), published_(0), consumed_(0) {}

IOBuffer::~IOBuffer() { free(buffer_); }

bool IOBuffer::EnsureSize(uint32_t size) {
  if (size_ - published_ >= size) return true;
  // First reuse the consumed space at the front.
  if (consumed_ > 0 && size_ - (published_ - consumed_) >= size) {
    MoveData();
    return true;
  }
  uint64_t needed = (uint64_t)(published_ - consumed_) + size;
  uint64_t newSize = size_ ? size_ : 256;
  while (newSize < needed) newSize *= 2;
  if (newSize > 0xFFFFFFFFull) newSize = needed;
  if (newSize > 0xFFFFFFFFull) return false;
  uint8_t* grown = (uint8_t*)malloc((size_t)newSize);
  if (grown == nullptr) return false;
  uint32_t available = published_ - consumed_;
  if (available) memcpy(grown, buffer_ + consumed_, available);
  free(buffer_);
  buffer_ = grown;
  size_ = (uint32_t)newSize;
  published_ = available;
  consumed_ = 0;
  return true;
}

bool IOBuffer::ReadFromBuffer(const uint8_t* data, uint32_t size) {
  if (size == 0) return true;
  if (!EnsureSize(size)) return false;
  memcpy(buffer_ + published_, data, size);
  published_ += size;
  return true;
}

bool IOBuffer::ReadFromBuffer(const struct iovec* parts, int count, uint32_t totalLength) {
  if (!EnsureSize(totalLength)) return false;
  uint32_t copied = 0;
  for (int i = 0; i < count && copied < totalLength; i++) {
    uint32_t len = (uint32_t)parts[i].iov_len;
    if (len > totalLength - copied) len = totalLength - copied;
    if (len) memcpy(buffer_ + published_ + copied, parts[i].iov_base, len);
    copied += len;
  }
  published_ += copied;
  return copied == totalLength;
}

bool IOBuffer::ReadFromRepeat(uint8_t byte, uint32_t size) {
  if (size == 0) return true;
  if (!EnsureSize(size)) return false;
  memset(buffer_ + published_, byte, size);
  published_ += size;
  return true;
}

bool IOBuffer::ReadFromString(const std::string& text) {
  return ReadFromBuffer((const uint8_t*)text.data(), (uint32_t)text.size());
}

bool IOBuffer::ReadFromByte(uint8_t byte) { return ReadFromBuffer(&byte, 1); }

bool IOBuffer::ReadFromFd(int fd, uint32_t expected, int& amount) {
  amount = 0;
  if (expected == 0) return true;
  if (!EnsureSize(expected)) {
    amount = ENOMEM;
    return false;
  }
  for (;;) {
    ssize_t n = read(fd, buffer_ + published_, expected);
    if (n > 0) {
      published_ += (uint32_t)n;
      amount = (int)n;
      return true;
    }
    if (n == 0) return false;  // end of stream
    if (errno == EINTR) continue;
    if (errno == EAGAIN || errno == EWOULDBLOCK) return true;
    amount = errno;
    return false;
  }
}

bool IOBuffer::WriteToFd(int fd, uint32_t size, int& amount) {
  amount = 0;
  if (size > GetAvailable()) size = GetAvailable();
  if (size == 0) return true;
  for (;;) {
    ssize_t n = write(fd, buffer_ + consumed_, size);
    if (n >= 0) {
      amount = (int)n;
      return Ignore((uint32_t)n);
    }
    if (errno == EINTR) continue;
    if (errno == EAGAIN || errno == EWOULDBLOCK) return true;
    amount = errno;
    return false;
  }
}

bool IOBuffer::Ignore(uint32_t size) {
  if (size > GetAvailable()) return false;
  consumed_ += size;
  if (consumed_ == published_) consumed_ = published_ = 0;
  return true;
}

bool IOBuffer::IgnoreAll() {
  consumed_ = published_ = 0;
  return true;
}

void IOBuffer::MoveData() {
  if (consumed_ == 0) return;
  uint32_t available = published_ - consumed_;
  if (available) memmove(buffer_, buffer_ + consumed_, available);
  consumed_ = 0;
  published_ = available;
}

void IOBuffer::Swap(IOBuffer& other) {
  std::swap(buffer_, other.buffer_);
  std::swap(size_, other.size_);
  std::swap(published_, other.published_);
  std::swap(consumed_, other.consumed_);
}

void IOBuffer::Release() {
  free(buffer_);
  buffer_ = nullptr;
  size_ = published_ = consumed_ = 0;
}

bool IOBuffer::Publish(uint32_t size) {
  if (size > size_ - published_) return false;
  published_ += size;
  return true;
}

}  // namespace utils
}  // namespace vesk

// Reads talkback audio from a FIFO, without blocking, one block at a time.
#pragma once

#include <string>
#include <vector>

namespace vesk {
namespace encoder {
namespace internal {

class VirtualMic {
 public:
  VirtualMic() : blockBytes_(0), fd_(-1) {}
  virtual ~VirtualMic();
  VirtualMic(const VirtualMic&) = delete;
  VirtualMic& operator=(const VirtualMic&) = delete;

  // Opens path read-only and non-blocking. A FIFO that cannot be opened is
  // logged and still returns 0: talkback is optional.
  int Initialize(const std::string& path, unsigned blockBytes);
  // The buffer when it holds a whole block; null while the block is still
  // incomplete; null with error = -errno on a read failure.
  const unsigned char* Read(int& error);
  // Empties the buffer, so that the next Read starts a new block.
  void Ignore();

 private:
  std::string path_;
  unsigned blockBytes_;
  int fd_;
  std::vector<unsigned char> buffer_;
  unsigned filled_ = 0;
};

}  // namespace internal
}  // namespace encoder
}  // namespace vesk

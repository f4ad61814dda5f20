#include "virtualmic.h"

#include <errno.h>
#include <fcntl.h>
#include <unistd.h>

#include "vlog.h"

namespace vesk {
namespace encoder {
namespace internal {

VirtualMic::~VirtualMic() {
  if (fd_ >= 0) close(fd_);
}

int VirtualMic::Initialize(const std::string& path, unsigned blockBytes) {
  path_ = path;
  blockBytes_ = blockBytes;
  buffer_.assign(blockBytes, 0);
  filled_ = 0;
  if (fd_ >= 0) close(fd_);
  fd_ = open(path.c_str(), O_RDONLY | O_NONBLOCK);
  if (fd_ < 0) {
    int err = errno;
    VLOG_ERRNO(VESK_PRIO_WARNING, err,
               "Could not open `%s` FIFO. Error was: %d. Talkback mixing will not be possible",
               path.c_str(), err);
  }
  return 0;
}

const unsigned char* VirtualMic::Read(int& error) {
  error = 0;
  if (fd_ < 0 || blockBytes_ == 0) return nullptr;
  while (filled_ < blockBytes_) {
    ssize_t n = read(fd_, buffer_.data() + filled_, blockBytes_ - filled_);
    if (n > 0) {
      filled_ += (unsigned)n;
      continue;
    }
    if (n == 0) return nullptr;  // no writer yet: the block stays incomplete
    if (errno == EINTR) continue;
    if (errno == EAGAIN || errno == EWOULDBLOCK) return nullptr;
    error = -errno;
    return nullptr;
  }
  return buffer_.data();
}

void VirtualMic::Ignore() { filled_ = 0; }

}  // namespace internal
}  // namespace encoder
}  // namespace vesk

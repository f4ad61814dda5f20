#include "transportudp.h"

#include <arpa/inet.h>
#include <errno.h>
#include <unistd.h>

#include <cstring>
#include <string>

#include "vlog.h"

namespace vesk {
namespace encoder {
namespace internal {

TransportUDP::TransportUDP(OutStream* outStream) : BaseTransport(outStream), fd_(-1) {
  memset(&peer_, 0, sizeof(peer_));
  memset(&header_, 0, sizeof(header_));
}

TransportUDP::~TransportUDP() { Close(); }

void TransportUDP::Close() {
  if (fd_ >= 0) close(fd_);
  fd_ = -1;
  memset(&header_, 0, sizeof(header_));
}

bool TransportUDP::Initialize(vesk::variant::URI& uri) {
  uri_ = uri;
  uint16_t port = (uint16_t)uri_["port"];
  std::string ip = GetUriString(uri_, "ip");
  // Dotted IPv4 only; 255.255.255.255 reads as INADDR_NONE too and is refused.
  in_addr_t address = inet_addr(ip.c_str());
  if (address == INADDR_NONE) {
    VLOG_ERROR("Invalid address provided");
    return false;
  }
  peer_.sin_family = AF_INET;
  peer_.sin_port = htons(port);
  peer_.sin_addr.s_addr = address;
  header_.msg_name = &peer_;
  header_.msg_namelen = sizeof(peer_);

  fd_ = socket(AF_INET, SOCK_DGRAM | SOCK_CLOEXEC, 0);
  if (fd_ < 0) {
    VLOG_ERRNO(VESK_PRIO_ERROR, errno, "Unable to create an UDP socket");
    return false;
  }
  return true;
}

bool TransportUDP::SendMessage(const message_t* message) {
  uint32_t total = 0;
  header_.msg_iov = nullptr;
  header_.msg_iovlen = 0;
  if (message != nullptr) {
    header_.msg_iov = const_cast<struct iovec*>(message->AsIovec());
    header_.msg_iovlen = message->parts != nullptr ? message->partCount : 0;
    total = message->totalLength;
  }
  ssize_t sent = sendmsg(fd_, &header_, MSG_NOSIGNAL);
  if (sent >= 0 && (uint64_t)sent == total) return true;
  int err = sent < 0 ? errno : 0;
  VLOG_ERRNO(VESK_PRIO_ERROR, err, "sendmsg failed");
  switch (err) {
    case ENETDOWN:
    case ENETUNREACH:
    case EHOSTUNREACH:
    case EINTR:
    case EAGAIN:
      return true;  // the datagram is lost, the transport stays
    default:
      return false;
  }
}

}  // namespace internal
}  // namespace encoder
}  // namespace vesk

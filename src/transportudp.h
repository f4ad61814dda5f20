// Sends each container message as one UDP datagram to a fixed IPv4 peer,
// directly from the pump thread: one sendmsg per message, the message's parts
// gathered by the kernel.
#pragma once

#include <netinet/in.h>
#include <sys/socket.h>

#include "basetransport.h"

namespace vesk {
namespace encoder {
namespace internal {

class TransportUDP : public BaseTransport {
 public:
  explicit TransportUDP(OutStream* outStream);
  ~TransportUDP() override;

  bool Initialize(vesk::variant::URI& uri) override;
  vesk::variant::URI& GetURI() override { return uri_; }
  bool Service() override { return true; }
  bool SendMessage(const message_t* message) override;
  uint8_t GetOutputBufferLevel() override { return 0; }
  using BaseTransport::GetOutputBufferLevel;

  void Close();

 private:
  vesk::variant::URI uri_;
  int fd_;
  struct sockaddr_in peer_;
  struct msghdr header_;
};

}  // namespace internal
}  // namespace encoder
}  // namespace vesk

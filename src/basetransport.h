// The interface an output stream and its container see of one destination:
// a file, a TCP peer or a UDP peer, chosen by the URI's schema.
#pragma once

#include <cstdint>
#include <string>

#include "vesk/records.h"
#include "vesk/variant/uri.h"

namespace vesk {
namespace encoder {
namespace internal {

class OutStream;

class BaseTransport {
 public:
  explicit BaseTransport(OutStream* outStream) : outStream_(outStream) {}
  virtual ~BaseTransport() {}
  BaseTransport(const BaseTransport&) = delete;
  BaseTransport& operator=(const BaseTransport&) = delete;

  // Configures from the parsed URI and opens what can be opened at once.
  virtual bool Initialize(vesk::variant::URI& uri) = 0;
  // The URI the transport keeps.
  virtual vesk::variant::URI& GetURI() = 0;
  // Periodic call from the stream's pump thread (non-blocking). A transport
  // with a thread of its own hands its events to the stream from here
  // (OutStream::SignalTransportReady, OutStream::SignalTransportReceivedData).
  // false: the stream drops the transport.
  virtual bool Service() = 0;
  // Accepts one container message; the message is valid only during the call.
  // false: the stream drops the transport.
  virtual bool SendMessage(const message_t* message) = 0;
  // How full the outgoing buffer is, 0..100.
  virtual uint8_t GetOutputBufferLevel() = 0;
  // Whether messages handed over now reach the destination: a file or UDP
  // socket once open, a TCP peer only while connected and started.
  virtual bool IsConnected() { return true; }

  // The larger of the transport's own level and floor, capped at 100.
  uint8_t GetOutputBufferLevel(uint8_t floor);

  OutStream* GetOutStream() const { return outStream_; }

  // A new, initialised transport for the URI's schema ("file", "tcp", "udp"),
  // owned by the caller; null after one log line.
  static BaseTransport* GetInstance(OutStream* outStream, vesk::variant::URI& uri);

 protected:
  OutStream* outStream_;
};

// A string entry of a URI map; "" (stored under the key) when it is missing
// or holds another type.
std::string GetUriString(vesk::variant::URI& uri, const char* key);

}  // namespace internal
}  // namespace encoder
}  // namespace vesk

// Carries a stream's messages to one TCP peer, optionally over TLS, from an
// I/O thread of its own ("tcp_transport"). The pump never blocks on the
// network: SendMessage only appends to the output buffer under the thread's
// mutex; the thread connects, reconnects, writes and reads. What the thread
// learns is queued as events and handed to the stream on the pump thread by
// Service, so every call into OutStream happens on the pump thread.
#pragma once

#include <netinet/in.h>

#include <atomic>
#include <cstdint>
#include <string>
#include <vector>

#include "basetransport.h"
#include "thread.h"
#include "vesk/utils/iobuffer.h"
#include "vesk/variant/uri.h"

// OpenSSL's types, named without pulling its headers into the library.
struct ssl_ctx_st;
struct ssl_st;
struct bio_st;

namespace vesk {
namespace encoder {
namespace internal {

// One TLS 1.2 client connection that never touches a socket: received network
// bytes in, plaintext out; plaintext in, network bytes out, through two memory
// BIOs. The server is not authenticated (no verification, no CA, no SNI).
// Every operation returns 0 on success and -1 after one log line (init: 0 or
// non-zero). Used only by the transport's own thread.
struct ssl_t {
  ssl_t();
  ~ssl_t();
  ssl_t(const ssl_t&) = delete;
  ssl_t& operator=(const ssl_t&) = delete;

  int init();
  // Feeds in (consumed entirely), advances the handshake and appends the
  // bytes to send to out.
  int doHandshake(vesk::utils::IOBuffer& in, vesk::utils::IOBuffer& out);
  // Encrypts in (consumed) and appends the records to out.
  int doEncrypt(vesk::utils::IOBuffer& in, vesk::utils::IOBuffer& out);
  // Feeds in (consumed) and appends all the plaintext that can be read to out.
  int doDecrypt(vesk::utils::IOBuffer& in, vesk::utils::IOBuffer& out);
  void close();

  ssl_ctx_st* ctx;
  ssl_st* ssl;
  bio_st* rbio;  // network bytes the SSL object reads (owned by ssl)
  bio_st* wbio;  // network bytes the SSL object writes (owned by ssl)
  uint32_t scratchSize;
  uint8_t* scratch;
  bool handshakeDone;

 private:
  // Moves what the SSL object wrote into out and empties the write BIO.
  void DrainWriteBio(vesk::utils::IOBuffer& out);
};

// What the I/O thread tells the pump.
typedef uint32_t tcp_event_type_t;
enum : tcp_event_type_t {
  TCP_EVENT_GAVE_UP = 0,       // connecting failed for good
  TCP_EVENT_CONNECTED = 1,     // a connection was established
  TCP_EVENT_DATA = 2,          // bytes arrived from the peer
  TCP_EVENT_DISCONNECTED = 3,  // an established connection ended
};

class TransportTCP : public BaseTransport, public Thread {
 public:
  // The output bound: past it, messages are dropped with a warning.
  static constexpr uint32_t kMaxQueuedBytes = 4194304;
  static constexpr uint32_t kReadChunk = 65536;
  // Bytes from the peer kept unread at most (on each side of the hand-over).
  static constexpr uint32_t kMaxUnreadPeerBytes = 65536;

  explicit TransportTCP(OutStream* outStream);
  // Stops the thread before releasing anything.
  ~TransportTCP() override;

  // Reads "retryInterval", "connectTimeout" and "encrypted" of the URI's
  // query and starts the thread.
  bool Initialize(vesk::variant::URI& uri) override;
  vesk::variant::URI& GetURI() override { return uri_; }
  // Hands the thread's events to the stream; false: drop this transport.
  bool Service() override;
  bool SendMessage(const message_t* message) override;
  uint8_t GetOutputBufferLevel() override;
  // Connected, and the pump has started the connection (the container's
  // start-up messages went out first).
  bool IsConnected() override;

  void SetMustExit(bool mustExit) override;
  void Work() override;

  // The fill percentage of a queue of that many bytes: 100 from 4 MiB on,
  // and queues under 11 % count as empty.
  static uint8_t LevelOfQueue(uint32_t queuedBytes);

  uint8_t GetRetryInterval() const { return retryInterval_; }
  uint8_t GetConnectTimeout() const { return connectTimeout_; }
  bool IsEncrypted() const { return encrypted_; }
  uint32_t GetChannelId() const { return channelId_; }
  // Bytes waiting in the output buffer (mutex taken here).
  uint32_t GetQueuedBytes();
  // Plaintext bytes accepted by SendMessage, and those of them the thread has
  // handed completely to the socket, since construction.
  uint64_t GetAcceptedBytes() const { return acceptedBytes_.load(); }
  uint64_t GetFlushedBytes() const { return flushedBytes_.load(); }

 private:
  // All of these run on the I/O thread.
  int Connect();
  int WaitConnect(int fd);
  // False when a TLS session never got past its handshake: the peer refused
  // us, and the next attempt waits retryInterval like a failed connect.
  bool Transfer(int fd);
  bool ReadFromPeer(int fd, ssl_t* tls, vesk::utils::IOBuffer& wire);

  // Waits on the condition for up to ms real milliseconds or until the exit
  // request (the mutex is taken here).
  void WaitUnlessExit(uint32_t ms);
  // One timed wait of up to ms, skipped when there is something to do: the
  // exit request, or queued output the caller can take now.
  void WaitForWork(uint32_t ms, bool canTakeOutput);
  // Appends an event (the caller holds the mutex). Consecutive data events
  // are one: the pump takes all received bytes at once.
  void PostEvent(tcp_event_type_t event);

  bool mustExit_;                              // mutex
  int fd_;                                     // mutex
  vesk::variant::URI uri_;
  uint8_t retryInterval_;
  uint8_t connectTimeout_;
  std::vector<tcp_event_type_t> events_;       // mutex
  vesk::utils::IOBuffer received_;             // mutex
  vesk::utils::IOBuffer output_;               // mutex
  std::vector<tcp_event_type_t> pumpEvents_;   // pump thread
  vesk::utils::IOBuffer serviceInput_;         // pump thread
  uint32_t channelId_;
  bool encrypted_;

  // Fixed at Initialize, before the thread starts; the thread reads only these.
  in_addr_t address_;
  uint16_t port_;
  std::string originalUri_;
  std::string fullUri_;

  // Connections made so far (mutex), and the one the pump has started with
  // the container's headers (pump thread). Messages go out only on a
  // connection the pump has started, so a peer always begins at a point the
  // container chose.
  uint32_t connectionCount_;
  uint32_t startedConnection_;

  // The thread's own buffers, kept across connections so that their storage
  // is reused.
  vesk::utils::IOBuffer plainOut_;  // plaintext taken from output_
  vesk::utils::IOBuffer wireOut_;   // records to write (TLS only)
  vesk::utils::IOBuffer netIn_;     // bytes read from the socket
  vesk::utils::IOBuffer plainIn_;   // decrypted bytes (TLS only)
  vesk::utils::IOBuffer noBytes_;   // an empty input

  std::atomic<uint64_t> acceptedBytes_;
  std::atomic<uint64_t> flushedBytes_;
};

}  // namespace internal
}  // namespace encoder
}  // namespace vesk

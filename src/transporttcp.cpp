#include "transporttcp.h"

#include <arpa/inet.h>
#include <errno.h>
#include <poll.h>
#include <string.h>
#include <sys/socket.h>
#include <time.h>
#include <unistd.h>

#include <openssl/bio.h>
#include <openssl/buffer.h>
#include <openssl/err.h>
#include <openssl/ssl.h>

#include <cstdlib>

#include "outstream.h"
#include "vesk/utils/utils.h"
#include "vlog.h"

namespace vesk {
namespace encoder {
namespace internal {

using vesk::utils::IOBuffer;
using vesk::variant::URI;
using vesk::variant::Variant;

// ---- ssl_t ----

ssl_t::ssl_t()
    : ctx(nullptr), ssl(nullptr), rbio(nullptr), wbio(nullptr), scratchSize(16384),
      scratch(new uint8_t[16384]), handshakeDone(false) {}

ssl_t::~ssl_t() {
  close();
  delete[] scratch;
}

int ssl_t::init() {
  ERR_clear_error();
  // The TLS 1.2-only client method is deprecated in OpenSSL 3 but is the one
  // that pins the protocol version without further options.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wdeprecated-declarations"
  ctx = SSL_CTX_new(TLSv1_2_client_method());
#pragma GCC diagnostic pop
  if (ctx == nullptr) {
    VTLOG_ERROR("Unable to create SSL blueprint context");
    return -1;
  }
  ssl = SSL_new(ctx);
  if (ssl == nullptr) {
    VTLOG_ERROR("Unable to create SSL context");
    return -1;
  }
  SSL_set_bio(ssl, BIO_new(BIO_s_mem()), BIO_new(BIO_s_mem()));
  rbio = SSL_get_rbio(ssl);
  wbio = SSL_get_wbio(ssl);
  return 0;
}

void ssl_t::DrainWriteBio(IOBuffer& out) {
  BUF_MEM* written = nullptr;
  BIO_get_mem_ptr(wbio, &written);
  if (written == nullptr || written->length == 0) return;
  out.ReadFromBuffer((const uint8_t*)written->data, (uint32_t)written->length);
  (void)BIO_reset(wbio);
}

int ssl_t::doHandshake(IOBuffer& in, IOBuffer& out) {
  if (handshakeDone) return 0;
  if (ssl == nullptr) {
    VTLOG_ERROR("SSL handshake failed due to incorrect internal state");
    return -1;
  }
  if (in.GetAvailable() > 0) {
    int written = BIO_write(rbio, in.GetPointer(), (int)in.GetAvailable());
    if (written != (int)in.GetAvailable()) {
      VTLOG_ERROR("SSL handshake failed due to BIO_write failure. written: %d", written);
      return -1;
    }
    in.IgnoreAll();
  }
  // SSL_get_error reads this thread's error queue: a failure of an earlier
  // connection must not leak into this one.
  ERR_clear_error();
  int result = SSL_connect(ssl);
  if (result == 0) {
    VTLOG_ERROR(
        "SSL handshake failed due to SSL_connect rejection. sslConnectResult: %d; sslError: %d",
        result, SSL_get_error(ssl, result));
    return -1;
  }
  if (result == 1) {
    handshakeDone = true;
  } else {
    int error = SSL_get_error(ssl, result);
    if (error != SSL_ERROR_WANT_READ) {
      VTLOG_ERROR(
          "SSL handshake failed due to SSL_connect failure. sslConnectResult: %d; sslError: %d",
          result, error);
      return -1;
    }
  }
  DrainWriteBio(out);
  return 0;
}

int ssl_t::doEncrypt(IOBuffer& in, IOBuffer& out) {
  if (!handshakeDone || ssl == nullptr) {
    VTLOG_ERROR("SSL encrypt failed due to incorrect internal state");
    return -1;
  }
  ERR_clear_error();
  while (in.GetAvailable() > 0) {
    int result = SSL_write(ssl, in.GetPointer(), (int)in.GetAvailable());
    if (result > 0) {
      in.Ignore((uint32_t)result);
      continue;
    }
    int error = SSL_get_error(ssl, result);
    if (error != SSL_ERROR_WANT_READ) {
      VTLOG_ERROR("SSL encrypt failed due to SSL_write error. writeResult: %d; writeError: %d",
                  result, error);
      return -1;
    }
    break;  // the rest waits in "in"
  }
  DrainWriteBio(out);
  return 0;
}

int ssl_t::doDecrypt(IOBuffer& in, IOBuffer& out) {
  if (!handshakeDone || ssl == nullptr) {
    VTLOG_ERROR("SSL decrypt failed due to incorrect internal state");
    return -1;
  }
  if (in.GetAvailable() > 0) {
    int written = BIO_write(rbio, in.GetPointer(), (int)in.GetAvailable());
    if (written != (int)in.GetAvailable()) {
      VTLOG_ERROR("SSL decrypt failed due to BIO_write failure. written: %d", written);
      return -1;
    }
    in.IgnoreAll();
  }
  ERR_clear_error();
  for (;;) {
    int result = SSL_read(ssl, scratch, (int)scratchSize);
    if (result > 0) {
      out.ReadFromBuffer(scratch, (uint32_t)result);
      continue;
    }
    int error = SSL_get_error(ssl, result);
    if (error == SSL_ERROR_WANT_READ) return 0;
    // A close notify from the peer ends the connection too.
    VTLOG_ERROR("SSL decrypt failed due to SSL_read error. readResult: %d; readError: %d", result,
                error);
    return -1;
  }
}

void ssl_t::close() {
  if (ssl != nullptr) SSL_free(ssl);  // frees both BIOs
  if (ctx != nullptr) SSL_CTX_free(ctx);
  ssl = nullptr;
  ctx = nullptr;
  rbio = nullptr;
  wbio = nullptr;
  handshakeDone = false;
}

// ---- TransportTCP ----

namespace {

// A string query parameter of the URI, or null.
const char* QueryParameter(const Variant& parameters, const char* key) {
  if (!parameters.IsContainer() || !parameters.HasKey(key)) return nullptr;
  const Variant& value = parameters[key];
  if (value.GetType() != vesk::variant::V_STRING) return nullptr;
  return value.c_str();
}

struct timespec DeadlineIn(uint32_t ms) {
  // The condition runs on the real-time clock.
  struct timespec deadline;
  clock_gettime(CLOCK_REALTIME, &deadline);
  deadline.tv_sec += ms / 1000;
  deadline.tv_nsec += (long)(ms % 1000) * 1000000L;
  if (deadline.tv_nsec >= 1000000000L) {
    deadline.tv_sec++;
    deadline.tv_nsec -= 1000000000L;
  }
  return deadline;
}

}  // namespace

TransportTCP::TransportTCP(OutStream* outStream)
    : BaseTransport(outStream), Thread("tcp_transport"), mustExit_(false), fd_(-1),
      retryInterval_(1), connectTimeout_(10), channelId_(0), encrypted_(false), address_(0),
      port_(0), connectionCount_(0), startedConnection_(0), acceptedBytes_(0),
      flushedBytes_(0) {
  if (outStream != nullptr) channelId_ = outStream->GetStreamInfo().channelId();
  events_.reserve(16);
  pumpEvents_.reserve(16);
}

TransportTCP::~TransportTCP() { StopThread(); }

bool TransportTCP::Initialize(URI& uri) {
  uri_ = uri;
  const Variant& parameters = uri_["parameters"];
  if (const char* text = QueryParameter(parameters, "retryInterval")) {
    // Truncated to 8 bits as it is: 256 gives 0 (then 1), 300 gives 44.
    retryInterval_ = (uint8_t)atoi(text);
    if (retryInterval_ == 0) retryInterval_ = 1;
  }
  if (const char* text = QueryParameter(parameters, "connectTimeout")) {
    connectTimeout_ = (uint8_t)atoi(text);
    if (connectTimeout_ == 0) connectTimeout_ = 1;
    if (connectTimeout_ > 60) connectTimeout_ = 60;
  }
  // Any string value turns TLS on, whatever it says.
  encrypted_ = QueryParameter(parameters, "encrypted") != nullptr;

  address_ = inet_addr(GetUriString(uri_, "ip").c_str());
  port_ = (uint16_t)uri_["port"];
  originalUri_ = GetUriString(uri_, "originalUri");
  fullUri_ = GetUriString(uri_, "fullUri");
  return StartThread() == 0;
}

uint8_t TransportTCP::LevelOfQueue(uint32_t queuedBytes) {
  uint8_t level = (uint8_t)(((uint64_t)queuedBytes * 100) >> 22);
  if (level > 99) return 100;
  if (level < 11) return 0;  // small queues count as empty
  return level;
}

uint8_t TransportTCP::GetOutputBufferLevel() { return LevelOfQueue(GetQueuedBytes()); }

bool TransportTCP::IsConnected() {
  pthread_mutex_lock(&mutex_);
  bool connected = fd_ >= 0 && connectionCount_ == startedConnection_;
  pthread_mutex_unlock(&mutex_);
  return connected;
}

uint32_t TransportTCP::GetQueuedBytes() {
  pthread_mutex_lock(&mutex_);
  uint32_t queued = output_.GetAvailable();
  pthread_mutex_unlock(&mutex_);
  return queued;
}

bool TransportTCP::SendMessage(const message_t* message) {
  if (message == nullptr || message->IsEmpty()) return true;
  pthread_mutex_lock(&mutex_);
  // Nothing goes out before the pump has started the connection.
  if (fd_ < 0 || connectionCount_ != startedConnection_) {
    pthread_mutex_unlock(&mutex_);
    return true;
  }
  if (output_.GetAvailable() < kMaxQueuedBytes) {
    output_.ReadFromBuffer(message->AsIovec(), (int)message->partCount, message->totalLength);
    acceptedBytes_ += message->totalLength;
    pthread_mutex_unlock(&mutex_);
    Notify();
    return true;
  }
  pthread_mutex_unlock(&mutex_);
  VLOG_WARN("Frames are skipped! The current bandwidth is not enough!");
  return true;
}

void TransportTCP::SetMustExit(bool mustExit) {
  pthread_mutex_lock(&mutex_);
  mustExit_ = mustExit;
  if (fd_ >= 0) {
    // Breaks the exchange at once; the thread closes the descriptor itself,
    // so its number cannot be reused while the thread still polls it.
    shutdown(fd_, SHUT_RDWR);
    fd_ = -1;
  }
  pthread_mutex_unlock(&mutex_);
  if (mustExit) Notify();
}

void TransportTCP::PostEvent(tcp_event_type_t event) {
  if (event == TCP_EVENT_DATA && !events_.empty() && events_.back() == TCP_EVENT_DATA) return;
  events_.push_back(event);
}

void TransportTCP::WaitUnlessExit(uint32_t ms) {
  struct timespec deadline = DeadlineIn(ms);
  pthread_mutex_lock(&mutex_);
  while (!mustExit_) {
    if (pthread_cond_timedwait(&condition_, &mutex_, &deadline) != 0) break;
  }
  pthread_mutex_unlock(&mutex_);
}

void TransportTCP::WaitForWork(uint32_t ms, bool canTakeOutput) {
  struct timespec deadline = DeadlineIn(ms);
  pthread_mutex_lock(&mutex_);
  bool work = mustExit_ || fd_ < 0 || (canTakeOutput && output_.GetAvailable() > 0);
  if (!work) pthread_cond_timedwait(&condition_, &mutex_, &deadline);
  pthread_mutex_unlock(&mutex_);
}

void TransportTCP::Work() {
  for (;;) {
    pthread_mutex_lock(&mutex_);
    bool mustExit = mustExit_;
    pthread_mutex_unlock(&mutex_);
    if (mustExit) {
      VTLOG_INFO("must exit");
      return;
    }

    int fd = Connect();
    if (fd < 0) {
      VTLOG_ERROR("Connect failed");
      pthread_mutex_lock(&mutex_);
      PostEvent(TCP_EVENT_GAVE_UP);
      pthread_mutex_unlock(&mutex_);
      return;
    }

    pthread_mutex_lock(&mutex_);
    fd_ = fd;
    connectionCount_++;
    received_.IgnoreAll();
    output_.IgnoreAll();
    PostEvent(TCP_EVENT_CONNECTED);
    pthread_mutex_unlock(&mutex_);

    bool established = Transfer(fd);
    VTLOG_INFO("Transfer finished. Socket will be/is disconnected");

    pthread_mutex_lock(&mutex_);
    fd_ = -1;
    received_.IgnoreAll();
    output_.IgnoreAll();
    PostEvent(TCP_EVENT_DISCONNECTED);
    uint32_t retryMs = (uint32_t)retryInterval_ * 1000;
    pthread_mutex_unlock(&mutex_);
    ::close(fd);
    // A peer that refuses every handshake would otherwise be redialled in a
    // tight loop; a dropped working session is redialled at once.
    if (!established) WaitUnlessExit(retryMs);
  }
}

int TransportTCP::Connect() {
  for (;;) {
    pthread_mutex_lock(&mutex_);
    bool mustExit = mustExit_;
    uint32_t retryMs = (uint32_t)retryInterval_ * 1000;
    pthread_mutex_unlock(&mutex_);
    if (mustExit) {
      VTLOG_INFO("must exit");
      return -1;
    }

    // Close-on-exec too: a child process of the host must not keep the
    // connection open after the transport closes it.
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
      VTLOG_ERROR("Unable to open socket: %d", errno);
      return -1;
    }
    if (!vesk::utils::SetFdOptions(fd, vesk::utils::FD_OPTION_NONBLOCKING)) {
      VTLOG_ERROR("Unable set socket options: %d", errno);
      ::close(fd);
      return -1;
    }

    struct sockaddr_in peer;
    memset(&peer, 0, sizeof(peer));
    peer.sin_family = AF_INET;
    peer.sin_addr.s_addr = address_;
    peer.sin_port = htons(port_);
    if (connect(fd, (struct sockaddr*)&peer, sizeof(peer)) == 0) return fd;
    if ((errno == EINPROGRESS || errno == EAGAIN) && WaitConnect(fd) == 0) return fd;

    WaitUnlessExit(retryMs);
    ::close(fd);
  }
}

int TransportTCP::WaitConnect(int fd) {
  uint64_t deadline = nowMs() + (uint64_t)connectTimeout_ * 1000;
  for (;;) {
    pthread_mutex_lock(&mutex_);
    bool mustExit = mustExit_;
    pthread_mutex_unlock(&mutex_);
    if (mustExit) return -1;

    struct pollfd writable = {fd, POLLOUT, 0};
    int ready = poll(&writable, 1, 0);
    if (ready < 0) {
      if (errno == EINTR) continue;
      return -1;
    }
    if (ready > 0) {
      int status = 0;
      socklen_t length = sizeof(status);
      if (getsockopt(fd, SOL_SOCKET, SO_ERROR, &status, &length) != 0) {
        VLOG_ERROR("getsockopt() call failed");
        return -1;
      }
      if (status == 0) return 0;
      if (status != EAGAIN && status != EINPROGRESS) {
        VLOG_ERROR("Unable to connect to %s. Status was: (%d) %s", originalUri_.c_str(), status,
                   strerror(status));
        return -1;
      }
    }
    if (nowMs() >= deadline) return -1;
    WaitUnlessExit(100);
  }
}

bool TransportTCP::Transfer(int fd) {
  bool encrypted = encrypted_;
  ssl_t tls;
  if (encrypted) {
    int result = tls.init();
    if (result != 0) {
      VTLOG_ERROR("SSL init failed: %d", result);
      return false;
    }
  }
  // Without TLS the plaintext taken from output_ is what goes on the wire.
  IOBuffer& wire = encrypted ? wireOut_ : plainOut_;
  plainOut_.IgnoreAll();
  wireOut_.IgnoreAll();
  netIn_.IgnoreAll();
  plainIn_.IgnoreAll();
  uint32_t taken = 0;

  if (encrypted && tls.doHandshake(noBytes_, wire) != 0) {  // the client hello
    VTLOG_ERROR("SSL encrypt failed: %d", -1);
    return false;
  }

  for (;;) {
    // a. Take the whole output buffer once everything taken before is out.
    if (plainOut_.GetAvailable() == 0 && wire.GetAvailable() == 0) {
      if (taken > 0) {
        flushedBytes_ += taken;
        taken = 0;
      }
      pthread_mutex_lock(&mutex_);
      plainOut_.Swap(output_);
      bool mustExit = mustExit_;
      int currentFd = fd_;
      pthread_mutex_unlock(&mutex_);
      taken = plainOut_.GetAvailable();
      if (mustExit || currentFd < 0) {
        VTLOG_INFO("mustExit: %d; fd: %d", mustExit ? 1 : 0, currentFd);
        break;
      }
    }

    // b. Plaintext becomes records once the handshake is complete.
    if (encrypted && tls.handshakeDone && plainOut_.GetAvailable() > 0) {
      int result = tls.doEncrypt(plainOut_, wire);
      if (result != 0) {
        VTLOG_ERROR("SSL encrypt failed: %d", result);
        break;
      }
    }

    // c. Poll without waiting; sleep on the condition when nothing is ready.
    struct pollfd state = {fd, (short)(POLLIN | (wire.GetAvailable() > 0 ? POLLOUT : 0)), 0};
    int ready = poll(&state, 1, 0);
    if (ready < 0) {
      if (errno == EINTR) continue;
      VTLOG_ERROR("select failed: %d", errno);
      break;
    }
    if (ready == 0) {
      WaitForWork(1000, plainOut_.GetAvailable() == 0 && wire.GetAvailable() == 0);
      continue;
    }

    // d. Bytes from the peer.
    if ((state.revents & (POLLIN | POLLHUP)) && !ReadFromPeer(fd, encrypted ? &tls : nullptr, wire)) break;

    // e. An error condition on the socket.
    if (state.revents & (POLLERR | POLLNVAL)) {
      VTLOG_ERROR("errors detected on fd");
      break;
    }

    // f. Bytes to the peer.
    if ((state.revents & POLLOUT) && wire.GetAvailable() > 0) {
      ssize_t sent = send(fd, wire.GetPointer(), wire.GetAvailable(), MSG_NOSIGNAL);
      if (sent > 0) {
        wire.Ignore((uint32_t)sent);
      } else if (sent < 0 && errno != EAGAIN && errno != EWOULDBLOCK && errno != EINTR) {
        VTLOG_ERROR("Writing to FD failed");
        break;
      }
    }
  }
  bool established = !encrypted || tls.handshakeDone;
  tls.close();
  return established;
}

// Step d of the transfer: reads what the peer sent, decrypts it when tls is
// given (completing its handshake first) and hands the plaintext to the pump.
// False ends the transfer, after its line.
bool TransportTCP::ReadFromPeer(int fd, ssl_t* tls, IOBuffer& wire) {
  int amount = 0;
  if (!netIn_.ReadFromFd(fd, kReadChunk, amount)) {
    VTLOG_ERROR("read from fd failed");
    return false;
  }
  IOBuffer* plain = &netIn_;
  if (tls != nullptr && netIn_.GetAvailable() > 0) {
    plain = &plainIn_;
    bool failed = false;
    if (!tls->handshakeDone) {
      // Records that followed the server's Finished are already inside.
      failed = tls->doHandshake(netIn_, wire) != 0 ||
               (tls->handshakeDone && tls->doDecrypt(noBytes_, plainIn_) != 0);
    } else {
      failed = tls->doDecrypt(netIn_, plainIn_) != 0;
    }
    if (failed) {
      VTLOG_ERROR("SSL decrypt failed: %d", -1);
      return false;
    }
  }
  if (plain->GetAvailable() > 0) {
    pthread_mutex_lock(&mutex_);
    if (received_.GetAvailable() == 0) {
      received_.Swap(*plain);
    } else if (received_.GetAvailable() < kMaxUnreadPeerBytes) {
      received_.ReadFromBuffer(plain->GetPointer(), plain->GetAvailable());
    }  // else a peer flooding a pump that does not keep up: dropped
    PostEvent(TCP_EVENT_DATA);
    pthread_mutex_unlock(&mutex_);
    plain->IgnoreAll();
  }
  return true;
}

bool TransportTCP::Service() {
  pthread_mutex_lock(&mutex_);
  pumpEvents_.swap(events_);
  uint32_t newestConnection = connectionCount_;
  pthread_mutex_unlock(&mutex_);
  if (pumpEvents_.empty()) return true;

  // Only the newest connection, and only while it is still open, gets the
  // container's start-up messages; an older one of the same batch is gone.
  size_t startIndex = pumpEvents_.size();
  for (size_t i = 0; i < pumpEvents_.size(); i++) {
    if (pumpEvents_[i] == TCP_EVENT_CONNECTED) startIndex = i;
    if (pumpEvents_[i] == TCP_EVENT_DISCONNECTED) startIndex = pumpEvents_.size();
  }

  bool result = true;
  for (size_t i = 0; i < pumpEvents_.size() && result; i++) {
    switch (pumpEvents_[i]) {
      case TCP_EVENT_GAVE_UP:
        VLOG_ERROR("Unable to connect to URI %s", fullUri_.c_str());
        result = false;
        break;
      case TCP_EVENT_CONNECTED:
        VLOG_INFO("Connected to %s", fullUri_.c_str());
        serviceInput_.IgnoreAll();
        if (i != startIndex) break;
        startedConnection_ = newestConnection;
        if (outStream_ != nullptr && !outStream_->SignalTransportReady(this)) {
          VLOG_ERROR("Unable to signal the stream about transport being ready");
          result = false;
        }
        break;
      case TCP_EVENT_DATA:
        pthread_mutex_lock(&mutex_);
        if (serviceInput_.GetAvailable() == 0) {
          serviceInput_.Swap(received_);
        } else {
          serviceInput_.ReadFromBuffer(received_.GetPointer(), received_.GetAvailable());
        }
        received_.IgnoreAll();
        pthread_mutex_unlock(&mutex_);
        // What the stream leaves unread stays for the next call.
        if (outStream_ != nullptr) {
          outStream_->SignalTransportReceivedData(serviceInput_);
        } else {
          serviceInput_.IgnoreAll();  // nobody to read it
        }
        // Peer messages are a few bytes long: this much left unread (behind a
        // message the stream never consumes) is dropped, so a peer cannot grow it.
        if (serviceInput_.GetAvailable() >= kMaxUnreadPeerBytes) {
          VLOG_WARN("%u bytes from %s were never read by the stream: dropped",
                    serviceInput_.GetAvailable(), fullUri_.c_str());
          serviceInput_.IgnoreAll();
        }
        break;
      case TCP_EVENT_DISCONNECTED:
        VLOG_ERROR("Disconnected! URI was %s", fullUri_.c_str());
        serviceInput_.IgnoreAll();
        break;
      default:
        VLOG_ERROR("Invalid event type: %d", (int)pumpEvents_[i]);
        forceCrash();
    }
  }
  pumpEvents_.clear();
  return result;
}

}  // namespace internal
}  // namespace encoder
}  // namespace vesk

// Once a TCP stream runs, pushing frames does not allocate per message,
// neither on the pump thread (container, stream, SendMessage, Service) nor on
// the transport's own thread. A queue may still grow when a batch is larger
// than any before it (bounded by the 4 MiB limit), so a few allocations in a
// window of 200 frames are tolerated; one per message is not. malloc and its
// family are replaced in this binary; while the window is open they count the
// calls of the pump thread and, when asked, of any thread named
// "tcp_transport".
#include <gtest/gtest.h>
#include <sys/prctl.h>

#include <atomic>
#include <cstring>
#include <thread>

#include "log_capture.h"
#include "outstream.h"
#include "tcp_test_util.h"
#include "transporttcp.h"
#include "vesk/encoder.h"

extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* pointer, size_t size);
void __libc_free(void* pointer);
}

namespace {
std::atomic<bool> g_window(false);
std::atomic<bool> g_watchTransport(true);
std::atomic<size_t> g_allocations(0);
__thread bool t_pump = false;

void CountIfWatched() {
  if (!g_window.load(std::memory_order_relaxed)) return;
  if (!t_pump) {
    if (!g_watchTransport.load(std::memory_order_relaxed)) return;
    char name[17] = {0};
    prctl(PR_GET_NAME, name, 0, 0, 0);
    if (strcmp(name, "tcp_transport") != 0) return;
  }
  g_allocations++;
}
}  // namespace

extern "C" {
void* malloc(size_t size) noexcept {
  CountIfWatched();
  return __libc_malloc(size);
}
void* calloc(size_t count, size_t size) noexcept {
  CountIfWatched();
  return __libc_calloc(count, size);
}
void* realloc(void* pointer, size_t size) noexcept {
  CountIfWatched();
  return __libc_realloc(pointer, size);
}
void free(void* pointer) noexcept { __libc_free(pointer); }
}

namespace vesk {
namespace test {
namespace {

using vesk::encoder::Encoder;
using vesk::encoder::StreamInfo;
using vesk::encoder::internal::OutStream;
using vesk::encoder::internal::TransportTCP;

// Reads everything a connection sends until it closes, into one fixed buffer.
class DrainingPeer {
 public:
  DrainingPeer() : thread_([this] { Run(); }) {}
  ~DrainingPeer() { thread_.join(); }
  std::string Uri() const { return listener_.Uri(); }

 private:
  void Run() {
    int fd = listener_.Accept(10000);
    if (fd < 0) return;
    static uint8_t chunk[65536];
    while (recv(fd, chunk, sizeof(chunk), 0) > 0) {
    }
    close(fd);
  }
  Listener listener_;
  std::thread thread_;
};

// Pushes frames until the stream runs warm, then counts the allocations of
// 200 more frames (about 320 messages) and of flushing them to the peer.
size_t SteadyStateAllocations(OutStream& stream, TransportTCP* transport, LogCapture& log,
                              const std::string& uri) {
  auto start = std::chrono::steady_clock::now();
  while (!log.Has("Connected to " + uri) && MsSince(start) < 15000) {
    stream.ServiceTransports();
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  EXPECT_TRUE(log.Has("Connected to " + uri));
  MediaPump pump(stream);
  EXPECT_TRUE(pump.Ready());
  for (int i = 0; i < 400; i++) {
    pump.Step();
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }

  g_allocations = 0;
  t_pump = true;
  g_window = true;
  for (int i = 0; i < 200; i++) {
    pump.Step();
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
  start = std::chrono::steady_clock::now();
  while (transport->GetFlushedBytes() != transport->GetAcceptedBytes() &&
         MsSince(start) < 10000) {
    stream.ServiceTransports();
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  g_window = false;
  t_pump = false;
  EXPECT_EQ(transport->GetFlushedBytes(), transport->GetAcceptedBytes());
  return g_allocations.load();
}

TEST(TcpAllocations, CountingSeesTheTransportThread) {
  LogCapture log;
  Listener listener;
  g_allocations = 0;
  g_window = true;
  {
    // Starting a transport allocates on its thread (the first log line).
    vesk::variant::URI uri;
    ASSERT_TRUE(vesk::variant::URI::FromString(listener.Uri(), true, uri));
    TransportTCP transport(nullptr);
    ASSERT_TRUE(transport.Initialize(uri));
    auto start = std::chrono::steady_clock::now();
    while (!log.Contains("Thread started") && MsSince(start) < 5000) {
      std::this_thread::sleep_for(std::chrono::milliseconds(5));
    }
  }
  g_window = false;
  EXPECT_GT(g_allocations.load(), 0u);
}

TEST(TcpAllocations, PlainPushAllocatesNothingPerMessage) {
  LogCapture log;
  DrainingPeer peer;
  Encoder encoder;
  StreamInfo info = MakeStreamInfo(true, true);
  OutStream stream(&encoder, 0);
  ASSERT_TRUE(stream.Configure(FlvConfig({peer.Uri()}), info));
  TransportTCP* transport = dynamic_cast<TransportTCP*>(stream.GetTransports()[0]);
  ASSERT_NE(transport, nullptr);
  EXPECT_LT(SteadyStateAllocations(stream, transport, log, peer.Uri()), 8u);
  stream.Close();
}

TEST(TcpAllocations, EncryptedPushAllocatesNothingPerMessageOnThePump) {
  TempDir dir;
  std::string out;
  ASSERT_EQ(0, RunCommand("openssl req -x509 -newkey rsa:2048 -nodes -keyout '" +
                              dir.File("key.pem") + "' -out '" + dir.File("cert.pem") +
                              "' -days 2 -subj /CN=localhost 2>&1",
                          out));
  uint16_t port = FreePort();
  ChildProcess server("openssl s_server -tls1_2 -naccept 1 -quiet -accept 127.0.0.1:" +
                          std::to_string(port) + " -cert '" + dir.File("cert.pem") + "' -key '" +
                          dir.File("key.pem") + "'",
                      "/dev/null", dir.File("server.err"));
  ASSERT_TRUE(server.Started());

  LogCapture log;
  Encoder encoder;
  StreamInfo info = MakeStreamInfo(true, true);
  std::string uri = "tcp://127.0.0.1:" + std::to_string(port) + "?encrypted=1&retryInterval=1";
  OutStream stream(&encoder, 0);
  ASSERT_TRUE(stream.Configure(FlvConfig({uri}), info));
  TransportTCP* transport = dynamic_cast<TransportTCP*>(stream.GetTransports()[0]);
  ASSERT_NE(transport, nullptr);
  // OpenSSL 3's SSL_write allocates inside the library on each call (two
  // small blocks per batch of records): only the pump thread is counted here.
  g_watchTransport = false;
  EXPECT_LT(SteadyStateAllocations(stream, transport, log, uri), 8u);
  g_watchTransport = true;
  stream.Close();
}

}  // namespace
}  // namespace test
}  // namespace vesk

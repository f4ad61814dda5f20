// Once a TCP stream runs, pushing frames does not allocate per message,
// neither on the pump thread (container, stream, SendMessage, Service) nor on
// the transport's own thread. A queue may still grow when a batch is larger
// than any before it (bounded by the 4 MiB limit), so a few allocations in a
// window of 200 frames are tolerated; one per message is not.
#include <gtest/gtest.h>

#include "malloc_counter.h"
#include "tcp_test_util.h"
#include "vesk/encoder.h"

namespace vesk {
namespace test {
namespace {

using vesk::encoder::Encoder;
using vesk::encoder::StreamInfo;
using vesk::encoder::internal::OutStream;
using vesk::encoder::internal::TransportTCP;

// Pushes real media to uri until the stream runs warm, then counts the
// allocations of 200 more frames (about 320 messages) and of flushing them.
// transportThread: also count the "tcp_transport" thread; it is counted while
// the transport starts, which shows the counter sees that thread.
void ExpectSteadyStateAllocatesNothing(const std::string& uri, bool transportThread) {
  LogCapture log;
  Encoder encoder;
  StreamInfo info = MakeStreamInfo(true, true);
  OutStream stream(&encoder, 0);
  ResetMallocCount();
  CountThreadsNamed(transportThread ? "tcp_transport" : nullptr);
  ASSERT_TRUE(stream.Configure(FlvConfig({uri}), info));
  TransportTCP* transport = dynamic_cast<TransportTCP*>(stream.GetTransports()[0]);
  ASSERT_NE(transport, nullptr);
  ASSERT_TRUE(ServiceUntilConnected(stream, log, uri, 15000));
  CountThreadsNamed(nullptr);
  EXPECT_TRUE(!transportThread || MallocCount() > 0);
  MediaPump pump(stream);
  ASSERT_TRUE(pump.Ready());
  pump.Run(400);

  ResetMallocCount();
  CountThisThread(true);
  CountThreadsNamed(transportThread ? "tcp_transport" : nullptr);
  pump.Run(200);
  EXPECT_TRUE(PumpUntilFlushed(stream, transport, 10000));
  CountThreadsNamed(nullptr);
  CountThisThread(false);
  EXPECT_LT(MallocCount(), 8u);
  stream.Close();
}

TEST(TcpAllocations, PlainPushAllocatesNothingPerMessage) {
  Listener listener;
  std::thread peer([&] {
    int fd = listener.Accept(10000);
    static uint8_t chunk[65536];
    while (fd >= 0 && recv(fd, chunk, sizeof(chunk), 0) > 0) {
    }
    if (fd >= 0) close(fd);
  });
  ExpectSteadyStateAllocatesNothing(listener.Uri(), true);
  peer.join();
}

TEST(TcpAllocations, EncryptedPushAllocatesNothingPerMessageOnThePump) {
  ASSERT_TRUE(TestCert().ok);
  TempDir dir;
  uint16_t port = FreePort();
  ChildProcess server(SslServerCommand("-tls1_2 -naccept 1", port), "/dev/null", dir.File("err"));
  // OpenSSL 3's SSL_write allocates inside the library on each call (two
  // small blocks per batch of records): only the pump thread is counted.
  ExpectSteadyStateAllocatesNothing(
      "tcp://127.0.0.1:" + std::to_string(port) + "?encrypted=1&retryInterval=1", false);
}

}  // namespace
}  // namespace test
}  // namespace vesk

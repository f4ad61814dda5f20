// A running TCP stream allocates nothing per message, on the pump thread or the
// transport's; a queue may still grow on a record batch, so a few are tolerated.
#include <gtest/gtest.h>

#include "malloc_counter.h"
#include "tcp_test_util.h"

namespace vesk::test {
namespace {

// Warms the stream up, then counts 200 more frames (about 320 messages) and
// their flush. The transport thread, when counted, is seen while it starts.
void ExpectSteadyStateAllocatesNothing(const std::string& uri, bool transportThread) {
  LogCapture log;
  ResetMallocCount();
  CountThreadsNamed(transportThread ? "tcp_transport" : nullptr);
  TcpStream s({uri});
  ASSERT_TRUE(s.ok());
  ASSERT_TRUE(ServiceUntilConnected(s.stream, log, uri, 15000));
  CountThreadsNamed(nullptr);
  EXPECT_TRUE(!transportThread || MallocCount() > 0);
  s.pump.Run(400);

  ResetMallocCount();
  CountThisThread(true);
  CountThreadsNamed(transportThread ? "tcp_transport" : nullptr);
  s.pump.Run(200);
  EXPECT_TRUE(PumpUntilFlushed(s.stream, s.transport, 10000));
  CountThreadsNamed(nullptr);
  CountThisThread(false);
  EXPECT_LT(MallocCount(), 8u);
  s.stream.Close();
}

TEST(TcpAllocations, PlainPushAllocatesNothingPerMessage) {
  Listener listener;
  std::thread peer([&] {  // reads until the stream closes
    int fd = listener.Accept(10000);
    if (fd >= 0) WaitForClose(fd, 60000), close(fd);
  });
  ExpectSteadyStateAllocatesNothing(listener.Uri(), true);
  peer.join();
}

TEST(TcpAllocations, EncryptedPushAllocatesNothingPerMessageOnThePump) {
  ASSERT_TRUE(TestCert().ok);
  TempDir dir;
  uint16_t port = FreePort();
  ChildProcess server(SslServerCommand("-tls1_2 -naccept 1", port), "/dev/null", dir.File("err"));
  // OpenSSL 3's SSL_write allocates on each call: only the pump thread is counted.
  ExpectSteadyStateAllocatesNothing(
      "tcp://127.0.0.1:" + std::to_string(port) + "?encrypted=1&retryInterval=1", false);
}

}  // namespace
}  // namespace vesk::test

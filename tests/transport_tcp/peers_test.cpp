// A stream pushed over TCP to ffmpeg and openssl s_server on loopback.
#include <gtest/gtest.h>

#include "tcp_test_util.h"

namespace vesk::test {
namespace {

// Frames counted by ffprobe for a codec (its "codec,...,frames" line); -1 when absent.
int FramesOf(const std::string& probe, const std::string& codec) {
  size_t line = probe.find(codec + ",");
  if (line == std::string::npos) return -1;
  size_t end = probe.find('\n', line);
  return atoi(probe.c_str() + probe.rfind(',', end) + 1);
}

TEST(TcpRealPeers, FfmpegReceivesThePlainFlvPushStartedBeforeOrAfterIt) {
  for (bool lateServer : {false, true}) {
    SCOPED_TRACE(lateServer ? "ffmpeg started after the stream" : "ffmpeg listening first");
    TempDir dir;
    LogCapture log;
    uint16_t port = FreePort();
    std::string uri = "tcp://127.0.0.1:" + std::to_string(port) + "?retryInterval=1";
    std::string received = dir.File("received.flv");
    std::string command = "ffmpeg -nostdin -v warning -y -f flv -listen 1 -i tcp://127.0.0.1:" +
                          std::to_string(port) + " -c copy '" + received + "'";
    std::unique_ptr<ChildProcess> ffmpeg;
    if (!lateServer) ffmpeg.reset(new ChildProcess(command, dir.File("out"), dir.File("err")));
    TcpStream s({uri});
    ASSERT_TRUE(s.ok());
    if (lateServer) {
      // The stream runs for a while with nobody listening; nothing is kept.
      s.pump.Run(150);
      EXPECT_EQ(0u, s.transport->GetAcceptedBytes());
      ffmpeg.reset(new ChildProcess(command, dir.File("out"), dir.File("err")));
      ASSERT_TRUE(s.pump.RunUntil([&] { return log.Has("Connected to " + uri); }, 15000, 10));
    } else {
      // The transport keeps trying until ffmpeg listens.
      ASSERT_TRUE(ServiceUntilConnected(s.stream, log, uri, 15000));
    }
    uint32_t videoBefore = s.pump.videoFrames(), audioBefore = s.pump.audioFrames();
    s.pump.Run(240);  // about 6 s of media
    ASSERT_TRUE(PumpUntilFlushed(s.stream, s.transport, 10000));
    s.stream.Close();
    ASSERT_EQ(0, ffmpeg->WaitExit(15000)) << ReadFile(dir.File("err"));

    // No ffmpeg warning: the stream began with the FLV header. A late peer
    // holds at most the frames sent since it joined.
    EXPECT_EQ("", ReadFile(dir.File("err")));
    EXPECT_EQ("", DecodeErrors(received));
    std::string probe = ProbeStreams(received);
    int video = FramesOf(probe, "h264"), audio = FramesOf(probe, "aac");
    if (lateServer) {
      EXPECT_GT(video, 50) << probe;
      EXPECT_LE(video, (int)(s.pump.videoFrames() - videoBefore + 1)) << probe;
      EXPECT_GT(audio, 30) << probe;
      EXPECT_LE(audio, (int)(s.pump.audioFrames() - audioBefore + 1)) << probe;
    } else {
      EXPECT_EQ((int)s.pump.videoFrames(), video) << probe;
      EXPECT_EQ((int)s.pump.audioFrames(), audio) << probe;
    }
  }
}

TEST(TcpRealPeers, OpenSslServerReceivesTheEncryptedStream) {
  ASSERT_TRUE(TestCert().ok);
  TempDir dir;
  LogCapture log;
  uint16_t port = FreePort();
  std::string received = dir.File("received.bin");
  ChildProcess server(SslServerCommand("-tls1_2 -naccept 1", port), received, dir.File("err"));
  std::string uri = "tcp://127.0.0.1:" + std::to_string(port) + "?encrypted=1&retryInterval=1";
  TcpStream s({uri});
  ASSERT_TRUE(s.ok());
  ASSERT_TRUE(ServiceUntilConnected(s.stream, log, uri, 15000));
  s.pump.Run(240);
  ASSERT_TRUE(PumpUntilFlushed(s.stream, s.transport, 10000));
  uint64_t sent = s.transport->GetFlushedBytes();
  WaitUntil([&] { return ReadWholeFile(received).size() >= sent; }, 10000, 20);
  s.stream.Close();
  EXPECT_EQ(0, server.WaitExit(10000));

  std::vector<uint8_t> bytes = ReadWholeFile(received);
  ASSERT_EQ(sent, bytes.size());
  EXPECT_EQ(0, memcmp(bytes.data(), "FLV\x01\x05", 5));
  std::string probe = ProbeStreams(received, "-f flv");
  EXPECT_EQ((int)s.pump.videoFrames(), FramesOf(probe, "h264")) << probe;
  EXPECT_EQ((int)s.pump.audioFrames(), FramesOf(probe, "aac")) << probe;
  EXPECT_EQ("", DecodeErrors(received, "-f flv"));
  EXPECT_FALSE(log.Contains("SSL handshake failed"));
}

TEST(TcpRealPeers, Tls13OnlyServerFailsTheHandshakeAndTheClientReconnects) {
  ASSERT_TRUE(TestCert().ok);
  TempDir dir;
  LogCapture log;
  uint16_t port = FreePort();
  ChildProcess server(SslServerCommand("-tls1_3", port), dir.File("out"), dir.File("err"));
  WaitUntil([&] {  // until the server listens
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_in address = Loopback(port);
    bool ok = connect(fd, (sockaddr*)&address, sizeof(address)) == 0;
    return close(fd), ok;
  }, 10000, 50);

  // A refused handshake counts as a failed attempt: the next one waits the
  // retry interval instead of redialling in a tight loop.
  std::string uri = "tcp://127.0.0.1:" + std::to_string(port) + "?encrypted&retryInterval=1";
  TcpStream s({uri});
  ASSERT_TRUE(s.ok());
  const std::string failure =
      " - SSL handshake failed due to SSL_connect failure. sslConnectResult: -1; sslError: 1";
  auto failures = [&] {
    size_t n = 0;
    for (const std::string& line : log.Messages()) {
      n += line.rfind("tcp_transport(", 0) == 0 && line.find(failure) != std::string::npos;
    }
    return n;
  };
  ASSERT_TRUE(s.pump.RunUntil(
      [&] { return failures() >= 2 && log.Has("Disconnected! URI was " + uri); }, 15000, 10));
  auto second = std::chrono::steady_clock::now();
  s.pump.RunUntil([&] { return false; }, 1500, 10);
  // About one attempt a second, not a reconnect storm.
  EXPECT_LE(failures(), 2 + MsSince(second) / 1000 + 2);
  EXPECT_NE(nullptr, s.stream.GetTransports()[0]);
  auto start = std::chrono::steady_clock::now();
  s.stream.Close();
  EXPECT_LT(MsSince(start), 3000u);
}

}  // namespace
}  // namespace vesk::test

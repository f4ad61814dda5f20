// A stream pushed over TCP to real servers on loopback: ffmpeg listening for
// FLV (started before and after the stream), openssl s_server with TLS 1.2,
// and a TLS 1.3-only s_server that the client must refuse.
#include <gtest/gtest.h>

#include <sstream>

#include "log_capture.h"
#include "outstream.h"
#include "tcp_test_util.h"
#include "transporttcp.h"
#include "vesk/encoder.h"

namespace vesk {
namespace test {
namespace {

using vesk::encoder::Encoder;
using vesk::encoder::StreamInfo;
using vesk::encoder::internal::OutStream;
using vesk::encoder::internal::TransportTCP;

// Codec and decoded frame count of each stream of an FLV file.
std::string ProbeStreams(const std::string& path, bool forceFlv) {
  std::string out;
  RunCommand(std::string("ffprobe -v error ") + (forceFlv ? "-f flv " : "") +
                 "-count_frames -show_entries stream=codec_name,nb_read_frames -of csv=p=0 '" +
                 path + "' 2>&1",
             out);
  return out;
}

// What a full decode of the file reports at error level (nothing when clean).
std::string DecodeErrors(const std::string& path, bool forceFlv) {
  std::string out;
  RunCommand(std::string("ffmpeg -nostdin -v error ") + (forceFlv ? "-f flv " : "") + "-i '" +
                 path + "' -f null - 2>&1",
             out);
  return out;
}

// Frames counted by ffprobe for a codec ("h264,75" lines); -1 when absent.
int FramesOf(const std::string& probe, const std::string& codec) {
  std::istringstream lines(probe);
  std::string line;
  while (std::getline(lines, line)) {
    if (line.rfind(codec + ",", 0) == 0) return atoi(line.c_str() + codec.size() + 1);
  }
  return -1;
}

std::string ReadText(const std::string& path) {
  std::vector<uint8_t> bytes = ReadWholeFile(path);
  return std::string(bytes.begin(), bytes.end());
}

TransportTCP* OnlyTransport(OutStream& stream) {
  if (stream.GetTransports().size() != 1) return nullptr;
  return dynamic_cast<TransportTCP*>(stream.GetTransports()[0]);
}

// Pumps until everything the transport accepted is on the wire.
bool PumpUntilFlushed(OutStream& stream, TransportTCP* transport, int timeoutMs) {
  auto start = std::chrono::steady_clock::now();
  while (transport->GetFlushedBytes() != transport->GetAcceptedBytes()) {
    if ((int)MsSince(start) >= timeoutMs) return false;
    stream.ServiceTransports();
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return true;
}

// Services the stream without frames until its transport is connected, so
// that the peer receives everything from the first picture on.
bool ServiceUntilConnected(OutStream& stream, LogCapture& log, const std::string& uri,
                           int timeoutMs) {
  auto start = std::chrono::steady_clock::now();
  while (!log.Has("Connected to " + uri)) {
    if ((int)MsSince(start) >= timeoutMs) return false;
    stream.ServiceTransports();
    std::this_thread::sleep_for(std::chrono::milliseconds(10));
  }
  return true;
}

void PumpFrames(MediaPump& pump, int frames) {
  for (int i = 0; i < frames; i++) {
    pump.Step();
    std::this_thread::sleep_for(std::chrono::milliseconds(2));
  }
}

TEST(TcpRealPeers, FfmpegReceivesThePlainFlvPush) {
  TempDir dir;
  LogCapture log;
  uint16_t port = FreePort();
  std::string received = dir.File("received.flv");
  ChildProcess ffmpeg("ffmpeg -nostdin -v warning -y -f flv -listen 1 -i tcp://127.0.0.1:" +
                          std::to_string(port) + " -c copy '" + received + "'",
                      dir.File("ffmpeg.out"), dir.File("ffmpeg.err"));
  ASSERT_TRUE(ffmpeg.Started());

  Encoder encoder;
  StreamInfo info = MakeStreamInfo(true, true);
  std::string uri = "tcp://127.0.0.1:" + std::to_string(port) + "?retryInterval=1";
  OutStream stream(&encoder, 0);
  ASSERT_TRUE(stream.Configure(FlvConfig({uri}), info));
  TransportTCP* transport = OnlyTransport(stream);
  ASSERT_NE(transport, nullptr);
  MediaPump pump(stream);
  ASSERT_TRUE(pump.Ready());

  // The transport keeps trying until ffmpeg listens.
  ASSERT_TRUE(ServiceUntilConnected(stream, log, uri, 15000));
  PumpFrames(pump, 240);  // 6 s of media: 150 pictures, 94 audio frames
  ASSERT_TRUE(PumpUntilFlushed(stream, transport, 10000));
  stream.Close();
  ASSERT_EQ(0, ffmpeg.WaitExit(15000)) << ReadText(dir.File("ffmpeg.err"));

  std::string probe = ProbeStreams(received, false);
  EXPECT_EQ(pump.videoFrames(), (uint32_t)FramesOf(probe, "h264")) << probe;
  EXPECT_EQ(pump.audioFrames(), (uint32_t)FramesOf(probe, "aac")) << probe;
  EXPECT_EQ("", DecodeErrors(received, false));
}

TEST(TcpRealPeers, FfmpegStartedAfterTheStreamGetsAnFlvStart) {
  TempDir dir;
  LogCapture log;
  uint16_t port = FreePort();
  Encoder encoder;
  StreamInfo info = MakeStreamInfo(true, true);
  std::string uri = "tcp://127.0.0.1:" + std::to_string(port) + "?retryInterval=1";
  OutStream stream(&encoder, 0);
  ASSERT_TRUE(stream.Configure(FlvConfig({uri}), info));
  TransportTCP* transport = OnlyTransport(stream);
  ASSERT_NE(transport, nullptr);
  MediaPump pump(stream);
  ASSERT_TRUE(pump.Ready());

  // The stream runs for a while with nobody listening; nothing is kept.
  PumpFrames(pump, 150);
  EXPECT_EQ(0u, transport->GetAcceptedBytes());
  EXPECT_FALSE(log.Contains("Connected to"));

  std::string received = dir.File("received.flv");
  ChildProcess ffmpeg("ffmpeg -nostdin -v warning -y -f flv -listen 1 -i tcp://127.0.0.1:" +
                          std::to_string(port) + " -c copy '" + received + "'",
                      dir.File("ffmpeg.out"), dir.File("ffmpeg.err"));
  ASSERT_TRUE(ffmpeg.Started());
  ASSERT_TRUE(pump.RunUntil([&] { return log.Has("Connected to " + uri); }, 15000, 10));
  uint32_t videoBefore = pump.videoFrames();
  PumpFrames(pump, 200);
  ASSERT_TRUE(PumpUntilFlushed(stream, transport, 10000));
  stream.Close();
  ASSERT_EQ(0, ffmpeg.WaitExit(15000)) << ReadText(dir.File("ffmpeg.err"));

  // ffmpeg, forced to read FLV, took the stream without a warning (one that
  // does not begin with the file header makes it complain about the header);
  // it joined mid-way, so it holds at most the pictures sent since then.
  std::string probe = ProbeStreams(received, false);
  int video = FramesOf(probe, "h264");
  EXPECT_GT(video, 50) << probe;
  EXPECT_LE(video, (int)(pump.videoFrames() - videoBefore + 1)) << probe;
  EXPECT_GT(FramesOf(probe, "aac"), 30) << probe;
  EXPECT_EQ("", ReadText(dir.File("ffmpeg.err")));
  EXPECT_EQ("", DecodeErrors(received, false));
}

struct tls_files_t {
  TempDir dir;
  std::string cert, key;
  bool ok = false;
};
const tls_files_t& TlsFiles() {
  static tls_files_t* files = nullptr;
  if (files == nullptr) {
    files = new tls_files_t();
    files->cert = files->dir.File("cert.pem");
    files->key = files->dir.File("key.pem");
    std::string out;
    files->ok = RunCommand("openssl req -x509 -newkey rsa:2048 -nodes -keyout '" + files->key +
                               "' -out '" + files->cert + "' -days 2 -subj /CN=localhost 2>&1",
                           out) == 0;
  }
  return *files;
}

TEST(TcpRealPeers, OpenSslServerReceivesTheEncryptedStream) {
  ASSERT_TRUE(TlsFiles().ok);
  TempDir dir;
  LogCapture log;
  uint16_t port = FreePort();
  std::string received = dir.File("received.bin");
  ChildProcess server("openssl s_server -tls1_2 -naccept 1 -quiet -accept 127.0.0.1:" +
                          std::to_string(port) + " -cert '" + TlsFiles().cert + "' -key '" +
                          TlsFiles().key + "'",
                      received, dir.File("server.err"));
  ASSERT_TRUE(server.Started());

  Encoder encoder;
  StreamInfo info = MakeStreamInfo(true, true);
  std::string uri = "tcp://127.0.0.1:" + std::to_string(port) + "?encrypted=1&retryInterval=1";
  OutStream stream(&encoder, 0);
  ASSERT_TRUE(stream.Configure(FlvConfig({uri}), info));
  TransportTCP* transport = OnlyTransport(stream);
  ASSERT_NE(transport, nullptr);
  ASSERT_TRUE(transport->IsEncrypted());
  MediaPump pump(stream);
  ASSERT_TRUE(pump.Ready());

  ASSERT_TRUE(ServiceUntilConnected(stream, log, uri, 15000));
  PumpFrames(pump, 240);
  ASSERT_TRUE(PumpUntilFlushed(stream, transport, 10000));
  // The server prints what it decrypts; wait until all of it is out.
  uint64_t sent = transport->GetFlushedBytes();
  auto start = std::chrono::steady_clock::now();
  while (ReadWholeFile(received).size() < sent && MsSince(start) < 10000) {
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  stream.Close();
  EXPECT_EQ(0, server.WaitExit(10000));

  std::vector<uint8_t> bytes = ReadWholeFile(received);
  ASSERT_EQ(sent, bytes.size());
  ASSERT_GE(bytes.size(), 13u);
  EXPECT_EQ(0, memcmp(bytes.data(), "FLV\x01\x05", 5));
  std::string probe = ProbeStreams(received, true);
  EXPECT_EQ(pump.videoFrames(), (uint32_t)FramesOf(probe, "h264")) << probe;
  EXPECT_EQ(pump.audioFrames(), (uint32_t)FramesOf(probe, "aac")) << probe;
  EXPECT_EQ("", DecodeErrors(received, true));
  EXPECT_FALSE(log.Contains("SSL handshake failed"));
}

TEST(TcpRealPeers, Tls13OnlyServerFailsTheHandshakeAndTheClientReconnects) {
  ASSERT_TRUE(TlsFiles().ok);
  TempDir dir;
  LogCapture log;
  uint16_t port = FreePort();
  ChildProcess server("openssl s_server -tls1_3 -quiet -accept 127.0.0.1:" +
                          std::to_string(port) + " -cert '" + TlsFiles().cert + "' -key '" +
                          TlsFiles().key + "'",
                      dir.File("server.out"), dir.File("server.err"));
  ASSERT_TRUE(server.Started());
  auto listening = std::chrono::steady_clock::now();
  while (!PortAccepts(port) && MsSince(listening) < 10000) {
    std::this_thread::sleep_for(std::chrono::milliseconds(50));
  }

  Encoder encoder;
  StreamInfo info = MakeStreamInfo(true, true);
  // A refused handshake counts as a failed attempt: the next one waits the
  // retry interval instead of redialling in a tight loop.
  std::string uri = "tcp://127.0.0.1:" + std::to_string(port) + "?encrypted&retryInterval=1";
  OutStream stream(&encoder, 0);
  ASSERT_TRUE(stream.Configure(FlvConfig({uri}), info));
  MediaPump pump(stream);
  ASSERT_TRUE(pump.Ready());

  const std::string failure =
      " - SSL handshake failed due to SSL_connect failure. sslConnectResult: -1; sslError: 1";
  auto failures = [&] {
    size_t n = 0;
    for (const std::string& line : log.Messages()) {
      if (line.rfind("tcp_transport(", 0) == 0 && line.find(failure) != std::string::npos) n++;
    }
    return n;
  };
  ASSERT_TRUE(pump.RunUntil(
      [&] { return failures() >= 2 && log.Has("Disconnected! URI was " + uri); }, 15000, 10));
  auto second = std::chrono::steady_clock::now();
  pump.RunUntil([&] { return false; }, 1500, 10);
  // About one attempt a second, not a reconnect storm.
  EXPECT_LE(failures(), 2 + MsSince(second) / 1000 + 2);
  EXPECT_NE(nullptr, OnlyTransport(stream));
  auto start = std::chrono::steady_clock::now();
  stream.Close();
  EXPECT_LT(MsSince(start), 3000u);
}

}  // namespace
}  // namespace test
}  // namespace vesk

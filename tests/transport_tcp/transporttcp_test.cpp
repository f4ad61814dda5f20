#include <gtest/gtest.h>
#include <climits>
#include <ctime>

#include <mutex>

#include "basetransport.h"
#include "tcp_test_util.h"
#include "vesk/variant/uri.h"

// These replace the library's Encoder calls (the executable's symbols win) to observe them.
namespace {
struct adapt_call_t {
  unsigned int channel;
  signed char level;
  int bitrate;
  bool resetOutputBitrate;
  std::thread::id thread;
};
std::mutex g_callsMutex;
std::vector<adapt_call_t> g_adapt;
std::vector<std::thread::id> g_forceIdr;
size_t AdaptCount() {
  std::lock_guard<std::mutex> lock(g_callsMutex);
  return g_adapt.size();
}
}  // namespace

namespace vesk::encoder {
bool Encoder::ForceIDR() {
  std::lock_guard<std::mutex> lock(g_callsMutex);
  g_forceIdr.push_back(std::this_thread::get_id());
  return true;
}
bool Encoder::AdaptServerPlayerBitrate(unsigned int channel, signed char level, int bitrate,
                                       bool resetOutputBitrate) {
  std::lock_guard<std::mutex> lock(g_callsMutex);
  g_adapt.push_back({channel, level, bitrate, resetOutputBitrate, std::this_thread::get_id()});
  return true;
}
}  // namespace vesk::encoder

namespace vesk::test {
namespace {

using vesk::encoder::message_part_t;
using vesk::encoder::message_t;
using vesk::encoder::internal::BaseTransport;
using vesk::encoder::internal::OutStream;
using vesk::encoder::internal::TransportTCP;
using vesk::variant::URI;
typedef std::vector<uint8_t> Bytes;

std::unique_ptr<TransportTCP> MakeTransport(const std::string& text) {
  URI uri;
  if (!URI::FromString(text, true, uri)) return nullptr;
  return std::unique_ptr<TransportTCP>(
      dynamic_cast<TransportTCP*>(BaseTransport::GetInstance(nullptr, uri)));
}

// Services the transport until the log shows its connection.
bool ServiceUntilConnected(TransportTCP& transport, LogCapture& log, const std::string& uri) {
  return WaitUntil([&] { return log.Has("Connected to " + uri) || (transport.Service(), false); },
                   5000, 5);
}

long ResidentKiB() {
  long size = 0, resident = 0;
  sscanf(ReadFile("/proc/self/statm").c_str(), "%ld %ld", &size, &resident);
  return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

double CpuSeconds() { return (double)clock() / CLOCKS_PER_SEC; }  // every thread's CPU time

template <typename F>
uint64_t ElapsedMs(F f) {
  auto start = std::chrono::steady_clock::now();
  f();
  return MsSince(start);
}

TEST(TransportTcpParameters, QueryQuirksLevelsAndFactory) {
  Listener listener;
  struct parameter_case_t {
    std::string query;
    int retryInterval, connectTimeout;
    bool encrypted;
  } cases[] = {
      {"", 1, 10, false},
      {"connectTimeout=0", 1, 1, false},
      {"connectTimeout=120", 1, 60, false},
      {"connectTimeout=45&retryInterval=7", 7, 45, false},
      {"retryInterval=256", 1, 10, false},  // 8 bits: 0, then 1
      {"retryInterval=300", 44, 10, false},
      {"retryInterval=0&connectTimeout=256", 1, 1, false},
      {"encrypted=0", 1, 10, true},  // any value turns TLS on
      {"encrypted", 1, 10, true},
      {"encryption=1", 1, 10, false},
  };
  for (const auto& c : cases) {
    SCOPED_TRACE(c.query);
    auto transport = MakeTransport(listener.Uri(c.query));
    ASSERT_NE(transport, nullptr);
    EXPECT_EQ(c.retryInterval, transport->GetRetryInterval());
    EXPECT_EQ(c.connectTimeout, transport->GetConnectTimeout());
    EXPECT_EQ(c.encrypted, transport->IsEncrypted());
  }

  // The output level has a dead zone under 11 % of 4 MiB and caps at 100.
  std::pair<uint32_t, int> levels[] = {{0, 0},          {461373, 0},          {461374, 11},
                                       {2097152, 50},   {4194303, 99},        {4194304, 100},
                                       {4259840, 100}};
  for (auto& level : levels) EXPECT_EQ(level.second, TransportTCP::LevelOfQueue(level.first));

  TcpStream s({listener.Uri()}, "flv", 7);
  ASSERT_TRUE(s.ok());
  EXPECT_EQ(7u, s.transport->GetChannelId());
}

TEST(TransportTcpQueue, NothingGoesOutBeforeThePumpStartsTheConnection) {
  LogCapture log;
  Listener listener;
  auto transport = MakeTransport(listener.Uri());
  int peer = listener.Accept(5000);
  ASSERT_GE(peer, 0);
  std::this_thread::sleep_for(std::chrono::milliseconds(200));

  // Connected, but not yet serviced: the container has not chosen this peer's start.
  char head[] = "late:", body[] = "0123456789";
  message_part_t parts[3] = {{head, 5}, {body, 10}, {head, 4}};
  message_t message = {parts, 3, 19}, empty = {parts, 0, 0};
  EXPECT_TRUE(transport->SendMessage(&message));
  EXPECT_EQ(0u, transport->GetAcceptedBytes());
  EXPECT_FALSE(transport->IsConnected());

  EXPECT_TRUE(transport->Service());
  EXPECT_TRUE(transport->IsConnected());
  EXPECT_TRUE(log.Has("Connected to " + listener.Uri()));
  EXPECT_TRUE(transport->SendMessage(&empty));
  EXPECT_TRUE(transport->SendMessage(nullptr));
  EXPECT_TRUE(transport->SendMessage(&message));
  Bytes bytes = ReadBytes(peer, 20, 300);
  EXPECT_EQ("late:0123456789late", std::string(bytes.begin(), bytes.end()));
  close(peer);
}

TEST(TransportTcpQueue, PeerThatNeverReadsIsBoundedAt4MiB) {
  LogCapture log;
  Listener listener;
  auto transport = MakeTransport(listener.Uri());
  int peer = listener.Accept(5000);
  ASSERT_GE(peer, 0);
  ASSERT_TRUE(ServiceUntilConnected(*transport, log, listener.Uri()));
  EXPECT_EQ(0, transport->GetOutputBufferLevel());

  // 64 KiB messages in two parts, as a container hands them over.
  Bytes payload(65536, 0x5A);
  message_part_t parts[2] = {{payload.data(), 1000}, {payload.data() + 1000, 64536}};
  message_t message = {parts, 2, 65536};
  const std::string warning = "Frames are skipped! The current bandwidth is not enough!";
  long residentBefore = ResidentKiB();
  // Until the socket's buffers are full too: 200 messages in a row are dropped and the
  // queue then stays put for 300 ms (the I/O thread may be slow to drain it under load).
  int droppedInARow = 0;
  auto fill = [&] {
    droppedInARow = 0;
    return WaitUntil(
        [&] {
          uint64_t accepted = transport->GetAcceptedBytes();
          transport->SendMessage(&message);
          transport->Service();
          droppedInARow = transport->GetAcceptedBytes() == accepted ? droppedInARow + 1 : 0;
          return droppedInARow >= 200;
        },
        20000, 0);
  };
  bool settled = false;
  for (int round = 0; round < 50 && !settled && fill(); round++) {
    size_t queued = transport->GetQueuedBytes();
    std::this_thread::sleep_for(std::chrono::milliseconds(300));
    settled = transport->GetQueuedBytes() == queued;
  }
  ASSERT_TRUE(settled);
  ASSERT_EQ(200, droppedInARow);
  ASSERT_TRUE(log.Has(warning));
  EXPECT_LE(TransportTCP::kMaxQueuedBytes, transport->GetQueuedBytes());
  EXPECT_EQ(100, transport->GetOutputBufferLevel());

  // 256 MiB more are dropped: nothing grows (room left for a sanitizer's shadow).
  size_t warnings = log.Count(warning);
  uint64_t accepted = transport->GetAcceptedBytes();
  for (int i = 0; i < 4096; i++) ASSERT_TRUE(transport->SendMessage(&message));
  EXPECT_EQ(warnings + 4096, log.Count(warning));
  EXPECT_EQ(accepted, transport->GetAcceptedBytes());
  EXPECT_LE(transport->GetQueuedBytes(), TransportTCP::kMaxQueuedBytes + 65536);
  EXPECT_LT(ResidentKiB() - residentBefore, 96 * 1024);

  EXPECT_LT(ElapsedMs([&] { transport.reset(); }), 3000u);
  EXPECT_TRUE(WaitForClose(peer, 5000));
  close(peer);
}

TEST(TransportTcpStop, WhileConnectingConnectedAndWaitingToRetry) {
  LogCapture log;
  {
    // A backlog of 0 that two fillers occupy: further handshakes get no answer.
    Listener silent(0);
    std::vector<int> fillers;
    for (int i = 0; i < 2; i++) {
      fillers.push_back(socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0));
      sockaddr_in address = Loopback(silent.port());
      connect(fillers.back(), (sockaddr*)&address, sizeof(address));
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(200));
    std::string uri = silent.Uri("connectTimeout=60&retryInterval=60");
    auto transport = MakeTransport(uri);
    // The attempt waits on the condition, it does not spin.
    double cpuBefore = CpuSeconds();
    std::this_thread::sleep_for(std::chrono::milliseconds(1500));
    EXPECT_LT(CpuSeconds() - cpuBefore, 0.5);
    EXPECT_TRUE(transport->Service());
    EXPECT_FALSE(log.Contains("Connected to"));
    EXPECT_LT(ElapsedMs([&] { transport->StopThread(); }), 3000u);
    EXPECT_TRUE(log.Contains(") - must exit") && log.Contains(") - Connect failed"));
    // The thread gave up: the stream is told to drop the transport.
    EXPECT_FALSE(transport->Service());
    EXPECT_TRUE(log.Has("Unable to connect to URI " + uri));
    for (int fd : fillers) close(fd);
  }
  log.Clear();
  {
    Listener listener;
    auto transport = MakeTransport(listener.Uri());
    int peer = listener.Accept(5000);
    ASSERT_GE(peer, 0);
    ASSERT_TRUE(ServiceUntilConnected(*transport, log, listener.Uri()));
    EXPECT_LT(ElapsedMs([&] { transport->StopThread(); }), 3000u);
    EXPECT_FALSE(transport->IsConnected());
    EXPECT_TRUE(WaitForClose(peer, 3000));
    close(peer);
    // Disconnected, then the thread ended without giving up.
    EXPECT_TRUE(transport->Service());
    EXPECT_TRUE(log.Has("Disconnected! URI was " + listener.Uri()) &&
                log.Contains("Transfer finished. Socket will be/is disconnected"));
    EXPECT_FALSE(log.Contains("Unable to connect to URI"));
  }
  log.Clear();
  {
    // Nothing listens: the attempt is refused and the thread waits a minute.
    std::string uri = "tcp://127.0.0.1:" + std::to_string(FreePort()) + "?retryInterval=60";
    auto transport = MakeTransport(uri);
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    EXPECT_LE(log.Count("Unable to connect to " + uri + ". Status was: (111) Connection refused"),
              1u);
    EXPECT_LT(ElapsedMs([&] { transport->StopThread(); }), 3000u);
    EXPECT_FALSE(transport->Service());
    EXPECT_TRUE(log.Has("Unable to connect to URI " + uri));
  }
}

// Reads what the peer sends while the pump runs, until count bytes arrived.
Bytes ReadWhilePumping(MediaPump& pump, int fd, size_t count) {
  Bytes bytes;
  pump.RunUntil(
      [&] {
        Bytes more = ReadBytes(fd, 65536, 1);
        bytes.insert(bytes.end(), more.begin(), more.end());
        return bytes.size() >= count;
      },
      10000);
  return bytes;
}

// FLV header, onMetaData, each track's sequence header before its frames, right
// previous-tag sizes; a peer joining a running stream gets both headers at once.
void ExpectFlvStart(const Bytes& bytes, bool joinedRunningStream) {
  ASSERT_GE(bytes.size(), 13u);
  ASSERT_EQ(0, memcmp(bytes.data(), "FLV\x01\x05", 5));  // audio and video
  std::vector<std::pair<uint8_t, Bytes>> tags;  // type and body
  for (size_t pos = 13; pos + 11 <= bytes.size();) {
    size_t size = Be32(&bytes[pos]) & 0xFFFFFF;
    if (pos + 15 + size > bytes.size()) break;  // the rest comes later
    ASSERT_EQ(11 + size, Be32(&bytes[pos + 11 + size])) << "previous tag size of tag " << tags.size();
    tags.push_back({bytes[pos], Bytes(bytes.begin() + pos + 11, bytes.begin() + pos + 11 + size)});
    pos += 15 + size;
  }
  ASSERT_GE(tags.size(), 4u);
  EXPECT_EQ(0, memcmp(tags[0].second.data(), "\x02\x00\x0AonMetaData", 13));
  if (joinedRunningStream) {
    EXPECT_EQ(Bytes({0x17, 0, 0xAF, 0}), Bytes({tags[1].second[0], tags[1].second[1],
                                               tags[2].second[0], tags[2].second[1]}));
  }
  bool header[2] = {false, false};
  for (size_t i = 1; i < tags.size(); i++) {
    if (tags[i].first == 18) continue;  // clock sync
    ASSERT_TRUE(tags[i].first == 8 || tags[i].first == 9) << i;
    bool& seen = header[tags[i].first == 9];
    EXPECT_TRUE(tags[i].second[1] == 0 || seen) << "tag " << i << " before its sequence header";
    seen = seen || tags[i].second[1] == 0;
  }
  EXPECT_TRUE(header[0] && header[1]);
}

TEST(TransportTcpStream, PeerClosingMidStreamGetsAFreshStartAtOnce) {
  LogCapture log;
  Listener listener;
  std::string uri = listener.Uri("retryInterval=30");  // only an immediate reconnect is in time
  TcpStream s({uri});
  ASSERT_TRUE(s.ok());
  for (bool again : {false, true}) {
    int peer = -1;
    ASSERT_TRUE(s.pump.RunUntil([&] { return (peer = listener.Accept(0)) >= 0; }, 10000));
    ExpectFlvStart(ReadWhilePumping(s.pump, peer, 60000), again);
    close(peer);
  }
  EXPECT_TRUE(log.Has("Disconnected! URI was " + uri));
  EXPECT_NE(s.stream.GetTransports()[0], nullptr);
}

TEST(TransportTcpStream, VeskPeerJoiningARunningStreamStartsOnAPacket) {
  uint16_t port = FreePort();
  TcpStream s({"tcp://127.0.0.1:" + std::to_string(port) + "?retryInterval=1"}, "vesk");
  ASSERT_TRUE(s.ok());
  MediaPump& pump = s.pump;
  for (int i = 0; i < 100; i++) pump.Step();

  // The peer appears while frames flow; the next attempt finds it.
  Listener listener(8, port);
  int peer = -1;
  ASSERT_TRUE(pump.RunUntil([&] { return (peer = listener.Accept(0)) >= 0; }, 5000));
  Bytes bytes = ReadWhilePumping(pump, peer, 100000);
  size_t pos = 0, packets = 0;
  vesk_packet_t packet;
  long n;
  while ((n = ParseVeskPacket(bytes.data() + pos, bytes.size() - pos, packet)) > 0) {
    pos += n;
    packets++;
  }
  EXPECT_EQ(n, 0);  // every packet well formed up to the incomplete last one
  EXPECT_GT(packets, 50u);
  close(peer);
}

TEST(TransportTcpStream, PeerMessagesReachTheEncoderOnThePumpThread) {
  LogCapture log;
  Listener reporting, quiet;
  TcpStream s({reporting.Uri(), quiet.Uri()}, "flv", 7);
  ASSERT_TRUE(s.ok());
  MediaPump& pump = s.pump;
  OutStream& stream = s.stream;
  int peer = -1, other = -1;
  ASSERT_TRUE(pump.RunUntil(
      [&] {
        if (peer < 0) peer = reporting.Accept(0);
        if (other < 0) other = quiet.Accept(0);
        return log.Has("Connected to " + reporting.Uri()) && log.Has("Connected to " + quiet.Uri());
      },
      5000));
  ASSERT_TRUE(peer >= 0 && other >= 0);
  auto drainOther = [&] { return ReadBytes(other, 1 << 20, 1).size(); };

  // A bit-rate report in two pieces is acted on once, after the second.
  ASSERT_TRUE(SendAll(peer, {0x00, 0x00, 0x00, 0x10}));
  pump.RunUntil([] { return false; }, 300);
  drainOther();
  EXPECT_EQ(0u, AdaptCount());
  ASSERT_TRUE(SendAll(peer, {0x00, 0xFE}));
  ASSERT_TRUE(pump.RunUntil([] { return AdaptCount() >= 1; }, 5000));
  // An IDR request.
  drainOther();
  ASSERT_TRUE(SendAll(peer, {0x01}));
  ASSERT_TRUE(pump.RunUntil([] { return AdaptCount() >= 2; }, 5000));
  {
    std::lock_guard<std::mutex> lock(g_callsMutex);
    ASSERT_EQ(2u, g_adapt.size());
    auto call = [](const adapt_call_t& c) {
      return std::make_tuple(c.channel, (int)c.level, c.resetOutputBitrate, c.thread);
    };
    EXPECT_EQ(std::make_tuple(7u, -2, false, std::this_thread::get_id()), call(g_adapt[0]));
    EXPECT_EQ(32768, g_adapt[0].bitrate);  // 4096 bytes per second, in bits
    EXPECT_EQ(7u, g_adapt[1].channel);
    EXPECT_TRUE(g_adapt[1].resetOutputBitrate);
    EXPECT_EQ(std::vector<std::thread::id>{std::this_thread::get_id()}, g_forceIdr);
  }

  // The largest rate a report can carry saturates when turned into bits.
  ASSERT_TRUE(SendAll(peer, {0x00, 0x7F, 0xFF, 0xFF, 0xFF, 0x01}));
  ASSERT_TRUE(pump.RunUntil([] { return AdaptCount() >= 3; }, 5000));
  {
    std::lock_guard<std::mutex> lock(g_callsMutex);
    EXPECT_EQ(INT_MAX, g_adapt[2].bitrate);
  }

  // A type-2 message is never read and holds up what follows it, until 64 KiB
  // are waiting: they are dropped and the next request is read again.
  drainOther();
  ASSERT_TRUE(SendAll(peer, Bytes(TransportTCP::kMaxUnreadPeerBytes, 0x02)));
  const std::string dropped = "65536 bytes from " + reporting.Uri() + " were never read by the stream: dropped";
  ASSERT_TRUE(pump.RunUntil([&] { return log.Has(dropped); }, 5000));
  ASSERT_TRUE(SendAll(peer, {0x01}));
  ASSERT_TRUE(pump.RunUntil([] { return AdaptCount() >= 4; }, 5000));

  // An invalid ingest point drops that transport alone.
  drainOther();
  ASSERT_TRUE(SendAll(peer, {0x03}));
  ASSERT_TRUE(pump.RunUntil([&] { return stream.GetTransports()[0] == nullptr; }, 5000));
  EXPECT_TRUE(log.Has("Invalid ingest point used") && log.Has("Transport " + reporting.Uri() + " discontinued"));
  EXPECT_TRUE(WaitForClose(peer, 3000));
  ASSERT_NE(stream.GetTransports()[1], nullptr);
  drainOther();
  size_t later = 0;
  EXPECT_TRUE(pump.RunUntil([&] { return (later += drainOther()) > 10000; }, 5000));
  EXPECT_EQ(4u, AdaptCount());
  close(peer);
  close(other);
}

}  // namespace
}  // namespace vesk::test

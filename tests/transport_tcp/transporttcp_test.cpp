// TransportTCP against servers written here, on loopback: URI parameters, the
// output bound, stopping in every state, a peer that drops the connection,
// and the messages a peer sends back.
#include <gtest/gtest.h>
#include <sys/resource.h>

#include <mutex>
#include <thread>

#include "basetransport.h"
#include "log_capture.h"
#include "outstream.h"
#include "tcp_test_util.h"
#include "transporttcp.h"
#include "vesk/encoder.h"
#include "vesk/variant/uri.h"

// The stream hands a peer's reports to the Encoder. These definitions take
// the place of the library's own (the executable's symbols come first for the
// dynamic linker), so that the calls, their arguments and their thread can be
// seen.
namespace {
struct adapt_call_t {
  unsigned int channel;
  signed char level;
  int bitrate;
  bool resetOutputBitrate;
  std::thread::id thread;
};
struct encoder_calls_t {
  std::mutex mutex;
  std::vector<adapt_call_t> adapt;
  std::vector<std::thread::id> forceIdr;
};
encoder_calls_t& EncoderCalls() {
  static encoder_calls_t calls;
  return calls;
}
size_t AdaptCount() {
  std::lock_guard<std::mutex> lock(EncoderCalls().mutex);
  return EncoderCalls().adapt.size();
}
}  // namespace

namespace vesk {
namespace encoder {
bool Encoder::ForceIDR() {
  std::lock_guard<std::mutex> lock(EncoderCalls().mutex);
  EncoderCalls().forceIdr.push_back(std::this_thread::get_id());
  return true;
}
bool Encoder::AdaptServerPlayerBitrate(unsigned int channel, signed char level, int bitrate,
                                       bool resetOutputBitrate) {
  std::lock_guard<std::mutex> lock(EncoderCalls().mutex);
  EncoderCalls().adapt.push_back(
      {channel, level, bitrate, resetOutputBitrate, std::this_thread::get_id()});
  return true;
}
}  // namespace encoder
}  // namespace vesk

namespace vesk {
namespace test {
namespace {

using vesk::encoder::Encoder;
using vesk::encoder::message_part_t;
using vesk::encoder::message_t;
using vesk::encoder::StreamInfo;
using vesk::encoder::internal::BaseTransport;
using vesk::encoder::internal::OutStream;
using vesk::encoder::internal::TransportTCP;
using vesk::variant::URI;

std::unique_ptr<TransportTCP> MakeTransport(const std::string& text) {
  URI uri;
  if (!URI::FromString(text, true, uri)) return nullptr;
  BaseTransport* transport = BaseTransport::GetInstance(nullptr, uri);
  TransportTCP* tcp = dynamic_cast<TransportTCP*>(transport);
  if (tcp == nullptr) delete transport;
  return std::unique_ptr<TransportTCP>(tcp);
}

// Services the transport until the log shows its connection.
bool ServiceUntilConnected(TransportTCP& transport, LogCapture& log, const std::string& uri,
                           int timeoutMs) {
  auto start = std::chrono::steady_clock::now();
  while (!log.Has("Connected to " + uri)) {
    if ((int)MsSince(start) >= timeoutMs) return false;
    transport.Service();
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return true;
}

long ResidentKiB() {
  FILE* file = fopen("/proc/self/statm", "r");
  long size = 0, resident = 0;
  if (file != nullptr) {
    if (fscanf(file, "%ld %ld", &size, &resident) != 2) resident = 0;
    fclose(file);
  }
  return resident * (sysconf(_SC_PAGESIZE) / 1024);
}

double CpuSeconds() {
  struct rusage usage;
  getrusage(RUSAGE_SELF, &usage);
  return usage.ru_utime.tv_sec + usage.ru_stime.tv_sec +
         (usage.ru_utime.tv_usec + usage.ru_stime.tv_usec) / 1e6;
}

// Times a call; the bound asserted on it is generous on purpose.
template <typename F>
uint64_t ElapsedMs(F f) {
  auto start = std::chrono::steady_clock::now();
  f();
  return MsSince(start);
}

TEST(TransportTcpParameters, QueryQuirksAndFactory) {
  Listener listener;
  struct parameter_case_t {
    std::string query;
    int retryInterval;
    int connectTimeout;
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
    EXPECT_TRUE(transport->IsRunning());
    EXPECT_EQ(listener.Uri(c.query), (std::string)transport->GetURI()["fullUri"]);
  }

  // The transport keeps the stream's channel id.
  Encoder encoder;
  StreamInfo info = MakeStreamInfo(true, true);
  info["channelId"] = (uint32_t)7;
  OutStream stream(&encoder, 0);
  ASSERT_TRUE(stream.Configure(FlvConfig({listener.Uri()}), info));
  ASSERT_EQ(1u, stream.GetTransports().size());
  TransportTCP* tcp = dynamic_cast<TransportTCP*>(stream.GetTransports()[0]);
  ASSERT_NE(tcp, nullptr);
  EXPECT_EQ(7u, tcp->GetChannelId());
}

TEST(TransportTcpQueue, LevelHasADeadZoneAndCapsAt100) {
  EXPECT_EQ(0, TransportTCP::LevelOfQueue(0));
  EXPECT_EQ(0, TransportTCP::LevelOfQueue(400 * 1024));  // 9 %
  EXPECT_EQ(0, TransportTCP::LevelOfQueue(461373));      // just under 11 %
  EXPECT_EQ(11, TransportTCP::LevelOfQueue(461374));
  EXPECT_EQ(50, TransportTCP::LevelOfQueue(2097152));
  EXPECT_EQ(99, TransportTCP::LevelOfQueue(4194303));
  EXPECT_EQ(100, TransportTCP::LevelOfQueue(4194304));
  EXPECT_EQ(100, TransportTCP::LevelOfQueue(4194304 + 65536));
}

TEST(TransportTcpQueue, NothingGoesOutBeforeThePumpStartsTheConnection) {
  LogCapture log;
  Listener listener;
  auto transport = MakeTransport(listener.Uri());
  ASSERT_NE(transport, nullptr);
  int peer = listener.Accept(5000);
  ASSERT_GE(peer, 0);
  std::this_thread::sleep_for(std::chrono::milliseconds(200));

  // Connected, but the pump has not seen it yet: the container has not
  // chosen where this peer starts, so the message is dropped.
  char early[] = "early";
  message_part_t earlyPart[1] = {{early, 5}};
  message_t earlyMessage = {earlyPart, 1, 5};
  EXPECT_TRUE(transport->SendMessage(&earlyMessage));
  EXPECT_EQ(0u, transport->GetAcceptedBytes());

  EXPECT_TRUE(transport->Service());
  EXPECT_TRUE(log.Has("Connected to " + listener.Uri()));
  char head[] = "late:", body[] = "0123456789";
  message_part_t parts[3] = {{head, 5}, {body, 10}, {head, 4}};
  message_t message = {parts, 3, 19};
  message_t empty = {parts, 0, 0};
  EXPECT_TRUE(transport->SendMessage(&empty));
  EXPECT_TRUE(transport->SendMessage(nullptr));
  EXPECT_TRUE(transport->SendMessage(&message));
  std::vector<uint8_t> bytes = ReadBytes(peer, 19, 5000);
  EXPECT_EQ("late:0123456789late", std::string(bytes.begin(), bytes.end()));
  close(peer);
}

TEST(TransportTcpQueue, PeerThatNeverReadsIsBoundedAt4MiB) {
  LogCapture log;
  Listener listener;
  auto transport = MakeTransport(listener.Uri());
  ASSERT_NE(transport, nullptr);
  int peer = listener.Accept(5000);
  ASSERT_GE(peer, 0);
  ASSERT_TRUE(ServiceUntilConnected(*transport, log, listener.Uri(), 5000));
  EXPECT_EQ(0, transport->GetOutputBufferLevel());

  // 64 KiB messages in two parts, as a container hands them over.
  std::vector<uint8_t> payload(65536, 0x5A);
  message_part_t parts[2] = {{payload.data(), 1000}, {payload.data() + 1000, 64536}};
  message_t message = {parts, 2, 65536};
  const std::string warning = "Frames are skipped! The current bandwidth is not enough!";

  long residentBefore = ResidentKiB();
  // Until the socket's buffers are full too and 200 messages in a row are
  // dropped.
  auto start = std::chrono::steady_clock::now();
  int droppedInARow = 0;
  while (droppedInARow < 200 && MsSince(start) < 20000) {
    uint64_t accepted = transport->GetAcceptedBytes();
    ASSERT_TRUE(transport->SendMessage(&message));
    transport->Service();
    droppedInARow = transport->GetAcceptedBytes() == accepted ? droppedInARow + 1 : 0;
  }
  ASSERT_EQ(200, droppedInARow);
  ASSERT_TRUE(log.Has(warning));
  uint32_t queued = transport->GetQueuedBytes();
  EXPECT_GE(queued, TransportTCP::kMaxQueuedBytes);
  EXPECT_LE(queued, TransportTCP::kMaxQueuedBytes + 65536);
  EXPECT_EQ(100, transport->GetOutputBufferLevel());

  // 256 MiB more are offered and dropped: nothing grows. (The resident size
  // bound leaves room for a sanitizer's shadow memory of the two 8 MiB
  // buffers.)
  size_t warnings = log.Count(warning);
  uint64_t accepted = transport->GetAcceptedBytes();
  for (int i = 0; i < 4096; i++) ASSERT_TRUE(transport->SendMessage(&message));
  EXPECT_EQ(warnings + 4096, log.Count(warning));
  EXPECT_EQ(accepted, transport->GetAcceptedBytes());
  EXPECT_LE(transport->GetQueuedBytes(), TransportTCP::kMaxQueuedBytes + 65536);
  EXPECT_EQ(100, transport->GetOutputBufferLevel());
  EXPECT_LT(ResidentKiB() - residentBefore, 96 * 1024);

  // Stopping does not wait for the peer.
  EXPECT_LT(ElapsedMs([&] { transport.reset(); }), 3000u);
  EXPECT_TRUE(WaitForClose(peer, 5000));
  close(peer);
}

TEST(TransportTcpStop, WhileConnectingToASilentHost) {
  LogCapture log;
  // A backlog of 0 that two fillers occupy: further handshakes get no answer.
  Listener silent(0);
  std::vector<int> fillers;
  for (int i = 0; i < 2; i++) {
    int fd = socket(AF_INET, SOCK_STREAM | SOCK_NONBLOCK | SOCK_CLOEXEC, 0);
    struct sockaddr_in address;
    memset(&address, 0, sizeof(address));
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(silent.port());
    connect(fd, (struct sockaddr*)&address, sizeof(address));
    fillers.push_back(fd);
  }
  std::this_thread::sleep_for(std::chrono::milliseconds(200));

  std::string uri = silent.Uri("connectTimeout=60&retryInterval=60");
  auto transport = MakeTransport(uri);
  ASSERT_NE(transport, nullptr);
  // The attempt waits on the condition, it does not spin.
  double cpuBefore = CpuSeconds();
  std::this_thread::sleep_for(std::chrono::milliseconds(1500));
  EXPECT_LT(CpuSeconds() - cpuBefore, 0.5);
  EXPECT_TRUE(transport->Service());
  EXPECT_FALSE(log.Contains("Connected to"));

  EXPECT_LT(ElapsedMs([&] { transport->StopThread(); }), 3000u);
  EXPECT_TRUE(log.Contains("tcp_transport("));
  EXPECT_TRUE(log.Contains(") - must exit"));
  EXPECT_TRUE(log.Contains(") - Connect failed"));
  // The thread gave up: the stream is told to drop the transport.
  EXPECT_FALSE(transport->Service());
  EXPECT_TRUE(log.Has("Unable to connect to URI " + uri));
  for (int fd : fillers) close(fd);
}

TEST(TransportTcpStop, WhileConnectedAndWhileWaitingToRetry) {
  LogCapture log;
  {
    Listener listener;
    auto transport = MakeTransport(listener.Uri());
    ASSERT_NE(transport, nullptr);
    int peer = listener.Accept(5000);
    ASSERT_GE(peer, 0);
    ASSERT_TRUE(ServiceUntilConnected(*transport, log, listener.Uri(), 5000));
    EXPECT_LT(ElapsedMs([&] { transport->StopThread(); }), 3000u);
    EXPECT_TRUE(WaitForClose(peer, 3000));
    close(peer);
    // Disconnected, then the thread ended without giving up.
    EXPECT_TRUE(transport->Service());
    EXPECT_TRUE(log.Has("Disconnected! URI was " + listener.Uri()));
    EXPECT_FALSE(log.Contains("Unable to connect to URI"));
    EXPECT_TRUE(log.Contains("Transfer finished. Socket will be/is disconnected"));
  }
  log.Clear();
  {
    // Nothing listens: the attempt is refused and the thread waits a minute.
    uint16_t port = FreePort();
    std::string uri = "tcp://127.0.0.1:" + std::to_string(port) + "?retryInterval=60";
    auto transport = MakeTransport(uri);
    ASSERT_NE(transport, nullptr);
    std::this_thread::sleep_for(std::chrono::milliseconds(500));
    EXPECT_LE(log.Count("Unable to connect to " + uri + ". Status was: (111) Connection refused"),
              1u);
    EXPECT_LT(ElapsedMs([&] { transport->StopThread(); }), 3000u);
    EXPECT_FALSE(transport->Service());
    EXPECT_TRUE(log.Has("Unable to connect to URI " + uri));
  }
}

// The tags of an FLV byte stream: type and body of each, checking every
// previous-tag-size field. false when the stream is malformed.
struct flv_tag_t {
  uint8_t type;
  std::vector<uint8_t> body;
};
bool ParseFlv(const std::vector<uint8_t>& bytes, std::vector<flv_tag_t>& tags, size_t& used) {
  tags.clear();
  used = 0;
  if (bytes.size() < 13 || memcmp(bytes.data(), "FLV\x01", 4) != 0) return false;
  size_t pos = 13;
  while (pos + 11 <= bytes.size()) {
    uint8_t type = bytes[pos];
    if (type != 8 && type != 9 && type != 18) return false;
    size_t size = ((size_t)bytes[pos + 1] << 16) | ((size_t)bytes[pos + 2] << 8) | bytes[pos + 3];
    if (pos + 11 + size + 4 > bytes.size()) break;  // incomplete: the rest comes later
    const uint8_t* p = bytes.data() + pos + 11 + size;
    size_t previous = ((size_t)p[0] << 24) | ((size_t)p[1] << 16) | ((size_t)p[2] << 8) | p[3];
    if (previous != 11 + size) return false;
    tags.push_back({type, std::vector<uint8_t>(bytes.begin() + pos + 11,
                                               bytes.begin() + pos + 11 + size)});
    pos += 11 + size + 4;
    used = pos;
  }
  return true;
}

// A connection's FLV start: the file header and onMetaData, each track's
// sequence header before its first frame, and the whole stream well formed.
// A peer that joins a running stream gets both sequence headers at once.
void ExpectFlvStart(const std::vector<uint8_t>& bytes, bool joinedRunningStream) {
  std::vector<flv_tag_t> tags;
  size_t used = 0;
  ASSERT_TRUE(ParseFlv(bytes, tags, used));
  ASSERT_GE(tags.size(), 4u);
  EXPECT_EQ(0x05, bytes[4]);  // audio and video
  EXPECT_EQ(18, tags[0].type);
  ASSERT_GE(tags[0].body.size(), 13u);
  EXPECT_EQ(0, memcmp(tags[0].body.data(), "\x02\x00\x0AonMetaData", 13));
  if (joinedRunningStream) {
    EXPECT_EQ(9, tags[1].type);
    EXPECT_EQ(0x17, tags[1].body[0]);
    EXPECT_EQ(0, tags[1].body[1]);  // AVC sequence header
    EXPECT_EQ(8, tags[2].type);
    EXPECT_EQ(0xAF, tags[2].body[0]);
    EXPECT_EQ(0, tags[2].body[1]);  // AAC sequence header
  }
  bool videoHeader = false, audioHeader = false;
  for (size_t i = 1; i < tags.size(); i++) {
    if (tags[i].type == 18) continue;  // clock sync
    ASSERT_GE(tags[i].body.size(), 2u);
    bool& header = tags[i].type == 9 ? videoHeader : audioHeader;
    if (tags[i].body[1] == 0) {
      header = true;
    } else {
      EXPECT_EQ(1, tags[i].body[1]);
      EXPECT_TRUE(header) << "tag " << i << " comes before its sequence header";
    }
  }
  EXPECT_TRUE(videoHeader && audioHeader);
}

TEST(TransportTcpStream, PeerClosingMidStreamGetsAFreshStartAtOnce) {
  LogCapture log;
  Encoder encoder;
  StreamInfo info = MakeStreamInfo(true, true);
  Listener listener;
  // A long retry interval: only an immediate reconnect passes in time.
  std::string uri = listener.Uri("retryInterval=30");
  OutStream stream(&encoder, 0);
  ASSERT_TRUE(stream.Configure(FlvConfig({uri}), info));
  MediaPump pump(stream);
  ASSERT_TRUE(pump.Ready());

  int first = -1;
  ASSERT_TRUE(pump.RunUntil([&] { return (first = listener.Accept(0)) >= 0; }, 5000));
  std::vector<uint8_t> bytes;
  ASSERT_TRUE(pump.RunUntil(
      [&] {
        std::vector<uint8_t> more = ReadBytes(first, 65536, 1);
        bytes.insert(bytes.end(), more.begin(), more.end());
        return bytes.size() >= 60000;
      },
      10000));
  ExpectFlvStart(bytes, false);
  close(first);

  int second = -1;
  auto start = std::chrono::steady_clock::now();
  ASSERT_TRUE(pump.RunUntil([&] { return (second = listener.Accept(0)) >= 0; }, 10000));
  EXPECT_LT(MsSince(start), 10000u);
  bytes.clear();
  ASSERT_TRUE(pump.RunUntil(
      [&] {
        std::vector<uint8_t> more = ReadBytes(second, 65536, 1);
        bytes.insert(bytes.end(), more.begin(), more.end());
        return bytes.size() >= 60000;
      },
      10000));
  ExpectFlvStart(bytes, true);
  close(second);

  EXPECT_TRUE(log.Has("Disconnected! URI was " + uri));
  EXPECT_GE(log.Count("Connected to " + uri), 2u);
  EXPECT_NE(stream.GetTransports()[0], nullptr);
}

// Splits a vesk packet stream into packets: false when some packet does not
// start with a valid channel header or its fields run past the data.
bool ParseVeskPackets(const std::vector<uint8_t>& bytes, std::vector<uint16_t>& flags) {
  flags.clear();
  size_t pos = 0;
  auto be32 = [&](size_t at) {
    return ((uint32_t)bytes[at] << 24) | ((uint32_t)bytes[at + 1] << 16) |
           ((uint32_t)bytes[at + 2] << 8) | bytes[at + 3];
  };
  while (pos + 8 <= bytes.size()) {
    if (bytes[pos] != 0xA0 || (bytes[pos] ^ bytes[pos + 1] ^ bytes[pos + 2]) != bytes[pos + 3]) {
      return false;
    }
    uint16_t f = (uint16_t)((bytes[pos + 4] << 8) | bytes[pos + 5]);
    size_t at = pos + 8;
    if ((f & 0xFF) == 1) at += 4;                   // explicit timescale
    if (f & 0x0800) at += (f & 0x0400) ? 8 : 4;    // timestamp
    if (f & 0x0200) at += 4;                        // composition offset
    if ((f & 0x8000) && !(f & 0x4000)) at += 4;     // total frame length
    if (at + 4 > bytes.size()) break;               // the rest comes later
    uint32_t chunk = be32(at);
    if (chunk > 1400) return false;
    size_t end = at + 4 + ((chunk + 3) & ~3u);
    if (end > bytes.size()) break;
    flags.push_back(f);
    pos = end;
  }
  return true;
}

TEST(TransportTcpStream, VeskPeerJoiningARunningStreamStartsOnAPacket) {
  LogCapture log;
  Encoder encoder;
  StreamInfo info = MakeStreamInfo(true, true);
  uint16_t port = FreePort();
  std::string uri = "tcp://127.0.0.1:" + std::to_string(port) + "?retryInterval=1";
  vesk::variant::Variant config = FlvConfig({uri});
  config["type"] = "vesk";
  OutStream stream(&encoder, 0);
  ASSERT_TRUE(stream.Configure(config, info));
  MediaPump pump(stream);
  ASSERT_TRUE(pump.Ready());
  for (int i = 0; i < 100; i++) pump.Step();

  // The peer appears while frames flow; the next attempt finds it.
  Listener listener(8, port);
  ASSERT_EQ(port, listener.port());
  int peer = -1;
  ASSERT_TRUE(pump.RunUntil([&] { return (peer = listener.Accept(0)) >= 0; }, 5000));
  std::vector<uint8_t> bytes;
  ASSERT_TRUE(pump.RunUntil(
      [&] {
        std::vector<uint8_t> more = ReadBytes(peer, 65536, 1);
        bytes.insert(bytes.end(), more.begin(), more.end());
        return bytes.size() >= 100000;
      },
      10000));
  std::vector<uint16_t> flags;
  ASSERT_TRUE(ParseVeskPackets(bytes, flags));
  EXPECT_GT(flags.size(), 50u);
  EXPECT_TRUE(log.Has("Connected to " + uri));
  close(peer);
}

TEST(TransportTcpStream, PeerMessagesReachTheEncoderOnThePumpThread) {
  LogCapture log;
  Encoder encoder;
  StreamInfo info = MakeStreamInfo(true, true);
  info["channelId"] = (uint32_t)7;
  Listener reporting, quiet;
  OutStream stream(&encoder, 0);
  ASSERT_TRUE(stream.Configure(FlvConfig({reporting.Uri(), quiet.Uri()}), info));
  MediaPump pump(stream);
  ASSERT_TRUE(pump.Ready());
  int peer = -1, other = -1;
  ASSERT_TRUE(pump.RunUntil(
      [&] {
        if (peer < 0) peer = reporting.Accept(0);
        if (other < 0) other = quiet.Accept(0);
        return peer >= 0 && other >= 0 && log.Has("Connected to " + reporting.Uri()) &&
               log.Has("Connected to " + quiet.Uri());
      },
      5000));
  auto drainOther = [&] { ReadBytes(other, 1 << 20, 1); };

  // A bit-rate report in two pieces is acted on once, after the second.
  ASSERT_TRUE(SendAll(peer, {0x00, 0x00, 0x00, 0x10}));
  pump.RunUntil([] { return false; }, 300);
  drainOther();
  EXPECT_EQ(0u, AdaptCount());
  ASSERT_TRUE(SendAll(peer, {0x00, 0xFE}));
  ASSERT_TRUE(pump.RunUntil([] { return AdaptCount() >= 1; }, 5000));
  {
    std::lock_guard<std::mutex> lock(EncoderCalls().mutex);
    const adapt_call_t& call = EncoderCalls().adapt[0];
    EXPECT_EQ(7u, call.channel);
    EXPECT_EQ(-2, call.level);
    EXPECT_EQ(32768, call.bitrate);  // 4096 bytes per second, in bits
    EXPECT_FALSE(call.resetOutputBitrate);
    EXPECT_EQ(std::this_thread::get_id(), call.thread);
    EXPECT_TRUE(EncoderCalls().forceIdr.empty());
  }

  // An IDR request.
  drainOther();
  ASSERT_TRUE(SendAll(peer, {0x01}));
  ASSERT_TRUE(pump.RunUntil([] { return AdaptCount() >= 2; }, 5000));
  {
    std::lock_guard<std::mutex> lock(EncoderCalls().mutex);
    EXPECT_EQ(2u, EncoderCalls().adapt.size());
    EXPECT_TRUE(EncoderCalls().adapt[1].resetOutputBitrate);
    EXPECT_EQ(7u, EncoderCalls().adapt[1].channel);
    ASSERT_EQ(1u, EncoderCalls().forceIdr.size());
    EXPECT_EQ(std::this_thread::get_id(), EncoderCalls().forceIdr[0]);
  }

  // An invalid ingest point drops that transport alone.
  drainOther();
  ASSERT_TRUE(SendAll(peer, {0x03}));
  ASSERT_TRUE(pump.RunUntil([&] { return stream.GetTransports()[0] == nullptr; }, 5000));
  EXPECT_TRUE(log.Has("Invalid ingest point used"));
  EXPECT_TRUE(log.Has("Transport " + reporting.Uri() + " discontinued"));
  EXPECT_TRUE(WaitForClose(peer, 3000));
  ASSERT_NE(stream.GetTransports()[1], nullptr);
  drainOther();
  size_t later = 0;
  EXPECT_TRUE(pump.RunUntil(
      [&] {
        later += ReadBytes(other, 1 << 20, 1).size();
        return later > 10000;
      },
      5000));
  EXPECT_EQ(2u, AdaptCount());
  close(peer);
  close(other);
}

}  // namespace
}  // namespace test
}  // namespace vesk

// OutStream: configuration, transports by URI, the peer-message parser, the
// output rate and the drift check.
#include <gtest/gtest.h>

#include "basecontainer.h"
#include "basetransport.h"
#include "containerflv.h"
#include "log_capture.h"
#include "outstream.h"
#include "stream_test_util.h"
#include "transportudp.h"
#include "vesk/encoder.h"
#include "vesk/utils/iobuffer.h"
#include "vesk/variant/uri.h"

namespace vesk {
namespace test {
namespace {

using vesk::encoder::Encoder;
using vesk::encoder::StreamInfo;
using vesk::encoder::internal::BandwidthSampler;
using vesk::encoder::internal::BaseTransport;
using vesk::encoder::internal::ContainerFLV;
using vesk::encoder::internal::OutStream;
using vesk::encoder::internal::ParsePeerMessages;
using vesk::encoder::internal::peer_report_t;
using vesk::encoder::internal::TransportUDP;
using vesk::utils::IOBuffer;
using vesk::variant::URI;
using vesk::variant::Variant;

// Puts bytes at the very end of the buffer's storage (256 bytes), so that a
// read past the readable bytes leaves the allocation and the address
// sanitizer reports it.
void LoadAtEnd(IOBuffer& buffer, const std::vector<uint8_t>& bytes) {
  uint32_t filler = 256 - (uint32_t)bytes.size();
  buffer.ReadFromRepeat(0xAA, filler);
  buffer.ReadFromBuffer(bytes.data(), (uint32_t)bytes.size());
  buffer.Ignore(filler);
  ASSERT_EQ(buffer.GetCapacity(), 256u);
}

uint16_t PortOf(BaseTransport* transport) { return (uint16_t)transport->GetURI()["port"]; }

TEST(OutStreamConfigure, TypesDestinationsAndRefusals) {
  Encoder encoder;
  StreamInfo info = MakeStreamInfo(true, true);
  UdpPeer a, b, c, d;

  // Upper case is canonicalised; numeric keys come first, in order, then
  // string keys in order.
  Variant config;
  config["type"] = "EXTENDEDFLV";
  config["destinations"]["zeta"] = d.Uri();
  config["destinations"]["alpha"] = c.Uri();
  config["destinations"][7u] = b.Uri();
  config["destinations"][2u] = a.Uri();
  OutStream stream(&encoder, 3);
  ASSERT_TRUE(stream.Configure(config, info));
  ASSERT_NE(stream.GetContainer(), nullptr);
  EXPECT_TRUE(static_cast<ContainerFLV*>(stream.GetContainer())->IsExtendedFormat());
  ASSERT_EQ(stream.GetTransports().size(), 4u);
  UdpPeer* order[] = {&a, &b, &c, &d};
  for (int i = 0; i < 4; i++) EXPECT_EQ(PortOf(stream.GetTransports()[i]), order[i]->port()) << i;
  EXPECT_EQ(stream.GetSyncMonitor().streamOrdinal, 3u);

  // An array is taken in index order; a repeated Configure replaces all.
  config["destinations"] = Variant();
  config["destinations"].IsArray(true);
  config["destinations"].PushToArray(b.Uri());
  config["destinations"].PushToArray(a.Uri());
  config["type"] = "vesk";
  ASSERT_TRUE(stream.Configure(config, info));
  ASSERT_EQ(stream.GetTransports().size(), 2u);
  EXPECT_EQ(PortOf(stream.GetTransports()[0]), b.port());
  EXPECT_EQ(PortOf(stream.GetTransports()[1]), a.port());
  EXPECT_EQ(stream.GetContainer()->GetType(), vesk::encoder::CONTAINER_VESK);

  // "flvx" is no keyword: unknown, and no container for it.
  LogCapture log;
  config["type"] = "flvx";
  EXPECT_FALSE(stream.Configure(config, info));
  EXPECT_TRUE(log.Has("Unable to obtain a container of type `unknown`"));
  log.Clear();
  config["type"] = 12;
  EXPECT_FALSE(stream.Configure(config, info));
  EXPECT_TRUE(log.Has("Unable to obtain a container of type `unknown`"));

  // Refused destinations: not a string, not a URI, a missing directory for a
  // file; "/dev/null" is skipped silently. No transport at all is valid.
  log.Clear();
  config["type"] = "flv";
  config["destinations"] = Variant();
  config["destinations"][0u] = 42;
  config["destinations"][1u] = "not a uri";
  config["destinations"][2u] = "file:///dev/null";
  ASSERT_TRUE(stream.Configure(config, info));
  EXPECT_TRUE(stream.GetTransports().empty());
  EXPECT_EQ(stream.GetContainer(), nullptr);
  auto lines = log.Lines();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0].message, "Invalid URI:\n" + Variant(42).ToString());
  EXPECT_EQ(lines[0].priority, VESK_PRIO_WARNING);
  EXPECT_EQ(lines[1].message, "Unable to resolve URI: `not a uri`");
  EXPECT_EQ(lines[1].priority, VESK_PRIO_ERROR);
  video_frame_t frame;
  EXPECT_TRUE(stream.FeedVideoFrame(&frame));  // accepted, nothing sent

  // A transport that cannot start: the factory line, then the stream's.
  log.Clear();
  config["destinations"] = Variant();
  config["destinations"][0u] = "udp://255.255.255.255:5000";
  ASSERT_TRUE(stream.Configure(config, info));
  lines = log.Lines();
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[0].message, "Invalid address provided");
  EXPECT_EQ(lines[1].message,
            "unable to initialize transport from URI: `udp://255.255.255.255:5000`");
  EXPECT_EQ(lines[1].sourceFile, "basetransport.cpp");
  EXPECT_EQ(lines[2].message, "Unable to get transport for `udp://255.255.255.255:5000`");
  EXPECT_EQ(lines[2].priority, VESK_PRIO_WARNING);
}

TEST(TransportFactory, UnknownSchemas) {
  LogCapture log;
  URI uri;
  EXPECT_EQ(BaseTransport::GetInstance(nullptr, uri), nullptr);
  uri["schema"] = "TCP";
  EXPECT_EQ(BaseTransport::GetInstance(nullptr, uri), nullptr);
  uri["schema"] = 17;  // not a string: read as ""
  EXPECT_EQ(BaseTransport::GetInstance(nullptr, uri), nullptr);
  auto lines = log.Lines();
  ASSERT_EQ(lines.size(), 3u);
  EXPECT_EQ(lines[0].message, "schema not supported: ``");
  EXPECT_EQ(lines[1].message, "schema not supported: `TCP`");
  EXPECT_EQ(lines[2].message, "schema not supported: ``");
  EXPECT_EQ(lines[0].function, "GetInstance");
}

TEST(PeerMessages, EveryTypeTruncatedAndGarbage) {
  struct parse_case_t {
    std::vector<uint8_t> bytes;
    bool bitrateSeen;
    int64_t bitrate;
    int level;
    bool idr, invalidIngest, discarded;
    uint32_t left;  // bytes still readable afterwards
  };
  std::vector<parse_case_t> cases = {
      {{0x00, 0x00, 0x00, 0x10, 0x00, 0xFE}, true, 4096, -2, false, false, false, 0},
      {{0x00, 0x80, 0x00, 0x00, 0x00, 0x05}, true, -1, -1, false, false, false, 0},
      {{0x00, 0x00, 0x00, 0x10}, false, -1, -1, false, false, false, 4},  // truncated: kept
      {{0x00}, false, -1, -1, false, false, false, 1},
      {{0x01}, false, -1, -1, true, false, false, 0},
      {{0x01, 0x00, 0x00, 0x00, 0x00, 0x64, 0x05}, true, 100, 5, true, false, false, 0},
      // A later report replaces an earlier one.
      {{0x00, 0, 0, 0, 1, 1, 0x00, 0, 0, 0, 2, 2}, true, 2, 2, false, false, false, 0},
      {{0x02}, false, -1, -1, false, false, false, 1},  // never consumed
      {{0x02, 0x01, 0x01, 0x01}, false, -1, -1, false, false, false, 4},
      {{0x01, 0x02, 0x01}, false, -1, -1, true, false, false, 2},
      {{0x03, 0x01, 0x00}, false, -1, -1, false, true, false, 2},  // the rest unread
      {{0x01, 0x03}, false, -1, -1, true, true, false, 0},
      {{0x04, 0x00, 0x01}, false, -1, -1, false, false, true, 0},
      {{0xFF}, false, -1, -1, false, false, true, 0},
      {{0x01, 0x00, 0x00, 0x00, 0x00, 0x10, 0x01, 0x9A, 0x01}, false, -1, -1, false, false, true, 0},
      {{}, false, -1, -1, false, false, false, 0},
  };
  for (size_t i = 0; i < cases.size(); i++) {
    SCOPED_TRACE(i);
    const parse_case_t& c = cases[i];
    LogCapture log;
    IOBuffer buffer;
    LoadAtEnd(buffer, c.bytes);
    peer_report_t report;
    ParsePeerMessages(buffer, report);
    EXPECT_EQ(report.bitrateSeen, c.bitrateSeen);
    if (c.bitrateSeen) {
      EXPECT_EQ(report.bitrate, c.bitrate);
      EXPECT_EQ(report.level, c.level);
    }
    if (!c.discarded) {
      EXPECT_EQ(report.idrRequested, c.idr);
    }
    EXPECT_EQ(report.invalidIngest, c.invalidIngest);
    EXPECT_EQ(report.discarded, c.discarded);
    EXPECT_EQ(buffer.GetAvailable(), c.left);
    EXPECT_EQ(log.Has("Invalid ingest point used"), c.invalidIngest);
    EXPECT_EQ(log.Has("Invalid message received."), c.discarded);
    EXPECT_LE(log.Lines().size(), 1u);
  }

  // Random garbage never reads past the readable bytes and always ends.
  int printed = logGetMaxPriority();
  logSetMaxPriority(VESK_PRIO_ERROR - 1);  // quiet: thousands of expected lines
  uint32_t seed = 12345;
  for (int round = 0; round < 2000; round++) {
    std::vector<uint8_t> bytes(1 + round % 13);
    for (auto& byte : bytes) {
      seed = seed * 1103515245 + 12345;
      byte = (uint8_t)((seed >> 16) % 6);
    }
    IOBuffer buffer;
    LoadAtEnd(buffer, bytes);
    peer_report_t report;
    ParsePeerMessages(buffer, report);
    EXPECT_LE(buffer.GetAvailable(), bytes.size());
  }
  logSetMaxPriority(printed);
}

TEST(OutStreamRate, SamplerLevelsAndDrift) {
  BandwidthSampler sampler;
  sampler.AddSample(1000, 100);
  EXPECT_EQ(sampler.GetRate(), -1);  // zero span
  sampler.AddSample(2000, 300);
  EXPECT_EQ(sampler.GetRate(), 400);
  sampler.Reset();
  EXPECT_EQ(sampler.GetRate(), -1);
  // 600 samples: the ring keeps the last 512 (times 88..599).
  for (uint64_t i = 0; i < 600; i++) sampler.AddSample(i, (uint32_t)(i < 88 ? 1000 : 10));
  EXPECT_EQ(sampler.GetRate(), 5120 * 1000 / 511);

  Encoder encoder;
  StreamInfo info = MakeStreamInfo(true, true);
  OutStream stream(&encoder, 0);
  EXPECT_EQ(stream.GetOutputBufferLevel(30), 30);
  UdpPeer peer;
  Variant config;
  config["type"] = "flv";
  config["destinations"][0u] = peer.Uri();
  ASSERT_TRUE(stream.Configure(config, info));
  EXPECT_EQ(stream.GetOutputBufferLevel(42), 42);
  EXPECT_EQ(stream.GetOutputBufferLevel(101), 100);

  // The drift between the last audio and video times against the maximum.
  std::vector<uint8_t> adts = {0xFF, 0xF1, 0x50, 0x80, 0x01, 0x3F, 0xFC, 0x21, 0x10};
  audio_frame_t audio = MakeAudioFrame(adts, 1000, 1000);
  ASSERT_TRUE(stream.FeedAudioFrame(&audio));
  EXPECT_EQ(stream.GetOutputBitrate(), -1);  // one sample
  std::vector<uint8_t> picture = {0, 0, 0, 1, 0x41, 0x9A};
  TestRing ring(64);
  video_frame_t frame;
  ring.PlaceBytes(picture, 0, frame);  // not a key picture: dropped by the container
  frame.pts = timestamp_t(99000, 90000);
  ASSERT_TRUE(stream.FeedVideoFrame(&frame));
  EXPECT_FALSE(stream.IsDrifted());  // no maximum yet
  stream.SetMaxAllowedDrift(timestamp_t(100, 1000));
  EXPECT_FALSE(stream.IsDrifted());  // 1100 - 1000 = 100, not more
  frame.pts = timestamp_t(99091, 90000);
  ASSERT_TRUE(stream.FeedVideoFrame(&frame));
  EXPECT_TRUE(stream.IsDrifted());  // 1101
  stream.ResetSyncMonitor();
  EXPECT_FALSE(stream.IsDrifted());
}

}  // namespace
}  // namespace test
}  // namespace vesk

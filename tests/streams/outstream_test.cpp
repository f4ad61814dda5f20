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

namespace vesk::test {
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

// Bytes at the very end of the buffer's 256-byte storage: an over-read leaves the allocation.
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

  // Upper case is canonicalised; numeric keys first, then string keys, each in order.
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

  // An array is taken in index order; a repeated Configure replaces all.
  config["destinations"] = Variant();
  config["destinations"].IsArray(true);
  config["destinations"].PushToArray(b.Uri());
  config["destinations"].PushToArray(a.Uri());
  config["type"] = "vesk";
  ASSERT_TRUE(stream.Configure(config, info));
  ASSERT_EQ(stream.GetTransports().size(), 2u);
  EXPECT_EQ(std::make_pair(PortOf(stream.GetTransports()[0]), PortOf(stream.GetTransports()[1])),
            std::make_pair(b.port(), a.port()));
  EXPECT_EQ(stream.GetContainer()->GetType(), vesk::encoder::CONTAINER_VESK);

  // "flvx" is no keyword: unknown, and no container for it.
  LogCapture log;
  for (Variant type : {Variant("flvx"), Variant(12)}) {
    config["type"] = type;
    EXPECT_FALSE(stream.Configure(config, info));
  }
  EXPECT_EQ(log.Count("Unable to obtain a container of type `unknown`"), 2u);

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
  EXPECT_EQ(lines[1].message, "Unable to resolve URI: `not a uri`");
  EXPECT_EQ(std::make_pair(lines[0].priority, lines[1].priority),
            std::make_pair(VESK_PRIO_WARNING, VESK_PRIO_ERROR));
  video_frame_t frame;
  EXPECT_TRUE(stream.FeedVideoFrame(&frame));  // accepted, nothing sent

  // A transport that cannot start: the factory line, then the stream's.
  log.Clear();
  config["destinations"] = Variant();
  config["destinations"][0u] = "udp://255.255.255.255:5000";
  ASSERT_TRUE(stream.Configure(config, info));
  EXPECT_EQ(log.Messages(),
            (std::vector<std::string>{
                "Invalid address provided",
                "unable to initialize transport from URI: `udp://255.255.255.255:5000`",
                "Unable to get transport for `udp://255.255.255.255:5000`"}));
  EXPECT_EQ(log.Lines().back().priority, VESK_PRIO_WARNING);
}

TEST(TransportFactory, UnknownSchemas) {
  LogCapture log;
  URI uri;
  for (Variant schema : {Variant(), Variant("TCP"), Variant(17)}) {  // 17: not a string, read as ""
    if (!schema.IsUndefined()) uri["schema"] = schema;
    EXPECT_EQ(BaseTransport::GetInstance(nullptr, uri), nullptr);
  }
  EXPECT_EQ(log.Messages(), (std::vector<std::string>{"schema not supported: ``",
                                                      "schema not supported: `TCP`",
                                                      "schema not supported: ``"}));
  EXPECT_EQ(log.Lines()[0].function, "GetInstance");
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
    EXPECT_EQ(std::make_tuple(report.bitrateSeen, report.invalidIngest, report.discarded,
                              buffer.GetAvailable()),
              std::make_tuple(c.bitrateSeen, c.invalidIngest, c.discarded, c.left));
    // bitrate and level matter once seen; the IDR flag unless discarded.
    EXPECT_EQ(std::make_tuple(c.bitrateSeen ? report.bitrate : -1, c.bitrateSeen ? report.level : -1,
                              !c.discarded && report.idrRequested),
              std::make_tuple(c.bitrate, (int8_t)c.level, !c.discarded && c.idr));
    // The stream logs what the parse found, under its own name.
    EXPECT_TRUE(log.Lines().empty());
    OutStream stream(nullptr, 0);
    IOBuffer same;
    LoadAtEnd(same, c.bytes);
    stream.SignalTransportReceivedData(same);
    EXPECT_EQ(log.Has("Invalid ingest point used"), c.invalidIngest);
    EXPECT_EQ(log.Has("Invalid message received."), c.discarded);
    ASSERT_LE(log.Lines().size(), 1u);
    if (!log.Lines().empty()) {
      EXPECT_EQ(log.Lines()[0].function, "SignalTransportReceivedData");
    }
  }

  // Random garbage never reads past the readable bytes and always ends.
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
  ASSERT_TRUE(stream.Configure(StreamConfig("flv", {peer.Uri()}), info));
  EXPECT_EQ(stream.GetOutputBufferLevel(101), 100);

  // The drift between the last audio and video times against the maximum.
  std::vector<uint8_t> adts = {0xFF, 0xF1, 0x50, 0x80, 0x01, 0x3F, 0xFC, 0x21, 0x10};
  audio_frame_t audio = MakeAudioFrame(adts, 1000, 1000);
  ASSERT_TRUE(stream.FeedAudioFrame(&audio));
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
}  // namespace vesk::test

// Golden FLV and vesk layouts, one UDP datagram per message; the pass-through container.
#include <gtest/gtest.h>

#include "basecontainer.h"
#include "containervesk.h"
#include "log_capture.h"
#include "outstream.h"
#include "stream_test_util.h"
#include "vesk/encoder.h"

namespace vesk::test {
namespace {

using vesk::encoder::Encoder;
using vesk::encoder::StreamInfo;
using vesk::encoder::internal::BaseContainer;
using vesk::encoder::internal::OutStream;
using vesk::variant::Variant;
typedef std::vector<uint8_t> Bytes;

Bytes Concat(std::initializer_list<Bytes> pieces) {
  Bytes out;
  for (auto& piece : pieces) out.insert(out.end(), piece.begin(), piece.end());
  return out;
}

Bytes Text(const std::string& text) { return Bytes(text.begin(), text.end()); }

Bytes Slice(const Bytes& bytes, size_t from, size_t count) {
  return Bytes(bytes.begin() + from, bytes.begin() + from + count);
}

// A stream of the given container type sending to a loopback UDP peer.
struct UdpStream {
  UdpStream(const std::string& type, const Variant& parameters = Variant(), bool hasVideo = true,
            bool hasAudio = true)
      : stream(&encoder, 0) {
    Variant config = StreamConfig(type, {peer.Uri()});
    if (!parameters.IsUndefined()) config["parameters"] = parameters;
    StreamInfo info = MakeStreamInfo(hasVideo, hasAudio);
    configured = stream.Configure(config, info);
  }
  Encoder encoder;
  UdpPeer peer;
  OutStream stream;
  bool configured;
};

// A key picture: SPS of 10 bytes, PPS of 4 bytes, then a slice.
const Bytes kSps = {0x67, 0x42, 0xC0, 0x1E, 0xDA, 0x02, 0x80, 0xBF, 0xE5, 0x84};
const Bytes kPps = {0x68, 0xCE, 0x3C, 0x80}, kSlice = {0x65, 0x88, 0x84, 0x00, 0x33, 0xFF};
// An AAC access unit with its ADTS header (AAC LC, 44.1 kHz, 2 channels).
Bytes aacUnit = {0xFF, 0xF1, 0x50, 0x80, 0x01, 0x3F, 0xFC, 0x21, 0x10};

void MapKeyPicture(video_frame_t& frame) {
  const uint32_t map[9] = {0, 14, 14, 8, 0, 0, 0, 0, 22};  // SPS, PPS, SEI, AUD, slice
  frame.isKeyFrame = 1;
  frame.codecInfo = frame.nalMap;
  memcpy(frame.nalMap, map, sizeof(map));
}

// The key picture placed at `at`, with its map and a pts.
void PlaceKeyPicture(TestRing& ring, uint32_t at, int64_t pts, video_frame_t& frame) {
  ring.PlaceBytes(Concat({{0, 0, 0, 1}, kSps, {0, 0, 0, 1}, kPps, {0, 0, 0, 1}, kSlice}), at, frame);
  MapKeyPicture(frame);
  frame.pts = timestamp_t(pts, 90000);
  frame.ptsDtsDelta = timestamp_t(0, 90000);
  frame.duration = 3600;
}

TEST(FlvGolden, SequenceHeaderClockSyncAndVideoTag) {
  for (bool extended : {false, true}) {
    SCOPED_TRACE(extended ? "extended" : "plain");
    UdpStream s(extended ? "extendedFlv" : "flv");
    ASSERT_TRUE(s.configured);
    TestRing ring(1000);
    video_frame_t frame;
    PlaceKeyPicture(ring, 1000 - 30, 900000, frame);  // 10 s; wraps inside the slice
    uint64_t before = nowWallMs();
    ASSERT_TRUE(s.stream.FeedVideoFrame(&frame));
    uint64_t after = nowWallMs();

    // onMetaData, onClockSync, the AVC sequence header, the picture.
    auto messages = s.peer.Receive(4);
    ASSERT_EQ(messages.size(), 4u);
    Bytes ext = extended ? Bytes{0x00, 0x01, 0x5F, 0x90, 0, 0, 0, 0, 0, 0, 0, 0, 0, 0x0D, 0xBB, 0xA0}
                         : Bytes{};

    EXPECT_EQ(Slice(messages[0], 0, 14),
              (Bytes{'F', 'L', 'V', 1, (uint8_t)(extended ? 0x07 : 0x05), 0, 0, 0, 9, 0, 0, 0, 0, 18}));

    // onClockSync: stream clock 0.0 ms, clock base 10000.0, the wall clock in between.
    const Bytes& clock = messages[1];
    ASSERT_EQ(clock.size(), 101u + ext.size());
    uint64_t bits = 0;
    for (int i = 0; i < 8; i++) bits = (bits << 8) | clock[86 + i];
    double wall;
    memcpy(&wall, &bits, sizeof(wall));
    EXPECT_TRUE(wall >= (double)before && wall <= (double)after) << wall;
    EXPECT_EQ(clock, Concat({{18, 0, 0, 86, 0, 0, 0, 0, 0, 0, 0, 0x02, 0x00, 0x0B},
                             Text("onClockSync"), {0x03, 0x00, 0x0B}, Text("streamClock"),
                             {0, 0, 0, 0, 0, 0, 0, 0, 0, 0x00, 0x0F}, Text("streamClockBase"),
                             {0x00, 0x40, 0xC3, 0x88, 0, 0, 0, 0, 0, 0x00, 0x09}, Text("wallClock"),
                             {0x00}, Slice(clock, 86, 8), {0, 0, 9, 0, 0, 0, 97}, ext}));

    Bytes header = Concat({{9, 0, 0, 30, 0, 0, 0, 0, 0, 0, 0},  // tag, data size 30
                           {0x17, 0, 0, 0, 0},                 // key frame, sequence header
                           {1, 0x42, 0xC0, 0x1E, 0xFF, 0xE1, 0, 10},
                           kSps,
                           {1, 0, 4},
                           kPps,
                           {0, 0, 0, 41},  // previous tag size
                           ext});
    EXPECT_EQ(messages[2], header);  // 45 bytes, 61 extended

    uint32_t n = (uint32_t)kSlice.size();  // the slice without its start code
    Bytes tag = Concat({{9, 0, 0, (uint8_t)(n + 9), 0, 0, 0, 0, 0, 0, 0},
                        {0x17, 1, 0, 0, 0},  // key frame, NAL unit, composition time 0
                        {0, 0, 0, (uint8_t)n},
                        kSlice,
                        {0, 0, 0, (uint8_t)(n + 20)},
                        ext});
    EXPECT_EQ(messages[3], tag);

    // A second key frame with the same parameter sets: clock sync and the
    // picture, no new sequence header; a changed PPS sends one again.
    frame.pts = timestamp_t(900000 + 3600, 90000);
    ASSERT_TRUE(s.stream.FeedVideoFrame(&frame));
    EXPECT_EQ(s.peer.Receive(2).size(), 2u);
    ring.data()[(1000 - 30 + 18 + 3) % 1000] ^= 0x01;  // last PPS byte
    frame.pts = timestamp_t(900000 + 7200, 90000);
    ASSERT_TRUE(s.stream.FeedVideoFrame(&frame));
    auto again = s.peer.Receive(3);
    ASSERT_EQ(again.size(), 3u);
    EXPECT_EQ(again[1].size(), extended ? 61u : 45u);
    EXPECT_EQ(again[1][40], 0x80 ^ 0x01);  // the PPS's last byte in the header
  }
}

TEST(FlvGolden, AudioTagsTimestampOrderAndLateTransport) {
  UdpStream s("flv", Variant(), false, true);
  ASSERT_TRUE(s.configured);
  vesk::test::LogCapture log;
  // A transport that becomes ready before any frame gets no onMetaData and
  // two error lines.
  ASSERT_TRUE(s.stream.SignalTransportReady(s.stream.GetTransports()[0]));
  EXPECT_TRUE(log.Has("No video codec bytes available"));
  EXPECT_TRUE(log.Has("No audio codec bytes available"));
  EXPECT_EQ(s.peer.Receive(0).size(), 0u);

  // A 7-byte access unit: its ADTS header only (AAC LC, 44.1 kHz, 2 channels).
  Bytes adts = {0xFF, 0xF1, 0x50, 0x80, 0x00, 0xFF, 0xFC};
  audio_frame_t frame = MakeAudioFrame(adts, 0, 1000);
  ASSERT_TRUE(s.stream.FeedAudioFrame(&frame));
  // onMetaData, the AAC sequence header, the tag, and the first clock sync
  // (no video: one per second of audio).
  auto messages = s.peer.Receive(4);
  ASSERT_EQ(messages.size(), 4u);
  EXPECT_EQ(messages[0][4], 0x04);  // audio only
  EXPECT_EQ(messages[1], (Bytes{8, 0, 0, 4, 0, 0, 0, 0, 0, 0, 0, 0xAF, 0, 0x12, 0x10, 0, 0, 0, 15}));
  EXPECT_EQ(messages[2], (Bytes{8, 0, 0, 2, 0, 0, 0, 0, 0, 0, 0, 0xAF, 1, 0, 0, 0, 13}));
  EXPECT_EQ(messages[3].size(), 101u);

  // Timestamp bytes A B C D, most significant first, go out as B C D A.
  frame = MakeAudioFrame(aacUnit, 0x0A0B0C0D, 1000);
  ASSERT_TRUE(s.stream.FeedAudioFrame(&frame));
  messages = s.peer.Receive(2);
  ASSERT_EQ(messages.size(), 2u);  // the tag and the next clock sync
  EXPECT_EQ(messages[0], (Bytes{8, 0, 0, 4, 0x0B, 0x0C, 0x0D, 0x0A, 0, 0, 0, 0xAF, 1, 0x21, 0x10,
                                0, 0, 0, 15}));

  // A transport arriving now gets onMetaData and the AAC header; the video
  // header does not exist.
  log.Clear();
  ASSERT_TRUE(s.stream.SignalTransportReady(s.stream.GetTransports()[0]));
  messages = s.peer.Receive(2);
  ASSERT_EQ(messages.size(), 2u);
  EXPECT_EQ(Slice(messages[0], 0, 3), Text("FLV"));
  EXPECT_EQ(Slice(messages[0], 17, 4), (Bytes{0x0B, 0x0C, 0x0D, 0x0A}));
  EXPECT_EQ(Slice(messages[1], 4, 4), (Bytes{0x0B, 0x0C, 0x0D, 0x0A}));
  EXPECT_TRUE(log.Has("No video codec bytes available"));
}

TEST(FlvGolden, OverlapAvoidance) {
  Variant parameters;
  parameters["enableTimestampsOverlapAvoidance"] = true;
  UdpStream s("extendedFlv", parameters);
  ASSERT_TRUE(s.configured);
  vesk::test::LogCapture log;
  TestRing ring(4096);
  video_frame_t frame;
  PlaceKeyPicture(ring, 0, 90000, frame);
  ASSERT_TRUE(s.stream.FeedVideoFrame(&frame));
  EXPECT_EQ(s.peer.Receive(4).size(), 4u);

  frame.isKeyFrame = 0;  // 1000 ticks early, not key: dropped
  frame.codecInfo = frame.auxInfo;
  frame.auxInfo[8] = 22;
  frame.pts = timestamp_t(90000 + 2600, 90000);
  ASSERT_TRUE(s.stream.FeedVideoFrame(&frame));
  EXPECT_TRUE(log.Has("Video overlap avoided: -1000; KF: 0"));
  EXPECT_EQ(s.peer.Receive(0).size(), 0u);

  MapKeyPicture(frame);  // 3000 ticks early, key: sent at the corrected time
  frame.pts = timestamp_t(90000 + 600, 90000);
  ASSERT_TRUE(s.stream.FeedVideoFrame(&frame));
  EXPECT_TRUE(log.Has("Video overlap happened on KF: -3000; Correct it to be 93600"));
  auto messages = s.peer.Receive(2);  // clock sync, picture
  ASSERT_EQ(messages.size(), 2u);
  const Bytes& tag = messages[1];
  EXPECT_EQ(Slice(tag, 4, 4), (Bytes{0, 0, 40, 0}));  // 40 ms after the first picture
  EXPECT_EQ(Slice(tag, tag.size() - 8, 8), (Bytes{0, 0, 0, 0, 0, 0x01, 0x6D, 0xA0}));  // 93600
  // nextVideoMin advanced by one duration: a picture at 97200 passes.
  frame.isKeyFrame = 0;
  frame.codecInfo = frame.auxInfo;
  frame.pts = timestamp_t(97200, 90000);
  ASSERT_TRUE(s.stream.FeedVideoFrame(&frame));
  EXPECT_EQ(s.peer.Receive(1).size(), 1u);

  // Audio is never retimed: an early frame is dropped.
  audio_frame_t audio = MakeAudioFrame(aacUnit, 44100, 44100);
  ASSERT_TRUE(s.stream.FeedAudioFrame(&audio));
  EXPECT_EQ(s.peer.Receive(2).size(), 2u);  // sequence header and tag
  audio.pts = timestamp_t(44100 + 1000, 44100);
  ASSERT_TRUE(s.stream.FeedAudioFrame(&audio));
  EXPECT_TRUE(log.Has("Audio overlap avoided"));
  EXPECT_EQ(s.peer.Receive(0).size(), 0u);
}

TEST(VeskGolden, ChannelHeadersChunksAndTimescales) {
  vesk::test::LogCapture log;
  UdpStream s("vesk");
  ASSERT_TRUE(s.configured);
  EXPECT_TRUE(log.Has("No audio ID specified. Defaulting to 1000"));
  EXPECT_TRUE(log.Has("No video ID specified. Defaulting to 1001"));

  // A 1401-byte key picture that wraps around the ring: two packets.
  Bytes picture(1401);
  for (size_t i = 0; i < picture.size(); i++) picture[i] = (uint8_t)(i * 13 + 1);
  TestRing ring(2000);
  video_frame_t frame;
  ring.PlaceBytes(picture, 1500, frame);
  frame.isKeyFrame = 1;
  frame.pts = timestamp_t(90000, 90000);
  frame.ptsDtsDelta = timestamp_t(0, 90000);
  ASSERT_TRUE(s.stream.FeedVideoFrame(&frame));
  auto packets = s.peer.Receive(2);
  ASSERT_EQ(packets.size(), 2u);
  EXPECT_EQ(packets[0], Concat({{0xA0, 0x03, 0xE9, 0x4A},  // channel 1001
                                {0xA8, 0x0C},              // first, key, timestamp, code 12
                                {0x00, 0x01},              // sequence 1
                                {0x00, 0x01, 0x5F, 0x90},  // pts 90000
                                {0x00, 0x00, 0x05, 0x79},  // total frame length 1401
                                {0x00, 0x00, 0x05, 0x78},  // chunk length 1400
                                Slice(picture, 0, 1400)}));
  EXPECT_EQ(packets[1], Concat({{0xA0, 0x03, 0xE9, 0x4A},
                                {0x40, 0x00},              // last
                                {0x00, 0x02},              // sequence 2
                                {0x00, 0x00, 0x00, 0x01},  // chunk length 1
                                {picture[1400]},
                                {0, 0, 0}}));              // padding

  // 1400 bytes with a composition offset and a pts beyond 32 bits: one packet.
  picture.resize(1400);
  ring.PlaceBytes(picture, 0, frame);
  frame.isKeyFrame = 0;
  frame.pts = timestamp_t(0x100000000LL, 90000);
  frame.ptsDtsDelta = timestamp_t(-3600, 90000);
  ASSERT_TRUE(s.stream.FeedVideoFrame(&frame));
  packets = s.peer.Receive(1);
  ASSERT_EQ(packets.size(), 1u);
  EXPECT_EQ(packets[0], Concat({{0xA0, 0x03, 0xE9, 0x4A, 0xCE, 0x0C, 0x00, 0x03,
                                 0, 0, 0, 1, 0, 0, 0, 0,     // 8-byte pts
                                 0xFF, 0xFF, 0xF1, 0xF0,     // composition -3600
                                 0, 0, 0x05, 0x78}, picture}));

  // Audio at 44100 Hz: code 10; at 96000 Hz: code 1 and the timescale in
  // little-endian order. The whole frame, ADTS header included, is carried.
  audio_frame_t audio = MakeAudioFrame(aacUnit, 1024, 44100);
  ASSERT_TRUE(s.stream.FeedAudioFrame(&audio));
  audio = MakeAudioFrame(aacUnit, 2048, 96000);
  ASSERT_TRUE(s.stream.FeedAudioFrame(&audio));
  packets = s.peer.Receive(2);
  ASSERT_EQ(packets.size(), 2u);
  EXPECT_EQ(packets[0], Concat({{0xA0, 0x03, 0xE8, 0x4B, 0xF8, 0x0A, 0x00, 0x01},
                                {0x00, 0x00, 0x04, 0x00},  // pts 1024
                                {0x00, 0x00, 0x00, 0x09},  // chunk length
                                aacUnit,
                                {0, 0, 0}}));
  EXPECT_EQ(packets[1], Concat({{0xA0, 0x03, 0xE8, 0x4B, 0xF8, 0x01, 0x00, 0x02},
                                {0x00, 0x77, 0x01, 0x00},  // 96000, little-endian
                                {0x00, 0x00, 0x08, 0x00},  // pts 2048
                                {0x00, 0x00, 0x00, 0x09},
                                aacUnit,
                                {0, 0, 0}}));
  // A talkback mix is ignored by a stream that does not carry talkback.
  Bytes mixed = {0xFF, 0xF1, 0x50, 0x80, 0x00, 0xFF, 0xFC, 0x77};
  audio.altPayload = mixed.data();
  audio.altPayloadLength = (uint32_t)mixed.size();
  ASSERT_TRUE(s.stream.FeedAudioFrame(&audio));
  packets = s.peer.Receive(1);
  ASSERT_EQ(packets.size(), 1u);
  EXPECT_EQ(Slice(packets[0], 20, 9), aacUnit);  // still the microphone payload
}

Bytes Milestone(uint32_t packets) {
  return Bytes{0xA0, 0x00, 0x05, 0xA5, 0xF0, 0x00, 0x00, 0x00, 0, 0, 0, 12, 0, 0, 0, 0,
               0,    0,    0,    0,    (uint8_t)(packets >> 24), (uint8_t)(packets >> 16),
               (uint8_t)(packets >> 8), (uint8_t)packets};
}

TEST(VeskGolden, MilestonesByPacketsAndBytes) {
  // After 1000 packets; and after 749 packets of 1400 bytes (header
  // included), when the byte limit (1 MiB) comes first.
  for (uint32_t payload : {100u, 1384u}) {
    UdpStream s("vesk");
    ASSERT_TRUE(s.configured);
    Bytes bytes(payload, 0x22);
    uint32_t count = payload == 100 ? 1000 : 749;
    for (uint32_t i = 1; i <= count; i++) {
      audio_frame_t audio = MakeAudioFrame(bytes, i * 1024, 48000);
      ASSERT_TRUE(s.stream.FeedAudioFrame(&audio));
      auto packets = s.peer.Receive(i == count ? 2 : 1);
      ASSERT_EQ(packets.size(), i == count ? 2u : 1u) << i;
      ASSERT_EQ(packets[0].size(), payload + 16);
      if (i == count) { EXPECT_EQ(packets[1], Milestone(count)); }
    }
  }
}

TEST(VeskGolden, ChannelIdRules) {
  struct id_case_t {
    Variant audio;
    Variant video;
    bool valid;
  };
  std::vector<id_case_t> cases = {{5, 1002, false},        {1002, 1, false}, {1002, 1002, false},
                                  {2, 65535, true},        {65536, 3, false}, {Variant(), 1000, false},
                                  {Variant("x"), 7, false},
                                  {0, 1000, false},        {Variant(), 1002, true}};
  for (auto& c : cases) {
    vesk::test::LogCapture log;
    Variant parameters;
    if (!c.audio.IsUndefined()) parameters["audioId"] = c.audio;
    parameters["videoId"] = c.video;
    StreamInfo info = MakeStreamInfo(true, true);
    BaseContainer* container = BaseContainer::GetInstance(nullptr, "vesk", info, parameters);
    EXPECT_EQ(container != nullptr, c.valid) << parameters.ToString();
    bool refused = log.Has(
        "Audio/video IDs are incorrect. Valid values are between 0 and 65535 and they must not be "
        "the same");
    EXPECT_EQ(refused && log.Has("Unable to initialize container"), !c.valid) << parameters.ToString();
    delete container;
  }
}

TEST(PassThrough, SendsRawBytesWithTheRingRule) {
  Variant parameters;
  parameters["withTalkback"] = true;
  UdpStream s("passThrough", parameters);
  ASSERT_TRUE(s.configured);
  Bytes bytes = Text("0123456789:;<=>?@ABCDEFGH");
  TestRing ring(100);
  video_frame_t frame;
  ring.PlaceBytes(bytes, 90, frame);  // 10 bytes, then 15 from the ring's start
  ASSERT_TRUE(s.stream.FeedVideoFrame(&frame));
  ring.PlaceBytes(bytes, 75, frame);  // ends exactly at the ring's end
  ASSERT_TRUE(s.stream.FeedVideoFrame(&frame));
  ring.PlaceBytes(bytes, 10, frame);
  frame.offset += 100;  // beyond the end: starts at ringBase + 10
  frame.isContiguous = 0;
  ASSERT_TRUE(s.stream.FeedVideoFrame(&frame));
  EXPECT_EQ(s.peer.Receive(3), std::vector<Bytes>(3, bytes));

  // Talkback: the mixed payload when there is one, else the microphone.
  Bytes mic = {1, 2, 3}, mixed = {4, 5};
  audio_frame_t audio = MakeAudioFrame(mic, 0, 16000);
  ASSERT_TRUE(s.stream.FeedAudioFrame(&audio));
  audio.altPayload = mixed.data();
  audio.altPayloadLength = 2;
  ASSERT_TRUE(s.stream.FeedAudioFrame(&audio));
  EXPECT_EQ(s.peer.Receive(2), (std::vector<Bytes>{mic, mixed}));
}

TEST(ContainerFactory, KeywordsAndTrackFlags) {
  StreamInfo info = MakeStreamInfo(true, true);
  Variant parameters;
  parameters.IsArray(false);  // no parameters
  vesk::test::LogCapture log;
  for (const char* keyword : {"Flv", "FLV", "unknown", "rtmp", ""}) {
    EXPECT_EQ(BaseContainer::GetInstance(nullptr, keyword, info, parameters), nullptr) << keyword;
  }
  EXPECT_TRUE(log.Lines().empty());

  log.Clear();
  parameters["suppressAudio"] = true;
  parameters["suppressVideo"] = true;
  EXPECT_EQ(BaseContainer::GetInstance(nullptr, "flv", info, parameters), nullptr);
  auto lines = log.Lines();
  ASSERT_EQ(lines.size(), 2u);
  EXPECT_EQ(lines[0].function + ": " + lines[0].message,
            "Initialize: Suppressing both audio and video tracks is not allowed");
  EXPECT_EQ(lines[1].sourceFile + " " + lines[1].function + ": " + lines[1].message,
            "basecontainer.cpp GetInstance: Unable to initialize container");

  // Only video suppressed: pictures send nothing, audio is sent.
  parameters["suppressAudio"] = "yes";  // not a boolean: false
  UdpStream s("passThrough", parameters);
  ASSERT_TRUE(s.configured);
  Bytes bytes = {9, 9, 9};
  TestRing ring(16);
  video_frame_t frame;
  ring.PlaceBytes(bytes, 0, frame);
  EXPECT_TRUE(s.stream.FeedVideoFrame(&frame));
  audio_frame_t audio = MakeAudioFrame(bytes, 0, 16000);
  EXPECT_TRUE(s.stream.FeedAudioFrame(&audio));
  EXPECT_EQ(s.peer.Receive(1), std::vector<Bytes>{bytes});
}

}  // namespace
}  // namespace vesk::test

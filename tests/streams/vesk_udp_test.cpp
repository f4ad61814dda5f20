#include <gtest/gtest.h>

#include <map>

#include "basetransport.h"
#include "log_capture.h"
#include "outstream.h"
#include "stream_test_util.h"
#include "vesk/encoder.h"
#include "vesk/variant/uri.h"
#include "vesk_reassembler.h"

namespace vesk::test {
namespace {

using vesk::encoder::Encoder;
using vesk::encoder::message_part_t;
using vesk::encoder::message_t;
using vesk::encoder::StreamInfo;
using vesk::encoder::internal::BaseTransport;
using vesk::encoder::internal::OutStream;
using vesk::variant::URI;
using vesk::variant::Variant;
typedef std::vector<uint8_t> Bytes;

TEST(VeskUdp, RealFramesAreReassembledByTheReceiver) {
  TempDir dir;
  std::vector<h264_picture_t> pictures = MakeH264(dir, 640, 360, 50, 25);
  std::vector<std::vector<uint8_t>> aac = MakeAac(dir, 48000, 1.0);
  ASSERT_EQ(pictures.size(), 50u);
  ASSERT_GT(aac.size(), 20u);

  Encoder encoder;
  UdpPeer peer;
  OutStream stream(&encoder, 1);
  Variant config = StreamConfig("vesk", {peer.Uri()});
  config["parameters"]["audioId"] = 2000;
  config["parameters"]["videoId"] = 2001;
  StreamInfo info = MakeStreamInfo(true, true);
  ASSERT_TRUE(stream.Configure(config, info));

  // vesk-camera's receiver puts the frames back together, counting lost
  // packets, frames of the wrong length and packets it cannot parse.
  struct received_t {
    Bytes bytes;
    uint64_t pts;
    bool key;
  };
  std::map<uint16_t, std::vector<received_t>> received;
  vesk::camera::VeskReassembler receiver([&](const vesk::camera::vesk_frame_t& frame) {
    received[frame.channel].push_back({*frame.bytes, frame.timestamp, frame.key});
  });
  auto take = [&](size_t count) {
    for (auto& d : peer.Receive(count)) receiver.Feed(d.data(), d.size());
  };
  size_t largest = 0;
  for (auto& picture : pictures) largest = std::max(largest, picture.bytes.size());
  TestRing ring((uint32_t)largest + 5000);  // pictures wrap
  for (size_t i = 0; i < pictures.size(); i++) {
    video_frame_t frame;
    ring.Place(pictures[i], (int64_t)i * 3600, frame);
    ASSERT_TRUE(stream.FeedVideoFrame(&frame));
    take((pictures[i].bytes.size() + 1399) / 1400);
    if (i < aac.size()) {
      audio_frame_t audio = MakeAudioFrame(aac[i], (int64_t)i * 1024, 48000);
      ASSERT_TRUE(stream.FeedAudioFrame(&audio));
      take(1);
    }
  }
  EXPECT_GE(ring.wrapped(), 1u);

  EXPECT_EQ(receiver.Malformed(), 0u);
  for (auto& channel : receiver.Channels()) {
    EXPECT_EQ(channel.second.lostPackets + channel.second.incompleteFrames, 0u) << channel.first;
  }
  auto& video = received[2001];
  ASSERT_EQ(video.size(), pictures.size());
  for (size_t i = 0; i < pictures.size(); i++) {
    EXPECT_TRUE(video[i].bytes == pictures[i].bytes && video[i].pts == i * 3600 &&
                video[i].key == pictures[i].key) << i;
  }
  auto& audio = received[2000];
  ASSERT_EQ(audio.size(), std::min(aac.size(), pictures.size()));
  for (size_t i = 0; i < audio.size(); i++) EXPECT_TRUE(audio[i].bytes == aac[i] && audio[i].key) << i;
}

TEST(UdpTransport, SendRules) {
  LogCapture log;
  UdpPeer peer;
  URI uri;
  ASSERT_TRUE(URI::FromString(peer.Uri(), true, uri));
  BaseTransport* udp = BaseTransport::GetInstance(nullptr, uri);
  ASSERT_NE(udp, nullptr);

  // Parts are gathered into one datagram.
  Bytes a = {1, 2, 3}, b = {4}, c = {5, 6};
  message_part_t parts[3] = {{a.data(), a.size()}, {b.data(), b.size()}, {c.data(), c.size()}};
  message_t message = {parts, 3, 6};
  EXPECT_TRUE(udp->SendMessage(&message));
  message_t empty = {nullptr, 0, 0};  // an empty datagram
  EXPECT_TRUE(udp->SendMessage(&empty));
  EXPECT_EQ(peer.Receive(2), (std::vector<Bytes>{{1, 2, 3, 4, 5, 6}, {}}));
  EXPECT_TRUE(log.Lines().empty());

  // Too large for a datagram: EMSGSIZE ends the transport.
  Bytes huge(70000, 1);
  message_part_t big = {huge.data(), huge.size()};
  message_t tooLarge = {&big, 1, (uint32_t)huge.size()};
  EXPECT_FALSE(udp->SendMessage(&tooLarge));
  auto lines = log.Lines();
  ASSERT_EQ(lines.size(), 1u);
  EXPECT_EQ(lines[0].function + ": " + lines[0].message, "SendMessage: sendmsg failed");
  EXPECT_EQ(lines[0].errorValue, EMSGSIZE);
  delete udp;

  // A stream drops every transport whose send fails (nulled, not erased).
  UdpPeer other;
  Encoder encoder;
  OutStream stream(&encoder, 0);
  StreamInfo info = MakeStreamInfo(true, true);
  ASSERT_TRUE(stream.Configure(StreamConfig("passThrough", {peer.Uri(), other.Uri()}), info));
  Bytes frameBytes(70000, 2);
  TestRing ring(80000);
  video_frame_t frame;
  ring.PlaceBytes(frameBytes, 0, frame);
  EXPECT_TRUE(stream.FeedVideoFrame(&frame));
  EXPECT_EQ(stream.GetTransports(), (std::vector<BaseTransport*>{nullptr, nullptr}));
  Bytes small = {7, 7};
  audio_frame_t audio = MakeAudioFrame(small, 0, 16000);
  EXPECT_TRUE(stream.FeedAudioFrame(&audio));  // no transport left: nothing sent
  EXPECT_EQ(other.Receive(0).size(), 0u);
}

}  // namespace
}  // namespace vesk::test

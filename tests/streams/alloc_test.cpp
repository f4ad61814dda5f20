// Feeding frames allocates nothing once a stream has seen its first key
// frame and its first audio frame, in every container.
#include <gtest/gtest.h>

#include "malloc_counter.h"
#include "outstream.h"
#include "stream_test_util.h"
#include "vesk/encoder.h"

namespace vesk::test {
namespace {

using vesk::encoder::Encoder;
using vesk::encoder::internal::OutStream;
using vesk::variant::Variant;

TEST(Allocations, NoneWhileFeedingAfterTheFirstKeyFrame) {
  TempDir dir;
  std::vector<h264_picture_t> pictures = MakeH264(dir, 320, 240, 60, 20);
  std::vector<std::vector<uint8_t>> aac = MakeAac(dir, 16000, 2.4);
  ASSERT_EQ(pictures.size(), 60u);
  ASSERT_GT(aac.size(), 30u);

  Encoder encoder;
  UdpPeer peer;
  vesk::encoder::StreamInfo info = MakeStreamInfo(true, true);
  std::vector<std::unique_ptr<OutStream>> streams;
  for (const char* type : {"flv", "extendedFlv", "vesk", "passThrough"}) {
    Variant config = StreamConfig(type, {peer.Uri()});
    config["parameters"]["enableTimestampsOverlapAvoidance"] = true;
    streams.emplace_back(new OutStream(&encoder, 0));
    ResetMallocCount();
    CountThisThread(true);  // the counter sees the library: configuring allocates
    ASSERT_TRUE(streams.back()->Configure(config, info)) << type;
    CountThisThread(false);
    EXPECT_GT(MallocCount(), 0u);
  }

  TestRing ring(40000);
  size_t a = 0;
  ResetMallocCount();
  for (size_t v = 0; v < pictures.size(); v++) {
    video_frame_t frame;
    ring.Place(pictures[v], (int64_t)v * 3600, frame);
    audio_frame_t audio = MakeAudioFrame(aac[a], (int64_t)a * 1024, 16000);
    bool withAudio = a < aac.size() && a * 1024 * 1000 <= v * 40 * 16000;
    // The first pass (key picture and audio frame) builds the sequence headers.
    CountThisThread(v > 0);
    for (auto& stream : streams) {
      if (withAudio) {
        ASSERT_TRUE(stream->FeedAudioFrame(&audio));
      }
      ASSERT_TRUE(stream->FeedVideoFrame(&frame));
    }
    CountThisThread(false);
    if (withAudio) a++;
    peer.Receive(0);  // keeps the socket's queue short
  }
  EXPECT_GE(ring.wrapped(), 1u);
  EXPECT_EQ(MallocCount(), 0u);
}

}  // namespace
}  // namespace vesk::test

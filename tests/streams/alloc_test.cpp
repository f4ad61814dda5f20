// Feeding frames allocates nothing once a stream has seen its first key
// frame and its first audio frame. malloc and its family are replaced in
// this binary (operator new ends in malloc too) and count the calls made by
// the feeding thread while a flag is raised around the feed calls only.
#include <gtest/gtest.h>

#include <atomic>

#include "outstream.h"
#include "stream_test_util.h"
#include "vesk/encoder.h"

extern "C" {
void* __libc_malloc(size_t size);
void* __libc_calloc(size_t count, size_t size);
void* __libc_realloc(void* pointer, size_t size);
void __libc_free(void* pointer);
}

namespace {
__thread bool t_counting = false;
std::atomic<size_t> g_allocations(0);
}  // namespace

extern "C" {
void* malloc(size_t size) noexcept {
  if (t_counting) g_allocations++;
  return __libc_malloc(size);
}
void* calloc(size_t count, size_t size) noexcept {
  if (t_counting) g_allocations++;
  return __libc_calloc(count, size);
}
void* realloc(void* pointer, size_t size) noexcept {
  if (t_counting) g_allocations++;
  return __libc_realloc(pointer, size);
}
void free(void* pointer) noexcept { __libc_free(pointer); }
}

namespace vesk {
namespace test {
namespace {

using vesk::encoder::Encoder;
using vesk::encoder::StreamInfo;
using vesk::encoder::internal::OutStream;
using vesk::variant::Variant;

class Counting {
 public:
  Counting() { t_counting = true; }
  ~Counting() { t_counting = false; }
};

TEST(Allocations, CountingSeesAnAllocation) {
  g_allocations = 0;
  void* volatile block;
  {
    Counting counting;
    block = malloc(64);
  }
  free(block);
  EXPECT_EQ(g_allocations.load(), 1u);
}

TEST(Allocations, NoneWhileFeedingAfterTheFirstKeyFrame) {
  TempDir dir;
  std::vector<h264_picture_t> pictures = MakeH264(dir, 320, 240, 60, 20);
  std::vector<std::vector<uint8_t>> aac = MakeAac(dir, 16000, 2.4);
  ASSERT_EQ(pictures.size(), 60u);
  ASSERT_GT(aac.size(), 30u);

  Encoder encoder;
  UdpPeer peer;
  StreamInfo info = MakeStreamInfo(true, true);
  std::vector<OutStream*> streams;
  for (const char* type : {"flv", "extendedFlv", "vesk", "passThrough"}) {
    Variant config;
    config["type"] = type;
    config["destinations"][0u] = peer.Uri();
    config["parameters"]["enableTimestampsOverlapAvoidance"] = true;
    OutStream* stream = new OutStream(&encoder, 0);
    g_allocations = 0;
    {
      // The library's own allocations are seen too: configuring allocates.
      Counting counting;
      ASSERT_TRUE(stream->Configure(config, info)) << type;
    }
    EXPECT_GT(g_allocations.load(), 0u);
    streams.push_back(stream);
  }

  TestRing ring(40000);
  size_t a = 0;
  size_t fed = 0;
  bool warm = false;
  g_allocations = 0;
  for (size_t v = 0; v < pictures.size(); v++) {
    video_frame_t frame;
    ring.Place(pictures[v], (int64_t)v * 3600, frame);
    audio_frame_t audio = MakeAudioFrame(aac[a], (int64_t)a * 1024, 16000);
    bool withAudio = a < aac.size() && a * 1024 * 1000 <= v * 40 * 16000;
    {
      // The first pass (a key picture and an audio frame) builds the
      // sequence headers; everything after it is counted.
      Counting counting;
      if (!warm) t_counting = false;
      for (OutStream* stream : streams) {
        if (withAudio) {
          ASSERT_TRUE(stream->FeedAudioFrame(&audio));
        }
        ASSERT_TRUE(stream->FeedVideoFrame(&frame));
      }
    }
    if (withAudio) a++;
    if (warm) fed++;
    warm = true;
    peer.Receive(0);  // keep the socket's queue short (not counted)
  }
  EXPECT_EQ(fed, pictures.size() - 1);
  EXPECT_GE(ring.wrapped(), 1u);
  EXPECT_EQ(g_allocations.load(), 0u);
  for (OutStream* stream : streams) delete stream;
}

}  // namespace
}  // namespace test
}  // namespace vesk

// Pictures on the manual clock: count, types and cadence, NAL layout,
// timestamps, bit rate, JPEG, the mirrored ring, queue overflow, replay and
// the descriptor and bitstream faults.
#include <unistd.h>

#include <map>

extern "C" {
#include <libavcodec/avcodec.h>
}

#include "camera_fixture.h"

namespace {

// Decodes one picture; its size, or 0x0 when it does not decode.
std::pair<int, int> DecodedSize(AVCodecID codecId, const std::vector<uint8_t>& bytes) {
  const AVCodec* codec = avcodec_find_decoder(codecId);
  AVCodecContext* context = avcodec_alloc_context3(codec);
  AVPacket* packet = av_packet_alloc();
  AVFrame* frame = av_frame_alloc();
  std::pair<int, int> size(0, 0);
  if (avcodec_open2(context, codec, nullptr) == 0 && av_new_packet(packet, static_cast<int>(bytes.size())) == 0) {
    memcpy(packet->data, bytes.data(), bytes.size());
    if (avcodec_send_packet(context, packet) == 0) {
      avcodec_send_packet(context, nullptr);  // drain
      if (avcodec_receive_frame(context, frame) == 0) size = {frame->width, frame->height};
    }
  }
  av_frame_free(&frame);
  av_packet_free(&packet);
  avcodec_free_context(&context);
  return size;
}

int SliceCount(const std::vector<int>& types) {
  int slices = 0;
  for (int type : types) slices += (type == 1 || type == 5) ? 1 : 0;
  return slices;
}

TEST_F(VirtualCameraTest, H264PicturesFollowTheCadence) {
  ASSERT_NO_FATAL_FAILURE(MapRing());
  StreamSetup s;  // 320x180 at 30, N 10, IDR every 30
  ASSERT_NO_FATAL_FAILURE(StartStreams({s}));
  vcam_advance_ms(2000);
  std::vector<iav_framedesc_t> frames = DrainFrames();
  ASSERT_EQ(frames.size(), 60u);
  for (size_t i = 0; i < frames.size(); ++i) {
    const iav_framedesc_t& f = frames[i];
    uint32_t expected = i % 30 == 0 ? IAV_PIC_TYPE_IDR : (i % 10 == 0 ? IAV_PIC_TYPE_I : IAV_PIC_TYPE_P);
    EXPECT_EQ(f.picType, expected) << "picture " << i;
    EXPECT_EQ(f.id, 0);
    EXPECT_EQ(f.frameNum, i);
    EXPECT_EQ(f.width, 320u);
    EXPECT_EQ(f.height, 180u);
    EXPECT_EQ(f.hwTimestamp, f.pts * (VCAM_TIMER_FREQUENCY / 90000));
    if (i > 0) {
      // 90 kHz at 30 frames per second.
      EXPECT_GE(f.pts - frames[i - 1].pts, 2999u);
      EXPECT_LE(f.pts - frames[i - 1].pts, 3001u);
    }
    std::vector<int> types = NalTypes(PictureBytes(f));
    ASSERT_FALSE(types.empty());
    EXPECT_EQ(types.front(), 9) << "access-unit delimiter first, picture " << i;
    EXPECT_EQ(SliceCount(types), 1) << "picture " << i;
    for (int type : types) {
      EXPECT_NE(type, -1) << "3-byte start code in picture " << i;
      EXPECT_TRUE(type == 9 || type == 7 || type == 8 || type == 6 || type == 5 || type == 1)
          << "NAL type " << type << " in picture " << i;
    }
    if (expected != IAV_PIC_TYPE_P) {
      ASSERT_GE(types.size(), 4u);
      EXPECT_EQ(types[1], 7);
      EXPECT_EQ(types[2], 8);
      EXPECT_EQ(types.back(), expected == IAV_PIC_TYPE_IDR ? 5 : 1);
    } else {
      EXPECT_EQ(types.back(), 1);
    }
  }
  // Pictures carry the time of the hardware timer.
  EXPECT_LE(frames.back().hwTimestamp, vcam_timer_ticks());
  // (the 90 kHz stamp is exact to 300 ticks)
  EXPECT_GT(frames.back().hwTimestamp + VCAM_TIMER_FREQUENCY / 30 + 300, vcam_timer_ticks());
  EXPECT_EQ(DecodedSize(AV_CODEC_ID_H264, PictureBytes(frames[0])), std::make_pair(320, 180));

  // A forced IDR restarts the cadence.
  vcam_advance_ms(400);  // 12 pictures: the GOP is 12 pictures in
  ASSERT_EQ(DrainFrames().size(), 12u);
  ASSERT_EQ(ForceIdr(0), 0);
  vcam_advance_ms(1000);
  frames = DrainFrames();
  ASSERT_EQ(frames.size(), 30u);
  EXPECT_EQ(frames[0].picType, IAV_PIC_TYPE_IDR);
  EXPECT_EQ(frames[10].picType, IAV_PIC_TYPE_I);
  EXPECT_EQ(frames[29].picType, IAV_PIC_TYPE_P);
  vcam_stream_status_t status;
  ASSERT_EQ(vcam_get_stream_status(0, &status), 0);
  EXPECT_EQ(status.pictures, 102u);
  EXPECT_EQ(status.idrInterval, 30u);
}

TEST_F(VirtualCameraTest, QueryForOneStreamAndStreamStop) {
  ASSERT_NO_FATAL_FAILURE(MapRing());
  StreamSetup a;
  StreamSetup b;
  b.id = 1;
  b.sourceBuf = 1;
  b.fps = 10;
  ASSERT_NO_FATAL_FAILURE(StartStreams({a, b}));
  vcam_advance_ms(1000);
  iav_framedesc_t desc;
  int ones = 0;
  while (NextFrame(&desc, 1)) {
    EXPECT_EQ(desc.id, 1);
    ++ones;
  }
  EXPECT_EQ(ones, 10);
  EXPECT_EQ(DrainFrames().size(), 30u);
  // Stopping stream 1 leaves stream 0 running.
  ASSERT_EQ(Request(IAV_IOC_STOP_ENCODE, 0x00020002ul), 0);
  vcam_advance_ms(1000);
  for (const iav_framedesc_t& f : DrainFrames()) EXPECT_EQ(f.id, 0);
  vcam_status_t status;
  vcam_get_status(&status);
  EXPECT_EQ(status.encodeMask, 1u);
  EXPECT_EQ(status.iavState, VCAM_IAV_STATE_ENCODE);
}

// Bits per second of one stream over the pictures with pts in [from, to).
double MeasuredRate(const std::vector<iav_framedesc_t>& frames, int32_t id, uint64_t from, uint64_t to) {
  uint64_t bytes = 0;
  for (const iav_framedesc_t& f : frames)
    if (f.id == id && f.pts >= from && f.pts < to) bytes += f.size;
  return bytes * 8.0 * 90000.0 / static_cast<double>(to - from);
}

TEST_F(VirtualCameraTest, BitRateIsCountedAtTheVinRateAndFollowsChanges) {
  vcam_set_scene(VCAM_SCENE_BUSY);
  ASSERT_NO_FATAL_FAILURE(MapRing());
  StreamSetup full;
  full.bitrate = 600000;
  StreamSetup half = full;
  half.id = 1;
  half.sourceBuf = 1;
  half.fps = 15;  // half the VIN rate: half the target
  ASSERT_NO_FATAL_FAILURE(StartStreams({full, half}));
  std::vector<iav_framedesc_t> frames;
  for (int second = 0; second < 4; ++second) {
    vcam_advance_ms(1000);
    for (const iav_framedesc_t& f : DrainFrames()) frames.push_back(f);
  }
  uint64_t now = frames.back().pts;
  double fullRate = MeasuredRate(frames, 0, now - 2 * 90000, now);
  double halfRate = MeasuredRate(frames, 1, now - 2 * 90000, now);
  EXPECT_GT(fullRate, 600000 * 0.6);
  EXPECT_LT(fullRate, 600000 * 1.4);
  EXPECT_GT(halfRate / fullRate, 0.35);
  EXPECT_LT(halfRate / fullRate, 0.65);

  ASSERT_EQ(SetBitrate(0, 150000), 0);
  frames.clear();
  for (int second = 0; second < 4; ++second) {
    vcam_advance_ms(1000);
    for (const iav_framedesc_t& f : DrainFrames()) frames.push_back(f);
  }
  now = frames.back().pts;
  double lowered = MeasuredRate(frames, 0, now - 2 * 90000, now);
  EXPECT_GT(lowered, 150000 * 0.6);
  EXPECT_LT(lowered, 150000 * 1.4);
}

TEST_F(VirtualCameraTest, JpegPicturesAtTheirQuality) {
  ASSERT_NO_FATAL_FAILURE(MapRing());
  StreamSetup jpeg;
  jpeg.id = 2;
  jpeg.type = IAV_STREAM_TYPE_MJPEG;
  jpeg.sourceBuf = 1;
  jpeg.fps = 1;
  jpeg.quality = 90;
  ASSERT_NO_FATAL_FAILURE(StartStreams({jpeg}));
  vcam_advance_ms(3000);
  std::vector<iav_framedesc_t> good = DrainFrames();
  ASSERT_EQ(good.size(), 3u);
  for (const iav_framedesc_t& f : good) {
    EXPECT_EQ(f.picType, IAV_PIC_TYPE_JPEG);
    EXPECT_EQ(f.id, 2);
  }
  std::vector<uint8_t> bytes = PictureBytes(good[0]);
  ASSERT_GT(bytes.size(), 2u);
  EXPECT_EQ(bytes[0], 0xFF);
  EXPECT_EQ(bytes[1], 0xD8);
  EXPECT_EQ(DecodedSize(AV_CODEC_ID_MJPEG, bytes), std::make_pair(320, 180));

  iav_stream_quality_t low = {10};
  ASSERT_EQ(SetStreamConfig(2, IAV_STMCFG_MJPEG_QUALITY, &low, sizeof(low)), 0);
  vcam_advance_ms(1000);
  std::vector<iav_framedesc_t> poor = DrainFrames();
  ASSERT_EQ(poor.size(), 1u);
  EXPECT_LT(poor[0].size * 2, good.back().size);
}

TEST_F(VirtualCameraTest, MirroredRingReadsAcrossItsEnd) {
  ASSERT_EQ(vcam_set_bitstream_size(64 * 1024), 0);
  ASSERT_NO_FATAL_FAILURE(MapRing());
  ASSERT_EQ(ringLength_, 64u * 1024);
  StreamSetup s;
  ASSERT_NO_FATAL_FAILURE(StartStreams({s}));
  bool crossed = false;
  for (int frame = 0; frame < 300 && !crossed; ++frame) {
    vcam_advance_us(33334);
    iav_framedesc_t f;
    while (NextFrame(&f)) {
      ASSERT_LT(f.dataOffset, ringLength_);
      if (f.dataOffset + f.size <= ringLength_) continue;
      crossed = true;
      // One run through the mirror equals the two parts of the ring.
      size_t head = ringLength_ - f.dataOffset;
      std::vector<uint8_t> joined(ring_ + f.dataOffset, ring_ + ringLength_);
      joined.insert(joined.end(), ring_, ring_ + (f.size - head));
      EXPECT_EQ(PictureBytes(f), joined);
      EXPECT_EQ(NalTypes(joined).front(), 9);
    }
  }
  EXPECT_TRUE(crossed);
}

TEST_F(VirtualCameraTest, ReaderFallingBehindLosesTheOldestPictures) {
  ASSERT_NO_FATAL_FAILURE(MapRing());
  StreamSetup s;
  ASSERT_NO_FATAL_FAILURE(StartStreams({s}));
  vcam_advance_ms(5000);  // 150 pictures, 64 kept
  std::vector<iav_framedesc_t> frames = DrainFrames();
  ASSERT_EQ(frames.size(), VCAM_DEFAULT_QUEUE_DEPTH);
  EXPECT_EQ(frames.front().frameNum, 150u - VCAM_DEFAULT_QUEUE_DEPTH);
  EXPECT_EQ(frames.back().frameNum, 149u);
  vcam_status_t status;
  vcam_get_status(&status);
  EXPECT_EQ(status.picturesLost, 150u - VCAM_DEFAULT_QUEUE_DEPTH);

  // A small ring: pictures whose bytes were overwritten are lost too, and
  // every picture still queued is intact.
  vcam_set_scene(VCAM_SCENE_BUSY);
  ASSERT_EQ(vcam_set_bitstream_size(64 * 1024), 0);
  vcam_advance_ms(3000);
  frames = DrainFrames();
  ASSERT_FALSE(frames.empty());
  EXPECT_LT(frames.size(), VCAM_DEFAULT_QUEUE_DEPTH);
  const uint8_t* small = static_cast<const uint8_t*>(
      vdev_mmap(nullptr, 2 * 64 * 1024, PROT_READ, MAP_SHARED, iav_, 0));
  ASSERT_NE(small, MAP_FAILED);
  size_t total = 0;
  for (const iav_framedesc_t& f : frames) {
    total += f.size;
    std::vector<uint8_t> bytes(small + f.dataOffset, small + f.dataOffset + f.size);
    EXPECT_EQ(NalTypes(bytes).front(), 9);
    EXPECT_EQ(f.frameNum, frames.back().frameNum - (frames.size() - 1 - (&f - frames.data())));
  }
  EXPECT_LE(total, 64u * 1024);
  vdev_munmap(const_cast<uint8_t*>(small), 2 * 64 * 1024);
}

TEST_F(VirtualCameraTest, FaultyDescriptorsAndCorruptedPictures) {
  ASSERT_NO_FATAL_FAILURE(MapRing());
  StreamSetup s;
  ASSERT_NO_FATAL_FAILURE(StartStreams({s}));
  vcam_advance_ms(100);
  ASSERT_EQ(DrainFrames().size(), 3u);
  vcam_fault_descriptor(4, IAV_PIC_TYPE_P);
  vcam_fault_descriptor(0, 7);
  vcam_fault_corrupt_nal(1);
  vcam_advance_ms(66);
  std::vector<iav_framedesc_t> frames = DrainFrames();
  ASSERT_EQ(frames.size(), 4u);
  EXPECT_EQ(frames[0].id, 4);
  EXPECT_EQ(frames[1].picType, 7u);
  std::vector<int> corrupted = NalTypes(PictureBytes(frames[2]));
  ASSERT_FALSE(corrupted.empty());
  for (int type : corrupted) EXPECT_EQ(type, 0);
  EXPECT_EQ(NalTypes(PictureBytes(frames[3])).front(), 9);
}

TEST_F(VirtualCameraTest, ReplayRepeatsOneIdrPeriod) {
  vcam_set_replay(1);
  ASSERT_NO_FATAL_FAILURE(MapRing());
  StreamSetup s;
  ASSERT_NO_FATAL_FAILURE(StartStreams({s}));
  vcam_advance_ms(2000);
  std::vector<iav_framedesc_t> frames = DrainFrames();
  ASSERT_EQ(frames.size(), 60u);
  for (size_t i = 0; i < 30; ++i) {
    EXPECT_EQ(frames[i].picType, frames[i + 30].picType);
    EXPECT_EQ(PictureBytes(frames[i]), PictureBytes(frames[i + 30]));
    EXPECT_EQ(frames[i + 30].pts - frames[i].pts, 90000u);
  }
  EXPECT_EQ(frames[0].picType, IAV_PIC_TYPE_IDR);
  EXPECT_EQ(frames[10].picType, IAV_PIC_TYPE_I);
  EXPECT_EQ(DecodedSize(AV_CODEC_ID_H264, PictureBytes(frames[30])), std::make_pair(320, 180));
}

}  // namespace

namespace {

TEST_F(VirtualCameraTest, BPicturesWhenMIsAboveOne) {
  ASSERT_NO_FATAL_FAILURE(MapRing());
  ASSERT_NO_FATAL_FAILURE(SetUpIdleVin());
  StreamSetup s;
  ASSERT_NO_FATAL_FAILURE(ConfigureStream(s));
  iav_h264_config_t h264;
  memset(&h264, 0, sizeof(h264));
  ASSERT_EQ(Request(IAV_IOC_GET_H264_CONFIG, &h264), 0);
  h264.M = 2;
  ASSERT_EQ(Request(IAV_IOC_SET_H264_CONFIG, &h264), 0);
  ASSERT_EQ(Request(IAV_IOC_ENABLE_PREVIEW, 0ul), 0);
  ASSERT_EQ(Request(IAV_IOC_START_ENCODE, 1ul), 0);
  vcam_advance_ms(1000);
  std::map<uint32_t, int> types;
  for (const iav_framedesc_t& f : DrainFrames()) ++types[f.picType];
  EXPECT_GT(types[IAV_PIC_TYPE_B], 5);
  EXPECT_EQ(types[IAV_PIC_TYPE_IDR], 1);
}

// The default clock: a thread produces the pictures as time passes. Only
// that they arrive is checked, never how fast.
TEST_F(VirtualCameraTest, RealTimeClockProducesPictures) {
  vcam_set_clock_mode(VCAM_CLOCK_REALTIME);
  ASSERT_NO_FATAL_FAILURE(MapRing());
  StreamSetup s;
  ASSERT_NO_FATAL_FAILURE(StartStreams({s}));
  std::vector<iav_framedesc_t> frames;
  for (int wait = 0; wait < 1000 && frames.size() < 3; ++wait) {
    iav_framedesc_t f;
    if (NextFrame(&f))
      frames.push_back(f);
    else
      usleep(10000);
  }
  ASSERT_EQ(frames.size(), 3u);
  EXPECT_EQ(frames[0].picType, IAV_PIC_TYPE_IDR);
  EXPECT_LT(frames[0].pts, frames[1].pts);
  EXPECT_LT(frames[1].pts, frames[2].pts);
  EXPECT_LE(frames[2].hwTimestamp, vcam_timer_ticks());
}

}  // namespace

namespace {

// The run-time rate change: new factor, new cadence, forced IDR, while encoding.
TEST_F(VirtualCameraTest, FrameRateChangesWhileEncoding) {
  ASSERT_NO_FATAL_FAILURE(MapRing());
  StreamSetup s;
  ASSERT_NO_FATAL_FAILURE(StartStreams({s}));
  vcam_advance_ms(1000);
  ASSERT_EQ(DrainFrames().size(), 30u);
  iav_stream_fps_t half = {15, 30};
  ASSERT_EQ(SetStreamConfig(0, IAV_STMCFG_FPS, &half, sizeof(half)), 0);
  iav_stream_gop_t gop = {15, 1};
  ASSERT_EQ(SetStreamConfig(0, IAV_STMCFG_GOP, &gop, sizeof(gop)), 0);
  ASSERT_EQ(ForceIdr(0), 0);
  vcam_advance_ms(2000);
  std::vector<iav_framedesc_t> frames = DrainFrames();
  ASSERT_EQ(frames.size(), 30u);
  for (size_t i = 0; i < frames.size(); ++i) {
    size_t inGop = i % 15;  // I pictures count from the last IDR
    EXPECT_EQ(frames[i].picType,
              inGop == 0 ? IAV_PIC_TYPE_IDR : (inGop % 10 == 0 ? IAV_PIC_TYPE_I : IAV_PIC_TYPE_P))
        << "picture " << i;
    if (i > 0) {
      EXPECT_GE(frames[i].pts - frames[i - 1].pts, 5999u);
      EXPECT_LE(frames[i].pts - frames[i - 1].pts, 6001u);
    }
  }
  EXPECT_EQ(DecodedSize(AV_CODEC_ID_H264, PictureBytes(frames[0])), std::make_pair(320, 180));
}

}  // namespace

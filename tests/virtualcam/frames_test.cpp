// Pictures on the manual clock: count, types and cadence, NAL layout,
// timestamps, bit rate, JPEG, the mirrored ring, queue overflow, replay and
// the descriptor and bitstream faults.
#include <unistd.h>

#include <algorithm>
#include <map>
#include <tuple>

#include "camera_decoder.h"
#include "driver_fixture.h"

namespace {

using vesk::test::DecodeOne;

// Every picture a 320x180 H.264 picture in the cadence: IDR every
// `idr`, I every 10 from it, P otherwise; 90 kHz steps of `step` ticks.
void CheckCadence(const std::vector<iav_framedesc_t>& frames, size_t idr, uint64_t step) {
  for (size_t i = 0; i < frames.size(); ++i) {
    size_t inGop = i % idr;
    EXPECT_EQ(frames[i].picType, inGop == 0 ? IAV_PIC_TYPE_IDR : (inGop % 10 == 0 ? IAV_PIC_TYPE_I : IAV_PIC_TYPE_P))
        << "picture " << i;
    if (i > 0) {
      EXPECT_NEAR(static_cast<double>(frames[i].pts - frames[i - 1].pts), step, 1.0) << i;
    }
  }
}

TEST_F(VirtualCameraTest, H264PicturesFollowTheCadenceAndItsChanges) {
  ASSERT_NO_FATAL_FAILURE(MapRing());
  StreamSetup s;  // 320x180 at 30, N 10, IDR every 30
  ASSERT_NO_FATAL_FAILURE(StartStreams({s}));
  vcam_advance_ms(2000);
  std::vector<iav_framedesc_t> frames = DrainFrames();
  ASSERT_EQ(frames.size(), 60u);
  CheckCadence(frames, 30, 3000);
  for (size_t i = 0; i < frames.size(); ++i) {
    const iav_framedesc_t& f = frames[i];
    EXPECT_EQ(std::make_tuple(f.id, f.frameNum, f.width, f.height), std::make_tuple(0, (uint32_t)i, 320u, 180u));
    EXPECT_EQ(f.hwTimestamp, f.pts * (VCAM_TIMER_FREQUENCY / 90000));
    // AUD, then SPS and PPS on I and IDR pictures, SEI maybe, one slice
    // last, all behind 4-byte start codes (-1 otherwise).
    std::vector<int> types = NalTypes(PictureBytes(f));
    ASSERT_GE(types.size(), 2u) << i;
    types.erase(std::remove(types.begin() + 1, types.end() - 1, 6), types.end() - 1);
    std::vector<int> expected = {9, 7, 8, f.picType == IAV_PIC_TYPE_IDR ? 5 : 1};
    if (f.picType == IAV_PIC_TYPE_P) expected.erase(expected.begin() + 1, expected.begin() + 3);
    EXPECT_EQ(types, expected) << i;
  }
  // Pictures carry the time of the hardware timer (the 90 kHz stamp is exact to 300 ticks).
  EXPECT_LE(frames.back().hwTimestamp, vcam_timer_ticks());
  EXPECT_GT(frames.back().hwTimestamp + VCAM_TIMER_FREQUENCY / 30 + 300, vcam_timer_ticks());
  EXPECT_EQ(DecodeOne(AV_CODEC_ID_H264, PictureBytes(frames[0]), 320, 180), 1);
  // A forced IDR restarts the cadence.
  vcam_advance_ms(400);  // 12 pictures: the GOP is 12 pictures in
  ASSERT_EQ(DrainFrames().size(), 12u);
  ASSERT_EQ(ForceIdr(0), 0);
  vcam_advance_ms(1000);
  frames = DrainFrames();
  ASSERT_EQ(frames.size(), 30u);
  CheckCadence(frames, 30, 3000);
  EXPECT_EQ(StreamStatus(0).pictures, 102u);

  // The run-time rate change: new factor, new cadence, forced IDR, while encoding.
  ASSERT_EQ(SetItem(0, IAV_STMCFG_FPS, iav_stream_fps_t{15, 30}), 0);
  ASSERT_EQ(SetItem(0, IAV_STMCFG_GOP, iav_stream_gop_t{15, 1}), 0);
  ASSERT_EQ(ForceIdr(0), 0);
  vcam_advance_ms(2000);
  frames = DrainFrames();
  ASSERT_EQ(frames.size(), 30u);
  CheckCadence(frames, 15, 6000);  // I pictures count from the last IDR
  EXPECT_EQ(DecodeOne(AV_CODEC_ID_H264, PictureBytes(frames[0]), 320, 180), 1);
}

TEST_F(VirtualCameraTest, BPicturesWhenMIsAboveOne) {
  ASSERT_NO_FATAL_FAILURE(MapRing());
  ASSERT_NO_FATAL_FAILURE(SetUpIdleVin());
  ASSERT_NO_FATAL_FAILURE(ConfigureStream(StreamSetup(), 2));
  ASSERT_EQ(Request(IAV_IOC_ENABLE_PREVIEW, 0ul), 0);
  ASSERT_EQ(Request(IAV_IOC_START_ENCODE, 1ul), 0);
  vcam_advance_ms(1000);
  std::map<uint32_t, int> types;
  for (const iav_framedesc_t& f : DrainFrames()) ++types[f.picType];
  EXPECT_TRUE(types[IAV_PIC_TYPE_B] > 5 && types[IAV_PIC_TYPE_IDR] == 1) << types[IAV_PIC_TYPE_B];
}

// Bits per second of one stream over the pictures with pts in [from, to).
double MeasuredRate(const std::vector<iav_framedesc_t>& frames, int32_t id, uint64_t from, uint64_t to) {
  uint64_t bytes = 0;
  for (const iav_framedesc_t& f : frames)
    if (f.id == id && f.pts >= from && f.pts < to) bytes += f.size;
  return bytes * 8.0 * 90000.0 / static_cast<double>(to - from);
}

TEST_F(VirtualCameraTest, BitRateAtTheVinRateFollowsChangesAndStreamsQueryAndStopAlone) {
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
  auto run = [&](int seconds) {
    frames.clear();
    for (int second = 0; second < seconds; ++second) {
      vcam_advance_ms(1000);
      // A query for stream 1 gets stream 1 only.
      for (const iav_framedesc_t& f : DrainFrames(1)) {
        EXPECT_EQ(f.id, 1);
        frames.push_back(f);
      }
      for (const iav_framedesc_t& f : DrainFrames()) frames.push_back(f);
    }
    return frames.back().pts;
  };
  uint64_t now = run(4);
  EXPECT_EQ(frames.size(), 4u * 45);
  double fullRate = MeasuredRate(frames, 0, now - 2 * 90000, now);
  double halfRate = MeasuredRate(frames, 1, now - 2 * 90000, now);
  EXPECT_NEAR(fullRate, 600000, 600000 * 0.4);
  EXPECT_NEAR(halfRate / fullRate, 0.5, 0.15);

  ASSERT_EQ(SetBitrate(0, 150000), 0);
  now = run(4);
  EXPECT_NEAR(MeasuredRate(frames, 0, now - 2 * 90000, now), 150000, 150000 * 0.4);

  // Stopping stream 1 leaves stream 0 running.
  ASSERT_EQ(Request(IAV_IOC_STOP_ENCODE, 0x00020002ul), 0);
  run(1);
  for (const iav_framedesc_t& f : frames) EXPECT_EQ(f.id, 0);
  EXPECT_EQ(Status().encodeMask, 1u);
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
  for (const iav_framedesc_t& f : good) EXPECT_EQ(std::make_tuple(f.picType, f.id), std::make_tuple((uint32_t)IAV_PIC_TYPE_JPEG, 2));
  EXPECT_EQ(DecodeOne(AV_CODEC_ID_MJPEG, PictureBytes(good[0]), 320, 180), 1);

  ASSERT_EQ(SetItem(2, IAV_STMCFG_MJPEG_QUALITY, iav_stream_quality_t{10}), 0);
  vcam_advance_ms(1000);
  std::vector<iav_framedesc_t> poor = DrainFrames();
  ASSERT_EQ(poor.size(), 1u);
  EXPECT_LT(poor[0].size * 2, good.back().size);
}

TEST_F(VirtualCameraTest, MirroredRingReadsAcrossItsEnd) {
  ASSERT_EQ(vcam_set_bitstream_size(64 * 1024), 0);
  ASSERT_NO_FATAL_FAILURE(MapRing());
  ASSERT_EQ(ringLength_, 64u * 1024);
  ASSERT_NO_FATAL_FAILURE(StartStreams({StreamSetup()}));
  bool crossed = false;
  for (int frame = 0; frame < 300 && !crossed; ++frame) {
    vcam_advance_us(33334);
    iav_framedesc_t f;
    while (NextFrame(&f)) {
      ASSERT_LT(f.dataOffset, ringLength_);
      if (f.dataOffset + f.size <= ringLength_) continue;
      crossed = true;
      // One run through the mirror equals the two parts of the ring.
      std::vector<uint8_t> joined(ring_ + f.dataOffset, ring_ + ringLength_);
      joined.insert(joined.end(), ring_, ring_ + (f.size - (ringLength_ - f.dataOffset)));
      EXPECT_EQ(PictureBytes(f), joined);
      EXPECT_EQ(NalTypes(joined).front(), 9);
    }
  }
  EXPECT_TRUE(crossed);

  // Falling behind on the small ring: pictures whose bytes were overwritten
  // are lost too, and every picture still queued is intact.
  vcam_set_scene(VCAM_SCENE_BUSY);
  vcam_advance_ms(3000);
  std::vector<iav_framedesc_t> frames = DrainFrames();
  ASSERT_FALSE(frames.empty());
  EXPECT_LT(frames.size(), VCAM_DEFAULT_QUEUE_DEPTH);
  size_t total = 0;
  for (size_t i = 0; i < frames.size(); ++i) {
    total += frames[i].size;
    EXPECT_EQ(NalTypes(PictureBytes(frames[i])).front(), 9);
    EXPECT_EQ(frames[i].frameNum, frames.back().frameNum - (frames.size() - 1 - i));
  }
  EXPECT_LE(total, 64u * 1024);
}

TEST_F(VirtualCameraTest, ReaderFallingBehindLosesTheOldestPictures) {
  ASSERT_NO_FATAL_FAILURE(MapRing());
  ASSERT_NO_FATAL_FAILURE(StartStreams({StreamSetup()}));
  vcam_advance_ms(5000);  // 150 pictures, 64 kept
  std::vector<iav_framedesc_t> frames = DrainFrames();
  ASSERT_EQ(frames.size(), VCAM_DEFAULT_QUEUE_DEPTH);
  EXPECT_EQ(std::make_tuple(frames.front().frameNum, frames.back().frameNum, Status().picturesLost),
            std::make_tuple(150u - VCAM_DEFAULT_QUEUE_DEPTH, 149u, 150u - VCAM_DEFAULT_QUEUE_DEPTH));
}

TEST_F(VirtualCameraTest, FaultyDescriptorsAndCorruptedPictures) {
  ASSERT_NO_FATAL_FAILURE(MapRing());
  ASSERT_NO_FATAL_FAILURE(StartStreams({StreamSetup()}));
  vcam_advance_ms(100);
  ASSERT_EQ(DrainFrames().size(), 3u);
  vcam_fault_descriptor(4, IAV_PIC_TYPE_P);
  vcam_fault_descriptor(0, 7);
  vcam_fault_corrupt_nal(1);
  vcam_advance_ms(66);
  std::vector<iav_framedesc_t> frames = DrainFrames();
  ASSERT_EQ(frames.size(), 4u);
  EXPECT_EQ(std::make_tuple(frames[0].id, frames[1].picType), std::make_tuple(4, 7u));
  std::vector<int> corrupted = NalTypes(PictureBytes(frames[2]));
  EXPECT_EQ(corrupted, std::vector<int>(std::max<size_t>(corrupted.size(), 1), 0));
  EXPECT_EQ(NalTypes(PictureBytes(frames[3])).front(), 9);
}

TEST_F(VirtualCameraTest, ReplayRepeatsOneIdrPeriod) {
  vcam_set_replay(1);
  ASSERT_NO_FATAL_FAILURE(MapRing());
  ASSERT_NO_FATAL_FAILURE(StartStreams({StreamSetup()}));
  vcam_advance_ms(2000);
  std::vector<iav_framedesc_t> frames = DrainFrames();
  ASSERT_EQ(frames.size(), 60u);
  CheckCadence(frames, 30, 3000);
  for (size_t i = 0; i < 30; ++i) EXPECT_EQ(PictureBytes(frames[i]), PictureBytes(frames[i + 30]));
  EXPECT_EQ(DecodeOne(AV_CODEC_ID_H264, PictureBytes(frames[30]), 320, 180), 1);
}

// The default clock: pictures arrive as time passes (never checked how fast).
TEST_F(VirtualCameraTest, RealTimeClockProducesPictures) {
  vcam_set_clock_mode(VCAM_CLOCK_REALTIME);
  ASSERT_NO_FATAL_FAILURE(MapRing());
  ASSERT_NO_FATAL_FAILURE(StartStreams({StreamSetup()}));
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
  EXPECT_TRUE(frames[0].pts < frames[1].pts && frames[1].pts < frames[2].pts && frames[2].hwTimestamp <= vcam_timer_ticks());
}

}  // namespace

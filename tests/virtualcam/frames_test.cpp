// Pictures on the manual clock: cadence and forced IDR pictures, B pictures,
// JPEG quality, ring and queue overflow, replay. The NAL layout, decoding,
// reading through the mirror, bit rates and descriptor faults are proven
// through the video track.
#include <map>
#include <tuple>

#include "camera_decoder.h"
#include "driver_fixture.h"

namespace {

using vesk::test::DecodeOne;

// Every picture in the cadence of a 30 fps stream: IDR every 30, I every 10
// from it, P otherwise; 90 kHz steps of 3000 ticks.
void CheckCadence(const std::vector<iav_framedesc_t>& frames) {
  for (size_t i = 0; i < frames.size(); ++i) {
    size_t inGop = i % 30;
    EXPECT_EQ(frames[i].picType, inGop == 0 ? IAV_PIC_TYPE_IDR : (inGop % 10 == 0 ? IAV_PIC_TYPE_I : IAV_PIC_TYPE_P))
        << "picture " << i;
    if (i > 0) {
      EXPECT_NEAR(static_cast<double>(frames[i].pts - frames[i - 1].pts), 3000, 1.0) << i;
    }
  }
}

// An H.264 picture starts with its access unit delimiter.
bool StartsWithDelimiter(const std::vector<uint8_t>& bytes) {
  return bytes.size() > 5 && std::vector<uint8_t>(bytes.begin(), bytes.begin() + 5) == std::vector<uint8_t>({0, 0, 0, 1, 9});
}

TEST_F(VirtualCameraTest, ForcedIdrRestartsTheCadenceOnTheHardwareClock) {
  ASSERT_NO_FATAL_FAILURE(StartStreams({StreamSetup()}));  // 320x180 at 30, N 10, IDR every 30
  vcam_advance_ms(400);  // 12 pictures: the GOP is 12 pictures in
  std::vector<iav_framedesc_t> frames = DrainFrames();
  ASSERT_EQ(frames.size(), 12u);
  CheckCadence(frames);
  ASSERT_EQ(ForceIdr(0), 0);
  vcam_advance_ms(1000);
  frames = DrainFrames();
  ASSERT_EQ(frames.size(), 30u);
  CheckCadence(frames);
  // Pictures carry the time of the hardware timer (the 90 kHz stamp is exact to 300 ticks).
  for (const iav_framedesc_t& f : frames) EXPECT_EQ(f.hwTimestamp, f.pts * (VCAM_TIMER_FREQUENCY / 90000));
  EXPECT_LE(frames.back().hwTimestamp, vcam_timer_ticks());
  EXPECT_GT(frames.back().hwTimestamp + VCAM_TIMER_FREQUENCY / 30 + 300, vcam_timer_ticks());

  // A GOP item applied at once restarts the cadence as well; one stored for later does not.
  vcam_advance_ms(400);
  for (uint32_t apply : {0u, 1u}) {
    ASSERT_EQ(SetItem(0, IAV_STMCFG_GOP, iav_stream_gop_t{30, apply}), 0);
    vcam_advance_ms(1000);
    frames = DrainFrames();
    ASSERT_EQ(frames.size(), 42u - 12u * apply);
    CheckCadence(frames);  // apply 0: the old cadence goes on; apply 1: it restarts here
  }
}

TEST_F(VirtualCameraTest, BPicturesWhenMIsAboveOne) {
  ASSERT_NO_FATAL_FAILURE(SetUpIdleVin());
  ASSERT_NO_FATAL_FAILURE(ConfigureStream(StreamSetup(), 2));
  ASSERT_EQ(Request(IAV_IOC_ENABLE_PREVIEW, 0ul), 0);
  ASSERT_EQ(Request(IAV_IOC_START_ENCODE, 1ul), 0);
  vcam_advance_ms(1000);
  std::map<uint32_t, int> types;
  for (const iav_framedesc_t& f : DrainFrames()) ++types[f.picType];
  EXPECT_TRUE(types[IAV_PIC_TYPE_B] > 5 && types[IAV_PIC_TYPE_IDR] == 1) << types[IAV_PIC_TYPE_B];
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

// Falling behind on a small ring: pictures whose bytes were overwritten are
// lost too, and every picture still queued is intact.
TEST_F(VirtualCameraTest, SmallRingLosesOverwrittenPictures) {
  ASSERT_EQ(vcam_set_bitstream_size(64 * 1024), 0);
  ASSERT_NO_FATAL_FAILURE(MapRing());
  ASSERT_EQ(ringLength_, 64u * 1024);
  ASSERT_NO_FATAL_FAILURE(StartStreams({StreamSetup()}));
  vcam_set_scene(VCAM_SCENE_BUSY);
  vcam_advance_ms(3000);
  std::vector<iav_framedesc_t> frames = DrainFrames();
  ASSERT_FALSE(frames.empty());
  EXPECT_LT(frames.size(), VCAM_DEFAULT_QUEUE_DEPTH);
  size_t total = 0;
  for (size_t i = 0; i < frames.size(); ++i) {
    total += frames[i].size;
    EXPECT_TRUE(StartsWithDelimiter(PictureBytes(frames[i]))) << i;
    EXPECT_EQ(frames[i].frameNum, frames.back().frameNum - (frames.size() - 1 - i));
  }
  EXPECT_LE(total, 64u * 1024);
}

TEST_F(VirtualCameraTest, ReaderFallingBehindLosesTheOldestPictures) {
  ASSERT_NO_FATAL_FAILURE(StartStreams({StreamSetup()}));
  vcam_advance_ms(5000);  // 150 pictures, 64 kept
  std::vector<iav_framedesc_t> frames = DrainFrames();
  ASSERT_EQ(frames.size(), VCAM_DEFAULT_QUEUE_DEPTH);
  EXPECT_EQ(std::make_tuple(frames.front().frameNum, frames.back().frameNum, Status().picturesLost),
            std::make_tuple(150u - VCAM_DEFAULT_QUEUE_DEPTH, 149u, 150u - VCAM_DEFAULT_QUEUE_DEPTH));
}

TEST_F(VirtualCameraTest, ReplayRepeatsOneIdrPeriod) {
  vcam_set_replay(1);
  ASSERT_NO_FATAL_FAILURE(MapRing());
  ASSERT_NO_FATAL_FAILURE(StartStreams({StreamSetup()}));
  vcam_advance_ms(2000);
  std::vector<iav_framedesc_t> frames = DrainFrames();
  ASSERT_EQ(frames.size(), 60u);
  CheckCadence(frames);
  for (size_t i = 0; i < 30; ++i) EXPECT_EQ(PictureBytes(frames[i]), PictureBytes(frames[i + 30]));
}

}  // namespace

// The adaptive bit rate: the step rule, camera-server, server-player and
// motion pressure, and what the virtual camera is programmed with and produces.
#include <tuple>

#include "motiondetectionthread.h"
#include "vesk/device/iav.h"
#include "video_fixture.h"

namespace vesk {
namespace test {
namespace {

using encoder::internal::adaptive_bitrate_t;
using encoder::internal::MotionDetectionThread;

TEST(AdaptiveBitrateTest, IncreasesGrowByFivePercentStepsAndBandJumpsDecrease) {
  adaptive_bitrate_t r(300);
  r.Load(1000, 1000000);
  r.current = 100000;
  for (int i = 0; i < 299; i++) r.Step(0);
  EXPECT_EQ(r.current, 100000u);
  r.Step(0);
  EXPECT_EQ(r.current, 115000u);
  EXPECT_EQ(r.downPercent, 90);
  for (int i = 0; i < 300; i++) r.Step(0);
  EXPECT_EQ(r.current, 138000u);  // x 120 %
  // From 0, a report of 10 is a band jump (x 85 %); 10 to 14 stays in band 2;
  // 14 to 15 jumps to band 3.
  r.Step(10);
  EXPECT_EQ(r.current, 117300u);
  EXPECT_EQ(r.upPercent, 110);
  r.Step(14);
  EXPECT_EQ(r.current, 117300u);
  EXPECT_EQ(r.level, 14);
  r.Step(15);
  EXPECT_EQ(r.current, 93840u);   // x 80 %
  r.Step(20);
  EXPECT_EQ(r.current, 70380u);   // x 75 %
  r.Step(25);
  EXPECT_EQ(r.current, 52785u);   // still 75 %
  // A level that falls neither counts nor steps; reports above 100 count as 100.
  r.Step(5);
  EXPECT_EQ(r.current, 52785u);
  EXPECT_EQ(r.count, 0);
  r.Step(200);
  EXPECT_EQ(r.level, 100);
  EXPECT_EQ(r.current, 39588u);
  for (int i = 0; i < 299; i++) r.Step(100);
  EXPECT_EQ(r.current, 39588u);
  r.Step(100);
  EXPECT_EQ(r.current, 29691u);
  for (int i = 0; i < 300 * 15; i++) r.Step(100);
  EXPECT_EQ(r.current, 1000u);  // held at the minimum
}

TEST(AdaptiveBitrateTest, RepeatedCongestionStepsAfterTheThresholdAndALimitCaps) {
  adaptive_bitrate_t r(10);
  r.Load(50000, 1000000);
  for (int i = 0; i < 9; i++) r.Step(3);
  EXPECT_EQ(r.current, 1000000u);
  r.Step(3);  // first report counted from 255: the tenth equal one
  EXPECT_EQ(r.current, 750000u);
  EXPECT_EQ(r.count, 0);
  // A decrease with a limit is capped at downPercent x limit / 100.
  r.Step(50, 200000);
  EXPECT_EQ(r.current, 150000u);
  r.Step(99, 10000);
  EXPECT_EQ(r.current, 50000u);  // the cap is below the minimum
}

class AdaptiveTrackTest : public VideoTrackTest {
 protected:
  void SetUp() override {
    VideoTrackTest::SetUp();
    AddStream({"video1", 320, 180, 30, 0, 400000});
    Stream("video1")["minClientAdaptiveBitRate"] = 100000;
    Stream("video1")["minMotionAdaptiveBitRate"] = 200000;
    AddStream({"video2", 320, 180, 15, 1, 300000});
  }
  void TearDown() override {
    delete MotionDetectionThread::_pMotionDetectionThread;
    MotionDetectionThread::_pMotionDetectionThread = nullptr;
    VideoTrackTest::TearDown();
  }
  uint32_t Target(uint32_t id) { return StreamStatus(id).targetBitrate; }
};

TEST_F(AdaptiveTrackTest, LimitsAreLoadedAtTheConfiguredRate) {
  ASSERT_TRUE(InitializeAndStart());
  const auto& r1 = track_->GetStreamBitrate(0);
  EXPECT_EQ(std::make_tuple(r1.applied, r1.cameraServer.minimum, r1.cameraServer.maximum, r1.cameraServer.current),
            std::make_tuple(400000, 32000u, 400000u, 400000u));
  EXPECT_EQ(std::make_tuple(r1.serverPlayerEnabled, r1.serverPlayer.minimum, r1.motionEnabled, r1.motion.minimum),
            std::make_tuple(true, 100000u, true, 200000u));
  const auto& r2 = track_->GetStreamBitrate(1);
  EXPECT_EQ(std::make_tuple(r2.serverPlayerEnabled, r2.motionEnabled, r2.applied), std::make_tuple(false, false, 300000));
  // All at their maxima: nothing is reprogrammed.
  uint32_t sets = vcam_request_count(IAV_IOC_SET_STREAM_CONFIG);
  track_->AdaptCameraServerBitrate(255);
  track_->AdaptCameraServerBitrate(0);
  track_->AdaptMotion(1000);
  EXPECT_EQ(vcam_request_count(IAV_IOC_SET_STREAM_CONFIG), sets);
  std::string line;
  track_->GetChannelsOSDStats(1, line, 0);
  EXPECT_EQ(line, "400 kbps");
  track_->GetChannelsOSDStats(2, line, 0);
  EXPECT_EQ(line, "CS: [  32 -  400 -  400]; SP: (255)[ 100 -  400 -  400]; M: [ 200 -  400 -  400]; T: 400");
  track_->GetChannelsOSDStats(2, line, 1);
  EXPECT_EQ(line, "CS: [  32 -  300 -  300]; SP: [    not enabled   ]; M: [    not enabled   ]; T: 300");
  track_->GetChannelsOSDStats(0, line, 1);
  EXPECT_EQ(line, "");
  // Initialized again with video2 gone: its slot no longer adapts.
  Stream("video2")["enabled"] = false;
  ASSERT_TRUE(track_->Initialize());
  EXPECT_EQ(track_->GetStreamBitrate(1).cameraServer.maximum, 0u);
  track_->GetChannelsOSDStats(2, line, 1);
  EXPECT_EQ(line, "CS: [    not enabled   ]; SP: [    not enabled   ]; M: [    not enabled   ]; T: 0");
}

TEST_F(AdaptiveTrackTest, CameraServerLevelsLowerEveryStream) {
  ASSERT_TRUE(InitializeAndStart());
  track_->AdaptCameraServerBitrate(20);
  EXPECT_EQ(Target(0), 400000u);
  track_->AdaptCameraServerBitrate(40);  // a band jump: x 75 %
  EXPECT_EQ(track_->GetStreamBitrate(0).applied, 300000);
  EXPECT_EQ(Target(0), 300000u);
  EXPECT_EQ(track_->GetStreamBitrate(1).applied, 225000);
  EXPECT_EQ(Target(1), 450000u);  // 225000 at 15 of 30 frames per second
  // No report: nothing steps.
  for (int i = 0; i < 500; i++) track_->AdaptCameraServerBitrate(255);
  EXPECT_EQ(Target(0), 300000u);
  // The first quiet report only changes the level; 300 more climb back,
  // capped at the maximum.
  for (int i = 0; i < 300; i++) track_->AdaptCameraServerBitrate(0);
  EXPECT_EQ(Target(0), 300000u);
  track_->AdaptCameraServerBitrate(0);
  EXPECT_EQ(Target(0), 345000u);
  for (int i = 0; i < 300; i++) track_->AdaptCameraServerBitrate(0);
  EXPECT_EQ(Target(0), 400000u);
}

TEST_F(AdaptiveTrackTest, ServerPlayerReportsOfOneStream) {
  ASSERT_TRUE(InitializeAndStart());
  // A new player: start at the minimum, climb fast.
  EXPECT_TRUE(track_->AdaptServerPlayerBitrate(4, 0, -8, true));  // slot 4 mod 4 = 0
  const auto& sp = track_->GetStreamBitrate(0).serverPlayer;
  EXPECT_EQ(sp.count, 5);
  EXPECT_EQ(sp.upPercent, 200);
  EXPECT_EQ(Target(0), 100000u);
  EXPECT_EQ(Target(1), 600000u);  // untouched: 300000 at 15 of 30 frames per second
  for (int i = 0; i < 4; i++) track_->AdaptServerPlayerBitrate(0, 0, -8, false);
  EXPECT_EQ(Target(0), 100000u);
  track_->AdaptServerPlayerBitrate(0, 0, -8, false);  // count 5 + 5 reaches 10: x 200 %
  EXPECT_EQ(Target(0), 200000u);
  // Congestion with a reported rate of 150000: x 85 %, capped at 85 % of it.
  track_->AdaptServerPlayerBitrate(0, 30, 150000, false);
  EXPECT_EQ(Target(0), 127500u);
  // No usable report: back to the maximum.
  track_->AdaptServerPlayerBitrate(0, -1, -8, false);
  EXPECT_EQ(Target(0), 400000u);
  // A stream without server-player adaptation ignores reports.
  uint32_t sets = vcam_request_count(IAV_IOC_SET_STREAM_CONFIG);
  EXPECT_TRUE(track_->AdaptServerPlayerBitrate(1, 0, -8, true));
  EXPECT_EQ(vcam_request_count(IAV_IOC_SET_STREAM_CONFIG), sets);
}

TEST_F(AdaptiveTrackTest, MotionMapsTheCoefficientBetweenTheLimits) {
  MakeTrack();
  Stream("video1")["bitRateVbrMax"] = 3000u;
  Stream("video1")["validBitrateRangeMin"] = 1000u;
  Stream("video1")["minMotionAdaptiveBitRate"] = 1000;
  Stream("video1")["minClientAdaptiveBitRate"] = 0;
  ASSERT_TRUE(track_->Initialize() && track_->StartEncoding());
  MotionDetectionThread* motion = new MotionDetectionThread();  // not started: fed by hand
  MotionDetectionThread::_pMotionDetectionThread = motion;
  for (int i = 0; i < 45; i++) motion->ComputeCoefficient(0);
  ASSERT_EQ(motion->Coefficient(), 64);
  track_->AdaptMotion(1000);
  EXPECT_EQ(track_->GetStreamBitrate(0).motion.current, 2000u);
  EXPECT_EQ(Target(0), 2000u);
  // The next step comes 300 ms later.
  for (int i = 0; i < 45; i++) motion->ComputeCoefficient(0);
  ASSERT_EQ(motion->Coefficient(), 0);
  track_->AdaptMotion(1299);
  EXPECT_EQ(Target(0), 2000u);
  track_->AdaptMotion(1300);
  EXPECT_EQ(Target(0), 1000u);
  motion->ComputeCoefficient(128);
  track_->AdaptMotion(1600);
  EXPECT_EQ(Target(0), 3000u);
  // Without the thread the coefficient counts as full motion.
  MotionDetectionThread::_pMotionDetectionThread = nullptr;
  delete motion;
  EXPECT_EQ(MotionDetectionThread::GetCoefficient(), 128);
}

TEST_F(AdaptiveTrackTest, AFailedChangeIsLoggedAndNotRetried) {
  ASSERT_TRUE(InitializeAndStart());
  vcam_fault_request(IAV_IOC_SET_STREAM_CONFIG, EIO, 1);
  track_->AdaptCameraServerBitrate(20);
  track_->AdaptCameraServerBitrate(40);
  EXPECT_TRUE(log_.Has("Unable to setup bitrate"));
  EXPECT_EQ(track_->GetStreamBitrate(0).applied, 300000);
  EXPECT_EQ(Target(0), 400000u);
  uint32_t sets = vcam_request_count(IAV_IOC_SET_STREAM_CONFIG);
  track_->AdaptCameraServerBitrate(255);
  EXPECT_EQ(vcam_request_count(IAV_IOC_SET_STREAM_CONFIG), sets);
}

TEST_F(AdaptiveTrackTest, TheProducedBitRateFollowsTheAppliedOne) {
  Stream("video2")["enabled"] = false;
  Stream("video1")["width"] = 640u;
  Stream("video1")["height"] = 360u;
  Stream("video1")["bitRateVbrMax"] = 1200000u;
  ASSERT_TRUE(InitializeAndStart());
  vcam_set_scene(VCAM_SCENE_BUSY);
  vcam_advance_ms(1000);
  uint64_t start = StreamStatus(0).bytes;
  vcam_advance_ms(2000);
  double high = (double)(StreamStatus(0).bytes - start) * 8 / 2;
  track_->AdaptServerPlayerBitrate(0, 0, -8, true);  // down to 100000
  ASSERT_EQ(Target(0), 100000u);
  vcam_advance_ms(1000);
  start = StreamStatus(0).bytes;
  vcam_advance_ms(2000);
  double low = (double)(StreamStatus(0).bytes - start) * 8 / 2;
  EXPECT_NEAR(high, 1200000.0, 400000.0);
  EXPECT_NEAR(low, 100000.0, 50000.0);
}

}  // namespace
}  // namespace test
}  // namespace vesk

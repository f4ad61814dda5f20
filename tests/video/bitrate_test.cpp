// The adaptive bit rate: the step rule, camera-server, server-player and
// motion pressure, and what the virtual camera is programmed with and produces.
#include <iterator>
#include <tuple>
#include <utility>
#include <vector>

#include "motiondetectionthread.h"
#include "vesk/device/iav.h"
#include "video_fixture.h"

namespace vesk {
namespace test {
namespace {

using encoder::internal::adaptive_bitrate_t;
using encoder::internal::MotionDetectionThread;

struct step_t {
  int level;
  int times;
  uint32_t current;  // after the steps
  uint32_t limit;
};

TEST(AdaptiveBitrateTest, StepsFollowTheLevelsThresholdsAndBands) {
  // Threshold 300: 5-percent ramps after 300 quiet reports; band jumps cut at
  // once (x 85 % into band 2, 80 % into band 3, 75 % above); a falling level
  // neither counts nor steps; reports above 100 count as 100; the minimum holds.
  const step_t slow[] = {{0, 299, 100000, 0}, {0, 1, 115000, 0},  {0, 300, 138000, 0},  {10, 1, 117300, 0},
                         {14, 1, 117300, 0},  {15, 1, 93840, 0},  {20, 1, 70380, 0},    {25, 1, 52785, 0},
                         {5, 1, 52785, 0},    {200, 1, 39588, 0}, {100, 299, 39588, 0}, {100, 1, 29691, 0},
                         {100, 300 * 15, 1000, 0}};
  // Threshold 10, counted from 255; a decrease with a limit is capped at
  // downPercent x limit / 100, never below the minimum.
  const step_t fast[] = {{3, 9, 1000000, 0}, {3, 1, 750000, 0}, {50, 1, 150000, 200000}, {99, 1, 50000, 10000}};
  struct run_t {
    int threshold;
    uint32_t minimum, start;
    std::vector<step_t> steps;
  };
  for (const run_t& run : {run_t{300, 1000, 100000, {std::begin(slow), std::end(slow)}},
                           run_t{10, 50000, 1000000, {std::begin(fast), std::end(fast)}}}) {
    adaptive_bitrate_t r(run.threshold);
    r.Load(run.minimum, 1000000);
    r.current = run.start;
    for (size_t i = 0; i < run.steps.size(); i++) {
      const step_t& step = run.steps[i];
      for (int k = 0; k < step.times; k++) r.Step((uint8_t)step.level, step.limit ? (int)step.limit : -1);
      EXPECT_EQ(r.current, step.current) << run.threshold << " step " << i;
    }
  }
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
  // All at their maxima: nothing is reprogrammed.
  uint32_t sets = vcam_request_count(IAV_IOC_SET_STREAM_CONFIG);
  track_->AdaptCameraServerBitrate(255);
  track_->AdaptCameraServerBitrate(0);
  track_->AdaptMotion(1000);
  EXPECT_EQ(vcam_request_count(IAV_IOC_SET_STREAM_CONFIG), sets);
  auto osd = [this](int kind, int slot) {
    std::string line;
    track_->GetChannelsOSDStats(kind, line, slot);
    return line;
  };
  // The limits as loaded: minimum, current and maximum of each adaptation.
  EXPECT_EQ(std::make_tuple(osd(1, 0), osd(0, 1)), std::make_tuple(std::string("400 kbps"), std::string()));
  EXPECT_EQ(osd(2, 0), "CS: [  32 -  400 -  400]; SP: (255)[ 100 -  400 -  400]; M: [ 200 -  400 -  400]; T: 400");
  EXPECT_EQ(osd(2, 1), "CS: [  32 -  300 -  300]; SP: [    not enabled   ]; M: [    not enabled   ]; T: 300");
  // Initialized again with video2 gone: its slot no longer adapts.
  Stream("video2")["enabled"] = false;
  ASSERT_TRUE(track_->Initialize());
  EXPECT_EQ(osd(2, 1), "CS: [    not enabled   ]; SP: [    not enabled   ]; M: [    not enabled   ]; T: 0");
}

TEST_F(AdaptiveTrackTest, CameraServerLevelsLowerEveryStream) {
  ASSERT_TRUE(InitializeAndStart());
  // {level, reports, video1's target after them}: 40 is a band jump (x 75 %);
  // no report (255) steps nothing; the first quiet report only changes the
  // level, 300 more climb back 15 %, capped at the maximum.
  const std::tuple<int, int, uint32_t> steps[] = {{20, 1, 400000}, {40, 1, 300000},  {255, 500, 300000},
                                                  {0, 300, 300000}, {0, 1, 345000}, {0, 300, 400000}};
  for (const auto& step : steps) {
    for (int i = 0; i < std::get<1>(step); i++) track_->AdaptCameraServerBitrate(std::get<0>(step));
    EXPECT_EQ(Target(0), std::get<2>(step)) << std::get<0>(step);
    // video2 follows: 225000 applied is 450000 at 15 of 30 frames per second.
    if (std::get<0>(step) == 40) { EXPECT_EQ(std::make_tuple(track_->GetStreamBitrate(1).applied, Target(1)), std::make_tuple(225000, 450000u)); }
  }
}

TEST_F(AdaptiveTrackTest, ServerPlayerReportsOfOneStream) {
  ASSERT_TRUE(InitializeAndStart());
  // {slot, level, reported rate, new player, reports, video1's target}: a new
  // player starts at the minimum and climbs fast (count 5 + 5 reaches 10: x 200 %);
  // congestion with a reported rate is capped at 85 % of it; no usable
  // report: back to the maximum. Slot 4 is slot 0.
  const std::tuple<unsigned, int, int, bool, int, uint32_t> steps[] = {
      {4, 0, -8, true, 1, 100000},       {0, 0, -8, false, 4, 100000}, {0, 0, -8, false, 1, 200000},
      {0, 30, 150000, false, 1, 127500}, {0, -1, -8, false, 1, 400000}};
  for (const auto& s : steps) {
    for (int i = 0; i < std::get<4>(s); i++)
      EXPECT_TRUE(track_->AdaptServerPlayerBitrate(std::get<0>(s), std::get<1>(s), std::get<2>(s), std::get<3>(s)));
    EXPECT_EQ(std::make_tuple(Target(0), Target(1)), std::make_tuple(std::get<5>(s), 600000u)) << std::get<5>(s);
  }
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
  EXPECT_EQ(Target(0), 2000u);
  // The next step comes 300 ms later.
  for (int i = 0; i < 45; i++) motion->ComputeCoefficient(0);
  ASSERT_EQ(motion->Coefficient(), 0);
  std::vector<uint32_t> targets;
  for (int at : {1299, 1300, 1600}) {
    if (at == 1600) motion->ComputeCoefficient(128);
    track_->AdaptMotion(at);
    targets.push_back(Target(0));
  }
  EXPECT_EQ(targets, std::vector<uint32_t>({2000, 1000, 3000}));
}

TEST_F(AdaptiveTrackTest, AFailedChangeIsLoggedAndNotRetried) {
  ASSERT_TRUE(InitializeAndStart());
  vcam_fault_request(IAV_IOC_SET_STREAM_CONFIG, EIO, 1);
  track_->AdaptCameraServerBitrate(20);
  track_->AdaptCameraServerBitrate(40);
  EXPECT_TRUE(log_.Has("Unable to setup bitrate"));
  EXPECT_EQ(std::make_tuple(track_->GetStreamBitrate(0).applied, Target(0)), std::make_tuple(300000, 400000u));
  uint32_t sets = vcam_request_count(IAV_IOC_SET_STREAM_CONFIG);
  track_->AdaptCameraServerBitrate(255);
  EXPECT_EQ(vcam_request_count(IAV_IOC_SET_STREAM_CONFIG), sets);
}

// video2 runs at half the VIN rate and is programmed twice its rate: it still
// produces its own rate.
TEST_F(AdaptiveTrackTest, TheProducedBitRateFollowsTheAppliedOne) {
  Stream("video1")["width"] = 640u;
  Stream("video1")["height"] = 360u;
  Stream("video1")["bitRateVbrMax"] = 1200000u;
  ASSERT_TRUE(InitializeAndStart());
  vcam_set_scene(VCAM_SCENE_BUSY);
  // Bits per second of each stream over 2 s, after 1 s to settle.
  auto produced = [this] {
    vcam_advance_ms(1000);
    uint64_t start[2] = {StreamStatus(0).bytes, StreamStatus(1).bytes};
    vcam_advance_ms(2000);
    return std::make_pair((double)(StreamStatus(0).bytes - start[0]) * 8 / 2, (double)(StreamStatus(1).bytes - start[1]) * 8 / 2);
  };
  std::pair<double, double> rates = produced();
  EXPECT_NEAR(rates.first, 1200000.0, 400000.0);
  EXPECT_NEAR(rates.second, 300000.0, 120000.0);
  track_->AdaptServerPlayerBitrate(0, 0, -8, true);  // down to 100000
  EXPECT_NEAR(produced().first, 100000.0, 50000.0);
}

}  // namespace
}  // namespace test
}  // namespace vesk

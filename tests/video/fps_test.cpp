// The frame-rate matrix, ComputeFPS and the starting-QP table.
#include <gtest/gtest.h>

#include "fps.h"
#include "trackencodervideos2lcommon.h"
#include "video_fixture.h"

namespace vesk {
namespace test {
namespace {

using encoder::internal::fps_matrix_t;
using encoder::internal::fps_t;
using encoder::internal::LookupTargetQP;

TEST(FpsMatrixTest, HoldsOnlyRatesDividing90kHzWithBothPeriods) {
  fps_matrix_t matrix;
  // 30: truncated 17066666 and rounded 17066667, both indexed by period.
  ASSERT_NE(matrix.ByPeriod(17066666), nullptr);
  ASSERT_NE(matrix.ByPeriod(17066667), nullptr);
  EXPECT_EQ(matrix.ByPeriod(17066666)->rate, 30u);
  EXPECT_FALSE(matrix.ByPeriod(17066666)->rounded);
  EXPECT_TRUE(matrix.ByPeriod(17066667)->rounded);
  EXPECT_EQ(matrix.ByRate(30, false)->period, 17066666u);
  EXPECT_EQ(matrix.ByRate(15, true)->period, 34133333u);
  // A rate whose period is exact has one entry under both keys.
  EXPECT_EQ(matrix.ByRate(25, true), matrix.ByRate(25, false));
  EXPECT_EQ(matrix.ByRate(25, true)->period, 20480000u);
  EXPECT_EQ(matrix.ByRate(0, true), nullptr);
  for (uint32_t rate = 1; rate <= 501; rate++)
    EXPECT_EQ(matrix.ByRate(rate, true) != nullptr, rate <= 500 && 90000 % rate == 0) << rate;
  EXPECT_EQ(matrix.ByPeriod(17066668), nullptr);
}

TEST_F(VideoTrackTest, ComputeFpsTakesTheLargestDivisorAndWarns) {
  TrackEncoderVideoS2L& track = MakeTrack();
  EXPECT_EQ(track.ComputeFPS(30, 30, 90000), 30u);
  EXPECT_TRUE(log_.Lines().empty());
  EXPECT_EQ(track.ComputeFPS(7, 30, 90000), 6u);
  EXPECT_TRUE(log_.Has("FPS value corrected. Max FPS: 30; Wanted FPS: 7; Correct FPS: 6"));
  EXPECT_EQ(track.ComputeFPS(60, 30, 90000), 30u);
  EXPECT_TRUE(log_.Has("FPS value corrected. Max FPS: 30; Wanted FPS: 60; Correct FPS: 30"));
  EXPECT_EQ(track.ComputeFPS(0, 30, 90000), 1u);
  EXPECT_EQ(track.ComputeFPS(30, 0, 90000), 1u);
  EXPECT_EQ(track.ComputeFPS(255, 120, 90000), 120u);
  EXPECT_EQ(track.ComputeFPS(29, 60, 90000), 25u);
}

TEST(TargetQpTest, RowByBitRateColumnByNearestPixelCount) {
  EXPECT_EQ(LookupTargetQP(900000, 1280 * 720), 23);     // row 3, column 3
  EXPECT_EQ(LookupTargetQP(900000, 1000 * 1000), 23);    // nearest is 921600
  EXPECT_EQ(LookupTargetQP(100, 1920 * 1080), 31);
  EXPECT_EQ(LookupTargetQP(256000, 1920 * 1080), 30);    // a bound is not "greater than"
  EXPECT_EQ(LookupTargetQP(5000000, 352 * 240), 1);
  EXPECT_EQ(LookupTargetQP(5000000, 352 * 288), 5);
  EXPECT_EQ(LookupTargetQP(4000000000u, 640 * 480), 1);
  EXPECT_EQ(LookupTargetQP(1999999, 1), 10);             // the smallest column
  EXPECT_EQ(LookupTargetQP(2000000, 1), 8);
}

}  // namespace
}  // namespace test
}  // namespace vesk

// The frame-rate matrix, ComputeFPS and the starting-QP table.
#include <gtest/gtest.h>

#include <tuple>

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
  const fps_t* truncated = matrix.ByPeriod(17066666);
  const fps_t* rounded = matrix.ByPeriod(17066667);
  ASSERT_TRUE(truncated && rounded);
  EXPECT_EQ(std::make_tuple(truncated->rate, truncated->rounded, rounded->rate, rounded->rounded), std::make_tuple(30u, false, 30u, true));
  EXPECT_EQ(std::make_tuple(matrix.ByRate(30, false)->period, matrix.ByRate(15, true)->period), std::make_tuple(17066666u, 34133333u));
  // A rate whose period is exact has one entry under both keys.
  EXPECT_EQ(matrix.ByRate(25, true), matrix.ByRate(25, false));
  EXPECT_EQ(matrix.ByRate(25, true)->period, 20480000u);
  for (uint32_t rate = 0; rate <= 501; rate++)
    EXPECT_EQ(matrix.ByRate(rate, true) != nullptr, rate > 0 && rate <= 500 && 90000 % rate == 0) << rate;
  EXPECT_EQ(matrix.ByPeriod(17066668), nullptr);
}

TEST_F(VideoTrackTest, ComputeFpsTakesTheLargestDivisorAndWarns) {
  TrackEncoderVideoS2L& track = MakeTrack();
  const std::tuple<uint32_t, uint32_t, uint32_t> cases[] = {{30, 30, 30}, {7, 30, 6},    {60, 30, 30}, {0, 30, 1},
                                                            {30, 0, 1},   {255, 120, 120}, {29, 60, 25}};
  for (const auto& c : cases)
    EXPECT_EQ(track.ComputeFPS(std::get<0>(c), std::get<1>(c), 90000), std::get<2>(c)) << std::get<0>(c) << "/" << std::get<1>(c);
  EXPECT_FALSE(log_.Contains("Wanted FPS: 30; Correct FPS: 30"));  // a rate in the matrix is taken silently
  EXPECT_TRUE(log_.Has("FPS value corrected. Max FPS: 30; Wanted FPS: 60; Correct FPS: 30"));
}

TEST(TargetQpTest, RowByBitRateColumnByNearestPixelCount) {
  // Row by bit rate (a bound is not "greater than"), column by the nearest
  // pixel count (1000x1000 is nearest 1280x720; 1 the smallest column).
  const std::tuple<uint32_t, uint32_t, int> cases[] = {
      {900000, 1280 * 720, 23}, {900000, 1000 * 1000, 23}, {100, 1920 * 1080, 31}, {256000, 1920 * 1080, 30},
      {5000000, 352 * 240, 1},  {5000000, 352 * 288, 5},   {4000000000u, 640 * 480, 1}, {1999999, 1, 10},
      {2000000, 1, 8}};
  for (const auto& c : cases) EXPECT_EQ(LookupTargetQP(std::get<0>(c), std::get<1>(c)), std::get<2>(c)) << std::get<0>(c) << " " << std::get<1>(c);
}

}  // namespace
}  // namespace test
}  // namespace vesk

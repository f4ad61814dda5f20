// Motion detection: the changed-cell count (vector path against the plain
// loop), the level table, the coefficient's fast rise and slow fall, and the
// "motion_detect" thread on the virtual camera's statistics planes.
#include <unistd.h>

#include <random>
#include <tuple>
#include <utility>
#include <vector>

#include "motiondetectionthread.h"
#include "vesk/device/iav.h"
#include "video_fixture.h"

namespace vesk {
namespace test {
namespace {

using encoder::internal::CountChangedCells;
using encoder::internal::CountChangedCellsPlain;
using encoder::internal::MotionDetectionThread;
using encoder::internal::MotionLevel;

TEST(MotionCountTest, VectorPathCountsAsThePlainLoop) {
  std::mt19937 random(7);
  const int deltas[] = {0, 1, 4, 5, 6, -4, -5, -6, 255, -255, 128};
  for (uint32_t width = 1; width <= 100; width += 3) {
    for (uint32_t extra : {0u, 5u, 32u}) {
      uint32_t height = 1 + width % 7;
      uint32_t pitch = width + extra;
      std::vector<uint8_t> a(pitch * height), b(pitch * height);
      for (size_t i = 0; i < a.size(); i++) {
        a[i] = (uint8_t)random();
        int v = a[i] + deltas[random() % 11];
        b[i] = (uint8_t)(v < 0 ? 0 : v > 255 ? 255 : v);
      }
      uint32_t plain = CountChangedCellsPlain(a.data(), b.data(), width, height, pitch);
      EXPECT_EQ(CountChangedCells(a.data(), b.data(), width, height, pitch), plain) << width << " " << pitch;
      // Padding beyond the width never counts.
      for (uint32_t y = 0; y < height; y++)
        for (uint32_t x = width; x < pitch; x++) b[y * pitch + x] = (uint8_t)(a[y * pitch + x] + 100);
      EXPECT_EQ(CountChangedCells(a.data(), b.data(), width, height, pitch), plain);
    }
  }
  // A long row: more than 255 vector steps in one row, all changed by 5, none by 4.
  const uint32_t n = 16 * 300 + 3;
  std::vector<uint8_t> a(n, 10), five(n, 15), four(n, 14);
  EXPECT_EQ(std::make_tuple(CountChangedCells(a.data(), five.data(), n, 1, n), CountChangedCells(a.data(), four.data(), n, 1, n)),
            std::make_tuple(n, 0u));
}

TEST(MotionCountTest, LevelsFollowTheShareOfChangedCells) {
  const uint32_t n = 240 * 135;  // 32400 cells
  const std::pair<uint32_t, int> table[] = {{0, 0},           {n / 1024 - 1, 0}, {n / 1024, 25}, {n / 256, 51},
                                             {n / 64, 76},     {n / 16 - 1, 76},  {n / 16, 102},  {n / 4, 128}, {n, 128}};
  for (const auto& row : table) EXPECT_EQ(MotionLevel(row.first, n), row.second) << row.first;
}

// The fall along the 90-sample average and the jump to 128 are shown on the
// camera below; here the fall held by a high level once.
TEST(MotionCoefficientTest, AHighLevelHoldsTheFallOnce) {
  MotionDetectionThread motion;  // not started
  for (int i = 0; i < 90; i++) motion.ComputeCoefficient(0);
  std::vector<int> coefficients;
  for (int level : {128, 51, 51, 25}) {
    motion.ComputeCoefficient(level);
    coefficients.push_back(motion.Coefficient());
  }
  EXPECT_EQ(coefficients, std::vector<int>({128, 128, 51, 51}));
}

class MotionThreadTest : public VideoTrackTest {
 protected:
  void TearDown() override {
    MotionDetectionThread::Free();
    VideoTrackTest::TearDown();
  }
  template <typename Done>
  static bool Wait(Done done) {
    for (int i = 0; i < 5000 && !done(); i++) usleep(1000);
    return done();
  }
  // One VIN frame at 30 frames per second, compared by the thread as its cycle `cycles`.
  void NextFrame(uint64_t cycles) {
    vcam_advance_us(33334);
    ASSERT_TRUE(Wait([&] { return MotionDetectionThread::_pMotionDetectionThread->Cycles() >= cycles; }));
  }
};

TEST_F(MotionThreadTest, CoefficientFallsWhenTheSceneStopsAndJumpsWhenItMoves) {
  AddStream({"video1", 320, 180, 30, 0, 300000});
  ASSERT_TRUE(MakeTrack().Initialize());
  vcam_set_scene(VCAM_SCENE_STILL);
  vcam_advance_ms(40);
  ASSERT_EQ(MotionDetectionThread::Init(), 0);
  MotionDetectionThread* motion = MotionDetectionThread::_pMotionDetectionThread;
  ASSERT_EQ(MotionDetectionThread::Init(), 0);  // one singleton only
  ASSERT_TRUE(motion != nullptr && MotionDetectionThread::_pMotionDetectionThread == motion);
  // The thread's lines carry its name.
  ASSERT_TRUE(Wait([&] {
    for (const std::string& m : log_.Messages())
      if (m.rfind("motion_detect(", 0) == 0 && m.find("Motion detection will work on: 240x135 resolution") != m.npos) return true;
    return false;
  }));
  EXPECT_EQ(motion->Coefficient(), 128);
  ASSERT_NO_FATAL_FAILURE(NextFrame(1));
  EXPECT_EQ(MotionDetectionThread::GetCoefficient(), 126);
  for (uint64_t c = 2; c <= 90; c++) ASSERT_NO_FATAL_FAILURE(NextFrame(c));
  EXPECT_EQ(motion->Coefficient(), 0);
  vcam_set_scene(VCAM_SCENE_BUSY);
  ASSERT_NO_FATAL_FAILURE(NextFrame(91));
  EXPECT_EQ(motion->Coefficient(), 128);
  // A moving box: some motion, less than the whole picture.
  vcam_set_scene(VCAM_SCENE_MOVING);
  for (uint64_t c = 92; c <= 100; c++) ASSERT_NO_FATAL_FAILURE(NextFrame(c));
  EXPECT_TRUE(motion->Coefficient() > 0 && motion->Coefficient() < 128) << motion->Coefficient();
  MotionDetectionThread::Free();
  EXPECT_EQ(MotionDetectionThread::GetCoefficient(), 128);  // no thread: full motion
}

TEST_F(MotionThreadTest, SetUpFailuresEndTheThreadAndKeepTheSingleton) {
  const std::pair<unsigned long, const char*> cases[] = {{VCAM_OP_OPEN_IAV, "Opening IAV failed"},
                             {IAV_IOC_QUERY_BUF, "ioctl(...,IAV_IOC_QUERY_BUF,...) failed"},
                             {VCAM_OP_MMAP, "mmap failed"},
                             {IAV_IOC_QUERY_DESC, "ioctl(...,IAV_IOC_QUERY_DESC,...) failed"}};
  for (const auto& c : cases) {
    SCOPED_TRACE(c.second);
    log_.Clear();
    vcam_fault_request(c.first, EIO, 1);
    ASSERT_EQ(MotionDetectionThread::Init(), 0);
    MotionDetectionThread* motion = MotionDetectionThread::_pMotionDetectionThread;
    EXPECT_TRUE(Wait([&] { return motion->Finished(); }));
    EXPECT_TRUE(log_.Contains(std::string(") - ") + c.second));
    EXPECT_EQ(MotionDetectionThread::GetCoefficient(), 128);
    MotionDetectionThread::Free();
  }
}

}  // namespace
}  // namespace test
}  // namespace vesk

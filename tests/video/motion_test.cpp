// Motion detection: the changed-cell count (vector path against the plain
// loop), the level table, the coefficient's fast rise and slow fall, and the
// "motion_detect" thread on the virtual camera's statistics planes.
#include <unistd.h>

#include <random>
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
  // A long row: more than 255 vector steps in one row.
  std::vector<uint8_t> a(16 * 300 + 3, 10), b(16 * 300 + 3, 15);
  EXPECT_EQ(CountChangedCells(a.data(), b.data(), (uint32_t)a.size(), 1, (uint32_t)a.size()), a.size());
  b.assign(b.size(), 14);
  EXPECT_EQ(CountChangedCells(a.data(), b.data(), (uint32_t)a.size(), 1, (uint32_t)a.size()), 0u);
}

TEST(MotionCountTest, LevelsFollowTheShareOfChangedCells) {
  const uint32_t n = 240 * 135;  // 32400 cells
  EXPECT_EQ(MotionLevel(0, n), 0);
  EXPECT_EQ(MotionLevel(n / 1024 - 1, n), 0);
  EXPECT_EQ(MotionLevel(n / 1024, n), 25);
  EXPECT_EQ(MotionLevel(n / 256, n), 51);
  EXPECT_EQ(MotionLevel(n / 64, n), 76);
  EXPECT_EQ(MotionLevel(n / 16 - 1, n), 76);
  EXPECT_EQ(MotionLevel(n / 16, n), 102);
  EXPECT_EQ(MotionLevel(n / 4, n), 128);
  EXPECT_EQ(MotionLevel(n, n), 128);
  // Planes: none changed, all changed, exactly N/16 changed.
  std::vector<uint8_t> a(n, 100), b(n, 100);
  EXPECT_EQ(MotionLevel(CountChangedCells(a.data(), b.data(), 240, 135, 240), n), 0);
  for (uint32_t i = 0; i < n / 16; i++) b[i * 16] = 200;
  EXPECT_EQ(MotionLevel(CountChangedCells(a.data(), b.data(), 240, 135, 240), n), 102);
  b.assign(n, 0);
  EXPECT_EQ(MotionLevel(CountChangedCells(a.data(), b.data(), 240, 135, 240), n), 128);
}

TEST(MotionCoefficientTest, RisesAtOnceAndFallsAlongTheAverage) {
  MotionDetectionThread motion;  // not started
  EXPECT_EQ(motion.Coefficient(), 128);
  motion.ComputeCoefficient(0);
  EXPECT_EQ(motion.Coefficient(), 126);  // 89 x 128 / 90
  for (int i = 1; i < 89; i++) motion.ComputeCoefficient(0);
  EXPECT_EQ(motion.Coefficient(), 1);
  motion.ComputeCoefficient(0);
  EXPECT_EQ(motion.Coefficient(), 0);
  motion.ComputeCoefficient(128);
  EXPECT_EQ(motion.Coefficient(), 128);
  // After a high level the fall is held by that level once.
  motion.ComputeCoefficient(51);
  EXPECT_EQ(motion.Coefficient(), 128);
  motion.ComputeCoefficient(51);
  EXPECT_EQ(motion.Coefficient(), 51);
  motion.ComputeCoefficient(25);
  EXPECT_EQ(motion.Coefficient(), 51);
}

class MotionThreadTest : public VideoTrackTest {
 protected:
  void TearDown() override {
    MotionDetectionThread::Free();
    VideoTrackTest::TearDown();
  }
  // Waits (bounded) until the thread has compared `cycles` planes.
  static bool WaitCycles(uint64_t cycles) {
    for (int i = 0; i < 5000; i++) {
      if (MotionDetectionThread::_pMotionDetectionThread->Cycles() >= cycles) return true;
      usleep(1000);
    }
    return false;
  }
  bool WaitLine(const std::string& text) {
    for (int i = 0; i < 5000; i++) {
      if (log_.Contains(text)) return true;
      usleep(1000);
    }
    return false;
  }
  // One VIN frame at 30 frames per second.
  void NextFrame(uint64_t cycles) {
    vcam_advance_us(33334);
    ASSERT_TRUE(WaitCycles(cycles));
  }
};

TEST_F(MotionThreadTest, CoefficientFallsWhenTheSceneStopsAndJumpsWhenItMoves) {
  AddStream({"video1", 320, 180, 30, 0, 300000});
  ASSERT_TRUE(MakeTrack().Initialize());
  vcam_set_scene(VCAM_SCENE_STILL);
  vcam_advance_ms(40);
  ASSERT_EQ(MotionDetectionThread::Init(), 0);
  MotionDetectionThread* motion = MotionDetectionThread::_pMotionDetectionThread;
  ASSERT_NE(motion, nullptr);
  ASSERT_EQ(MotionDetectionThread::Init(), 0);  // one singleton only
  EXPECT_EQ(MotionDetectionThread::_pMotionDetectionThread, motion);
  ASSERT_TRUE(WaitLine("Motion detection will work on: 240x135 resolution"));
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
  EXPECT_LT(motion->Coefficient(), 128);
  EXPECT_GT(motion->Coefficient(), 0);
  bool prefixed = false;
  for (const captured_line_t& line : log_.Lines())
    if (line.message.find("motion_detect(") == 0 && line.message.find("Motion detection will work on") != std::string::npos)
      prefixed = true;
  EXPECT_TRUE(prefixed);
  MotionDetectionThread::Free();
  EXPECT_EQ(MotionDetectionThread::_pMotionDetectionThread, nullptr);
  EXPECT_EQ(MotionDetectionThread::GetCoefficient(), 128);
}

TEST_F(MotionThreadTest, SetUpFailuresEndTheThreadAndKeepTheSingleton) {
  struct failure_t {
    unsigned long request;
    const char* line;
  };
  const failure_t cases[] = {{VCAM_OP_OPEN_IAV, "Opening IAV failed"},
                             {IAV_IOC_QUERY_BUF, "ioctl(...,IAV_IOC_QUERY_BUF,...) failed"},
                             {VCAM_OP_MMAP, "mmap failed"},
                             {IAV_IOC_QUERY_DESC, "ioctl(...,IAV_IOC_QUERY_DESC,...) failed"}};
  for (const failure_t& c : cases) {
    SCOPED_TRACE(c.line);
    log_.Clear();
    vcam_fault_request(c.request, EIO, 1);
    ASSERT_EQ(MotionDetectionThread::Init(), 0);
    MotionDetectionThread* motion = MotionDetectionThread::_pMotionDetectionThread;
    for (int i = 0; i < 5000 && !motion->Finished(); i++) usleep(1000);
    EXPECT_TRUE(motion->Finished());
    EXPECT_TRUE(log_.Contains(std::string(") - ") + c.line));
    EXPECT_EQ(MotionDetectionThread::GetCoefficient(), 128);
    MotionDetectionThread::Free();
  }
}

}  // namespace
}  // namespace test
}  // namespace vesk

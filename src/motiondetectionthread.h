// The process-wide motion detection thread "motion_detect": compares each
// motion statistics plane (ME0) of the video DSP with the previous one and
// publishes a smoothed motion coefficient, 0 (still) to 128 (full motion).
#pragma once

#include <pthread.h>

#include <atomic>
#include <cstdint>

#include "motioncells.h"
#include "vesk/utils/movingaverage.h"

namespace vesk {
namespace encoder {
namespace internal {

class MotionDetectionThread {
 public:
  MotionDetectionThread();
  virtual ~MotionDetectionThread();
  MotionDetectionThread(const MotionDetectionThread&) = delete;
  MotionDetectionThread& operator=(const MotionDetectionThread&) = delete;

  // Starts the singleton when none runs: 0, or the error of Start.
  static int Init();
  // Stops and deletes the singleton, if any.
  static void Free();
  // The singleton's coefficient; 128 (full motion) when none runs.
  static uint8_t GetCoefficient();

  // 0, or -1 after "pthread_create failed".
  int Start();
  // Requests the stop and joins (bounded by one statistics frame).
  int Stop();
  static void* ThreadWorker(void* self);

  // Fast rise, slow fall along the 90-sample moving average of the levels.
  void ComputeCoefficient(unsigned char level);
  uint8_t Coefficient() const { return coefficient_.load(std::memory_order_relaxed); }
  // Statistics planes compared so far (diagnostics and tests).
  uint64_t Cycles() const { return cycles_.load(std::memory_order_acquire); }
  // True once the worker has left its loop (set-up failure or stop).
  bool Finished() const { return finished_.load(std::memory_order_acquire); }

  static MotionDetectionThread* _pMotionDetectionThread;
  static const uint32_t ME0_SCALE = 2;

 private:
  void Work();
  void Loop(int fd, const uint8_t* base, uint32_t offset, uint32_t width, uint32_t height,
            uint32_t pitch, uint32_t sequence);

  std::atomic<uint8_t> coefficient_;
  std::atomic<bool> mustExit_;
  pthread_t thread_;
  bool started_;
  uint8_t lastLevel_;
  vesk::utils::MovingAverage<unsigned char> average_;
  std::atomic<uint64_t> cycles_;
  std::atomic<bool> finished_;
};

}  // namespace internal
}  // namespace encoder
}  // namespace vesk

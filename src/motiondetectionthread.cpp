#include "motiondetectionthread.h"

#include <errno.h>
#include <sys/prctl.h>

#include "vlog.h"

namespace vesk {
namespace encoder {
namespace internal {

namespace {
constexpr uint32_t kAverageWindow = 90;
constexpr uint8_t kFullMotion = 128;
}  // namespace

MotionDetectionThread* MotionDetectionThread::_pMotionDetectionThread = nullptr;

MotionDetectionThread::MotionDetectionThread()
    : coefficient_(kFullMotion),
      mustExit_(false),
      thread_(),
      started_(false),
      lastLevel_(0),
      average_(kAverageWindow),
      cycles_(0),
      finished_(false) {
  for (uint32_t i = 0; i < kAverageWindow; i++) average_.Push(kFullMotion);
}

MotionDetectionThread::~MotionDetectionThread() { Stop(); }

int MotionDetectionThread::Init() {
  if (_pMotionDetectionThread != nullptr) return 0;
  MotionDetectionThread* thread = new MotionDetectionThread();
  int result = thread->Start();
  if (result != 0) {
    delete thread;
    return result;
  }
  _pMotionDetectionThread = thread;
  return 0;
}

void MotionDetectionThread::Free() {
  if (_pMotionDetectionThread == nullptr) return;
  _pMotionDetectionThread->Stop();
  delete _pMotionDetectionThread;
  _pMotionDetectionThread = nullptr;
}

uint8_t MotionDetectionThread::GetCoefficient() {
  MotionDetectionThread* thread = _pMotionDetectionThread;
  return thread != nullptr ? thread->Coefficient() : kFullMotion;
}

int MotionDetectionThread::Start() {
  mustExit_ = false;
  finished_ = false;
  int err = pthread_create(&thread_, nullptr, &MotionDetectionThread::ThreadWorker, this);
  if (err != 0) {
    VLOG_ERRNO(VESK_PRIO_ERROR, err, "pthread_create failed");
    return -1;
  }
  started_ = true;
  return 0;
}

int MotionDetectionThread::Stop() {
  mustExit_ = true;
  if (!started_) return 0;
  started_ = false;
  return pthread_join(thread_, nullptr);
}

void* MotionDetectionThread::ThreadWorker(void* self) {
  prctl(PR_SET_NAME, "motion_detect", 0, 0, 0);
  VTLOG_INFO("Motion detection thread started");
  static_cast<MotionDetectionThread*>(self)->Work();
  VTLOG_INFO("Motion detection thread stopped");
  static_cast<MotionDetectionThread*>(self)->finished_.store(true, std::memory_order_release);
  return nullptr;
}

void MotionDetectionThread::ComputeCoefficient(unsigned char level) {
  average_.Push(level);
  uint8_t average = average_.Average();
  uint8_t coefficient = coefficient_.load(std::memory_order_relaxed);
  if (level <= lastLevel_) {
    uint8_t floor = lastLevel_ > average ? lastLevel_ : average;
    coefficient = floor < coefficient ? floor : coefficient;
  } else {
    coefficient = coefficient > level ? coefficient : level;
  }
  coefficient_.store(coefficient, std::memory_order_relaxed);
  lastLevel_ = level;
}

}  // namespace internal
}  // namespace encoder
}  // namespace vesk

#include "thread.h"

#include <errno.h>
#include <string.h>
#include <sys/prctl.h>
#include <sys/syscall.h>
#include <time.h>
#include <unistd.h>

#include "vlog.h"

namespace vesk {
namespace encoder {
namespace internal {

namespace {

thread_local char t_threadName[17];
thread_local int t_threadId = 0;

void CacheThreadIdentity() {
  if (t_threadId != 0) return;
  memset(t_threadName, 0, sizeof(t_threadName));
  prctl(PR_GET_NAME, t_threadName, 0, 0, 0);
  t_threadId = (int)syscall(SYS_gettid);
}

}  // namespace

const char* CurrentThreadName() {
  CacheThreadIdentity();
  return t_threadName;
}

int CurrentThreadId() {
  CacheThreadIdentity();
  return t_threadId;
}

Thread::Thread(const char* name) : name_(name), thread_(0) {
  int err = pthread_mutex_init(&mutex_, nullptr);
  if (err != 0) {
    VLOG_ERROR("Thread mutex init failed: (%d) %s", err, strerror(err));
    forceCrash();
  }
  err = pthread_cond_init(&condition_, nullptr);
  if (err != 0) {
    VLOG_ERROR("Thread condition init failed: (%d) %s", err, strerror(err));
    forceCrash();
  }
}

Thread::~Thread() {
  pthread_cond_destroy(&condition_);
  pthread_mutex_destroy(&mutex_);
}

int Thread::StartThread() {
  SetMustExit(false);
  int err = pthread_create(&thread_, nullptr, &Thread::StaticWorker, this);
  if (err != 0) {
    thread_ = 0;
    VLOG_ERROR("Unable to start the thread: (%d) %s", err, strerror(err));
    return -1;
  }
  return 0;
}

void Thread::StopThread() {
  if (thread_ == 0) return;
  SetMustExit(true);
  int err = pthread_join(thread_, nullptr);
  if (err != 0) VLOG_ERROR("Unable to stop the thread: (%d) %s", err, strerror(err));
  thread_ = 0;
}

int Thread::Wait() {
  if (pthread_mutex_lock(&mutex_) != 0) return -1;
  // A failed wait returns with the mutex still held, deliberately.
  if (pthread_cond_wait(&condition_, &mutex_) != 0) return -1;
  if (pthread_mutex_unlock(&mutex_) != 0) return -1;
  return 0;
}

int Thread::Wait(int ms) {
  if (ms < 1) return Wait();
  // The deadline counts from the current whole second: the fraction of the
  // current second is dropped, so a wait may end up to a second early.
  struct timespec deadline;
  deadline.tv_sec = time(nullptr) + ms / 1000;
  deadline.tv_nsec = (long)(ms % 1000) * 1000000L;
  if (pthread_mutex_lock(&mutex_) != 0) return -1;
  int err = pthread_cond_timedwait(&condition_, &mutex_, &deadline);
  if (pthread_mutex_unlock(&mutex_) != 0) return -1;
  if (err == 0) return 0;
  if (err == ETIMEDOUT) return 1;
  return -1;
}

int Thread::Notify() { return pthread_cond_broadcast(&condition_) == 0 ? 0 : -1; }

void* Thread::StaticWorker(void* self) {
  Thread* thread = static_cast<Thread*>(self);
  prctl(PR_SET_NAME, thread->name_, 0, 0, 0);
  VTLOG_INFO("Thread started");
  thread->Work();
  VTLOG_INFO("Thread will exit");
  return nullptr;
}

}  // namespace internal
}  // namespace encoder
}  // namespace vesk

// The base of the library's long-running workers: one POSIX thread, one mutex
// and one condition. The derived class supplies the loop (Work) and the stop
// request (SetMustExit); it uses the mutex for its own shared state and the
// condition as its wake-up signal.
#pragma once

#include <pthread.h>

namespace vesk {
namespace encoder {
namespace internal {

class Thread {
 public:
  // name is kept as given (not copied): it must outlive the object.
  explicit Thread(const char* name);
  // Destroys the condition and the mutex; the owner stops the thread first.
  virtual ~Thread();
  Thread(const Thread&) = delete;
  Thread& operator=(const Thread&) = delete;

  // Sets or clears the exit request; when set, wakes the loop (Notify).
  virtual void SetMustExit(bool mustExit) = 0;
  // The thread body; returns when the exit request is seen.
  virtual void Work() = 0;

  // Clears the exit request and starts the thread: 0, or -1 after a log line.
  int StartThread();
  // Requests exit and joins; nothing when no thread runs.
  void StopThread();
  bool IsRunning() const { return thread_ != 0; }

  // Lock, wait on the condition, unlock: 0, or -1 when any call fails (when
  // the wait itself fails the mutex stays locked).
  int Wait();
  // Timed wait until the current whole second plus ms: 0 signalled, 1 timed
  // out, -1 failure. ms below 1 waits without a time-out.
  int Wait(int ms);
  // Wakes every waiter: 0 or -1.
  int Notify();

  const char* GetName() const { return name_; }

 protected:
  static void* StaticWorker(void* self);

  const char* name_;
  pthread_t thread_;
  pthread_mutex_t mutex_;
  pthread_cond_t condition_;
};

}  // namespace internal
}  // namespace encoder
}  // namespace vesk

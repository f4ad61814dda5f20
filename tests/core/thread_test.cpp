#include <sys/time.h>
#include <unistd.h>

#include <atomic>
#include <thread>

#include <gtest/gtest.h>

#include "log_capture.h"
#include "thread.h"

using vesk::encoder::internal::Thread;

namespace {

// A worker that counts its wake-ups until asked to exit.
class Worker : public Thread {
 public:
  Worker() : Thread("test_worker") {}
  void SetMustExit(bool mustExit) override {
    mustExit_ = mustExit;
    Notify();
  }
  void Work() override {
    while (!mustExit_) {
      loops++;
      Wait(1000);
    }
  }
  std::atomic<int> loops{0};

 private:
  std::atomic<bool> mustExit_{false};
};

double WallSeconds() {
  struct timeval tv;
  gettimeofday(&tv, nullptr);
  return tv.tv_sec + tv.tv_usec / 1e6;
}

}  // namespace

TEST(Thread, StartsNamedStopsAndRestarts) {
  vesk::test::LogCapture capture;
  Worker w;
  w.StopThread();  // never started: nothing happens, nothing is logged
  EXPECT_TRUE(capture.Lines().empty());

  ASSERT_EQ(0, w.StartThread());
  EXPECT_TRUE(w.IsRunning());
  while (w.loops.load() == 0) usleep(1000);
  w.StopThread();
  EXPECT_FALSE(w.IsRunning());
  w.StopThread();  // twice: harmless

  // "name(tid) - Thread started" with the kernel's name for the thread.
  auto lines = capture.Lines();
  ASSERT_EQ(2u, lines.size());
  EXPECT_EQ(0u, lines[0].message.find("test_worker("));
  EXPECT_NE(std::string::npos, lines[0].message.find(") - Thread started"));
  EXPECT_NE(std::string::npos, lines[1].message.find(") - Thread will exit"));
  EXPECT_EQ(VESK_PRIO_INFO, lines[0].priority);

  // A stopped object starts again, with its exit request cleared.
  int before = w.loops.load();
  ASSERT_EQ(0, w.StartThread());
  while (w.loops.load() == before) usleep(1000);
  w.StopThread();
}

TEST(Thread, WaitsUntilNotifiedOrUntilTheDeadlineCountedFromTheWholeSecond) {
  Worker w;
  for (int ms : {0, -5}) {  // no timeout: only a notification ends the wait
    std::atomic<bool> done{false};
    std::thread notifier([&] {
      while (!done.load()) {
        usleep(20000);
        w.Notify();
      }
    });
    EXPECT_EQ(0, w.Wait(ms));
    done = true;
    notifier.join();
  }

  // The deadline is the current whole second plus 1.5 s, not now plus 1.5 s.
  double start = WallSeconds();
  EXPECT_EQ(1, w.Wait(1500));
  double end = WallSeconds();
  EXPECT_GE(end, (double)(long)start + 1.5 - 0.01);
  if (start - (double)(long)start > 0.3) {  // 300 ms or more of slack for a late wake-up
    EXPECT_LT(end, start + 1.5) << "ended early by the dropped fraction";
  }
  EXPECT_EQ(1, w.Wait(1)) << "1 ms after the current whole second is already past";
}

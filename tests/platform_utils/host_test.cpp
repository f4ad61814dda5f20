#include <unistd.h>

#include <algorithm>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "log_capture.h"
#include "vesk/ipc/ipc.h"
#include "vesk/utils/file.h"
#include "vesk/utils/movingaverage.h"
#include "vesk/utils/utils.h"
#include "vesk/variant/variant.h"

TEST(HostLog, HookSeesEveryLineAndStderrRespectsThePriority) {
  vesk::test::LogCapture capture;
  int old = logGetMaxPriority();
  logSetMaxPriority(VESK_PRIO_WARNING);
  testing::internal::CaptureStderr();
  logInternal("vesk_encoder", "/some/dir/thread.cpp", "StartThread", 42, VESK_PRIO_ERROR, 11, 0,
              "Unable to start the thread: (%d) %s", 11, "busy");
  logInternal("vesk_encoder", "x.cpp", "f", 1, VESK_PRIO_DEBUG, 0, 0, "quiet %s", "line");
  std::string err = testing::internal::GetCapturedStderr();
  logSetMaxPriority(old);

  auto lines = capture.Lines();
  ASSERT_EQ(2u, lines.size());
  EXPECT_EQ("Unable to start the thread: (11) busy", lines[0].message);
  EXPECT_EQ("thread.cpp", lines[0].sourceFile);
  EXPECT_EQ("StartThread", lines[0].function);
  EXPECT_EQ(11, lines[0].errorValue);
  EXPECT_EQ("quiet line", lines[1].message);

  // One printed line, with module, file:line, function, message and errno text; debug is not printed.
  EXPECT_NE(std::string::npos, err.find("vesk_encoder thread.cpp:42 StartThread: "
                                        "Unable to start the thread: (11) busy"));
  EXPECT_NE(std::string::npos, err.find(strerror(11)));
  EXPECT_EQ(1, std::count(err.begin(), err.end(), '\n')) << err;
}

TEST(HostLog, ClocksAdvance) {
  uint64_t m0 = nowMs(), w0 = nowWallMs();
  usleep(20000);
  EXPECT_GE(nowMs() - m0, 19u);
  EXPECT_GE(nowWallMs() - w0, 19u);
  EXPECT_GT(w0, 1600000000000ull) << "wall clock is milliseconds since the epoch";
  EXPECT_NEAR((double)vesk::utils::now().tv_sec, (double)(w0 / 1000), 2.0);
}

TEST(HostLogDeathTest, ForceCrashAndAnnounceTerminateEndTheProcess) {
  EXPECT_DEATH(forceCrash(), "");
  EXPECT_DEATH(vesk::utils::announceTerminate(0x80010001u, "M value not supported"),
               "0x80010001 M value not supported");
}

TEST(Ipc, DeliversBroadcastsInOrderToEveryListener) {
  auto& ipc = vesk::ipc::Ipc::GetInstance();
  std::vector<std::string> first, second;
  int a = ipc.AddListener([&](const vesk::variant::Variant& m) { first.push_back((std::string)m["functionName"]); });
  int b = ipc.AddListener([&](const vesk::variant::Variant& m) { second.push_back((std::string)m["functionName"]); });
  vesk::variant::Variant m1, m2;
  m1["functionName"] = "EventIavStateEnterIdle";
  m2["functionName"] = "EventIavStateEnterEncode";
  EXPECT_TRUE(ipc.BroadcastRequest(m1));
  EXPECT_TRUE(ipc.BroadcastRequest(m2));
  ipc.RemoveListener(a);
  EXPECT_TRUE(ipc.BroadcastRequest(m1));
  ipc.RemoveListener(b);
  EXPECT_EQ((std::vector<std::string>{"EventIavStateEnterIdle", "EventIavStateEnterEncode"}), first);
  EXPECT_EQ((std::vector<std::string>{"EventIavStateEnterIdle", "EventIavStateEnterEncode", "EventIavStateEnterIdle"}),
            second);
}

TEST(File, WritesAppendsAndReadsBack) {
  char path[] = "/tmp/vesk_file_testXXXXXX";
  close(mkstemp(path));
  for (auto mode : {vesk::utils::FILE_OPEN_MODE_TRUNCATE, vesk::utils::FILE_OPEN_MODE_APPEND}) {
    vesk::utils::File f;
    ASSERT_TRUE(f.Initialize(path, mode));
    ASSERT_TRUE(f.WriteBuffer((const uint8_t*)"abc", 3));
  }
  vesk::utils::File f;
  ASSERT_TRUE(f.Initialize(path, vesk::utils::FILE_OPEN_MODE_READ));
  EXPECT_EQ(6u, f.Size());
  uint8_t buf[8] = {0};
  ASSERT_TRUE(f.ReadBuffer(buf, 6));
  EXPECT_EQ("abcabc", std::string((char*)buf, 6));
  EXPECT_FALSE(f.ReadBuffer(buf, 1)) << "short read at the end";
  f.Close();
  EXPECT_FALSE(f.Initialize("/nonexistent/dir/file", vesk::utils::FILE_OPEN_MODE_READ));
  unlink(path);
}

TEST(MovingAverage, WindowedAverageTruncates) {
  vesk::utils::MovingAverage<unsigned char> avg(90);
  for (int i = 0; i < 90; i++) avg.Push(128);
  avg.Push(0);
  EXPECT_EQ(126, avg.Average()) << "89 * 128 / 90 truncated";
  for (int i = 0; i < 89; i++) avg.Push(0);
  EXPECT_EQ(0, avg.Average());
  vesk::utils::MovingAverage<unsigned char> partial(4);
  partial.Push(10);
  partial.Push(21);
  EXPECT_EQ(15, partial.Average()) << "divides by the samples pushed while fewer than the window";
}

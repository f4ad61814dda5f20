// The platform utilities: log, clocks, IPC, files, I/O buffers. (The moving
// average is followed exactly by the motion detection tests of the video track.)
#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "log_capture.h"
#include "vesk/ipc/ipc.h"
#include "vesk/utils/file.h"
#include "vesk/utils/iobuffer.h"
#include "vesk/utils/utils.h"
#include "vesk/variant/variant.h"

using vesk::utils::IOBuffer;
using vesk::variant::Variant;

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

// (forceCrash ends the process in the video track's chip tests.)
TEST(HostLogDeathTest, AnnounceTerminateEndsTheProcessWithTheCode) {
  EXPECT_DEATH(vesk::utils::announceTerminate(0x80010001u, "M value not supported"),
               "0x80010001 M value not supported");
}

TEST(Ipc, DeliversBroadcastsInOrderToEveryListenerUntilRemoved) {
  auto& ipc = vesk::ipc::Ipc::GetInstance();
  std::vector<std::string> seen;  // "listener:functionName", in delivery order
  int a = ipc.AddListener([&](const Variant& m) { seen.push_back("a:" + (std::string)m["functionName"]); });
  int b = ipc.AddListener([&](const Variant& m) { seen.push_back("b:" + (std::string)m["functionName"]); });
  Variant idle, encode;
  idle["functionName"] = "EventIavStateEnterIdle";
  encode["functionName"] = "EventIavStateEnterEncode";
  EXPECT_TRUE(ipc.BroadcastRequest(idle));
  EXPECT_TRUE(ipc.BroadcastRequest(encode));
  ipc.RemoveListener(a);
  EXPECT_TRUE(ipc.BroadcastRequest(idle));
  ipc.RemoveListener(b);
  EXPECT_TRUE(ipc.BroadcastRequest(encode));
  EXPECT_EQ((std::vector<std::string>{"a:EventIavStateEnterIdle", "b:EventIavStateEnterIdle", "a:EventIavStateEnterEncode",
                                      "b:EventIavStateEnterEncode", "b:EventIavStateEnterIdle"}),
            seen);
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

namespace {

std::string Text(const IOBuffer& b) { return std::string((const char*)b.GetPointer(), b.GetAvailable()); }

// A pipe with both ends non-blocking (0x80000000 is the non-blocking option).
struct Pipe {
  int fds[2];
  Pipe() {
    EXPECT_EQ(0, pipe(fds));
    for (int fd : fds) {
      EXPECT_TRUE(vesk::utils::SetFdOptions(fd, 0x80000000u));
      EXPECT_NE(0, fcntl(fd, F_GETFL) & O_NONBLOCK);
    }
  }
  ~Pipe() {
    for (int fd : fds) if (fd >= 0) close(fd);
  }
};

}  // namespace

TEST(IOBuffer, AppendsConsumesCompactsAndSwaps) {
  IOBuffer b;
  ASSERT_TRUE(b.ReadFromBuffer((const uint8_t*)"hello", 5));
  ASSERT_TRUE(b.ReadFromRepeat('-', 3));
  struct iovec parts[2] = {{(void*)"ab", 2}, {(void*)"cdef", 4}};
  ASSERT_TRUE(b.ReadFromBuffer(parts, 2, 6));
  EXPECT_EQ("hello---abcdef", Text(b));
  EXPECT_TRUE(b.Ignore(5));
  EXPECT_FALSE(b.Ignore(100)) << "cannot consume more than is readable";
  b.MoveData();
  EXPECT_EQ("---abcdef", Text(b));

  // Growth far past the first allocation keeps the content.
  std::string big(100000, 'x');
  ASSERT_TRUE(b.ReadFromString(big));
  EXPECT_EQ("---abcdef" + big, Text(b));

  IOBuffer other;
  other.ReadFromString("other");
  const uint8_t* data = b.GetPointer();
  b.Swap(other);
  EXPECT_EQ("other", Text(b));
  EXPECT_EQ(data, other.GetPointer()) << "swapped without a copy";
  EXPECT_TRUE(other.IgnoreAll());
  EXPECT_EQ(0u, other.GetAvailable());
}

TEST(IOBuffer, MovesBytesThroughANonBlockingPipe) {
  Pipe p;
  IOBuffer out;
  out.ReadFromString("payload over a pipe");
  int amount = -1;
  ASSERT_TRUE(out.WriteToFd(p.fds[1], 7, amount));
  EXPECT_EQ(7, amount);
  EXPECT_EQ(" over a pipe", Text(out)) << "written bytes are consumed";
  ASSERT_TRUE(out.WriteToFd(p.fds[1], 1000, amount));
  EXPECT_EQ(12, amount);

  IOBuffer in;
  ASSERT_TRUE(in.ReadFromFd(p.fds[0], 4096, amount));
  EXPECT_EQ(19, amount);
  EXPECT_EQ("payload over a pipe", Text(in));
  // Nothing to read: success with 0 bytes (would block).
  ASSERT_TRUE(in.ReadFromFd(p.fds[0], 4096, amount));
  EXPECT_EQ(0, amount);
  // Writer closed: end of stream is a failure with amount 0, nothing lost.
  close(p.fds[1]);
  p.fds[1] = -1;
  EXPECT_FALSE(in.ReadFromFd(p.fds[0], 4096, amount));
  EXPECT_EQ(0, amount);
  EXPECT_EQ("payload over a pipe", Text(in));
}

TEST(IOBuffer, WriteToFullPipeWouldBlockAndToClosedPipeFails) {
  Pipe p;
  IOBuffer out;
  out.ReadFromRepeat(0xAB, 1 << 20);
  int amount = 0;
  uint64_t written = 0;
  for (int i = 0; i < 64; i++) {  // until the kernel refuses more
    ASSERT_TRUE(out.WriteToFd(p.fds[1], out.GetAvailable(), amount));
    if (amount == 0) break;
    written += (uint64_t)amount;
  }
  EXPECT_GT(written, 0u);
  EXPECT_EQ((1u << 20) - written, out.GetAvailable()) << "unwritten bytes stay queued";

  close(p.fds[0]);
  p.fds[0] = -1;
  signal(SIGPIPE, SIG_IGN);
  EXPECT_FALSE(out.WriteToFd(p.fds[1], 16, amount));
  EXPECT_EQ(EPIPE, amount);
  EXPECT_FALSE(vesk::utils::SetFdOptions(p.fds[0], 0x80000000u)) << "closed descriptor";
}

TEST(Utils, FormatBeyondAFixedBufferAndTrimToNothing) {
  // The stream-name test of the encoder covers the plain cases.
  std::string longText = vesk::utils::format("%0300d", 7);
  EXPECT_EQ(300u, longText.size());
  EXPECT_EQ('7', longText.back());
  for (auto c : {std::make_pair(" \t padded text \n", "padded text"), {"   ", ""}}) {
    std::string t = c.first;
    vesk::utils::trim(t);
    EXPECT_EQ(c.second, t);
  }
}

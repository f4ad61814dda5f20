#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <cstring>
#include <string>
#include <vector>

#include <gtest/gtest.h>

#include "vesk/utils/iobuffer.h"
#include "vesk/utils/utils.h"

using vesk::utils::IOBuffer;

namespace {

std::string Text(const IOBuffer& b) {
  return std::string((const char*)b.GetPointer(), b.GetAvailable());
}

struct Pipe {
  int fds[2];
  Pipe() {
    EXPECT_EQ(0, pipe(fds));
    EXPECT_TRUE(vesk::utils::SetFdOptions(fds[0], vesk::utils::FD_OPTION_NONBLOCKING));
    EXPECT_TRUE(vesk::utils::SetFdOptions(fds[1], vesk::utils::FD_OPTION_NONBLOCKING));
  }
  ~Pipe() {
    if (fds[0] >= 0) close(fds[0]);
    if (fds[1] >= 0) close(fds[1]);
  }
};

}  // namespace

TEST(IOBuffer, AppendsConsumesAndCompacts) {
  IOBuffer b;
  EXPECT_EQ(0u, b.GetAvailable());
  ASSERT_TRUE(b.ReadFromBuffer((const uint8_t*)"hello", 5));
  ASSERT_TRUE(b.ReadFromRepeat('-', 3));
  struct iovec parts[2] = {{(void*)"ab", 2}, {(void*)"cdef", 4}};
  ASSERT_TRUE(b.ReadFromBuffer(parts, 2, 6));
  EXPECT_EQ("hello---abcdef", Text(b));

  EXPECT_TRUE(b.Ignore(5));
  EXPECT_EQ("---abcdef", Text(b));
  EXPECT_FALSE(b.Ignore(100)) << "cannot consume more than is readable";
  EXPECT_EQ("---abcdef", Text(b));
  b.MoveData();
  EXPECT_EQ("---abcdef", Text(b));

  // Growth far past the first allocation keeps the content.
  std::string big(100000, 'x');
  ASSERT_TRUE(b.ReadFromString(big));
  EXPECT_EQ(9u + 100000u, b.GetAvailable());
  EXPECT_EQ("---abcdef" + big, Text(b));
  EXPECT_TRUE(b.IgnoreAll());
  EXPECT_EQ(0u, b.GetAvailable());
}

TEST(IOBuffer, SwapExchangesContentWithoutCopy) {
  IOBuffer a, b;
  a.ReadFromString("first");
  b.ReadFromString("second!");
  const uint8_t* aData = a.GetPointer();
  a.Swap(b);
  EXPECT_EQ("second!", Text(a));
  EXPECT_EQ("first", Text(b));
  EXPECT_EQ(aData, b.GetPointer());
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
  EXPECT_EQ(0u, out.GetAvailable());

  IOBuffer in;
  ASSERT_TRUE(in.ReadFromFd(p.fds[0], 4096, amount));
  EXPECT_EQ(19, amount);
  EXPECT_EQ("payload over a pipe", Text(in));

  // Nothing to read: success with 0 bytes (would block).
  ASSERT_TRUE(in.ReadFromFd(p.fds[0], 4096, amount));
  EXPECT_EQ(0, amount);

  // Writer closed: end of stream is a failure with amount 0.
  close(p.fds[1]);
  p.fds[1] = -1;
  EXPECT_FALSE(in.ReadFromFd(p.fds[0], 4096, amount));
  EXPECT_EQ(0, amount);
  EXPECT_EQ("payload over a pipe", Text(in)) << "nothing lost at end of stream";
}

TEST(IOBuffer, WriteToFullPipeWouldBlockAndToClosedPipeFails) {
  Pipe p;
  IOBuffer out;
  out.ReadFromRepeat(0xAB, 1 << 20);
  int amount = 0;
  uint64_t written = 0;
  // Fill the pipe until the kernel refuses more.
  for (int i = 0; i < 64; i++) {
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
}

TEST(Utils, FormatTrimAndFdOptions) {
  using vesk::utils::format;
  EXPECT_EQ("a=1 b=xyz", format("a=%d b=%s", 1, "xyz"));
  std::string longText = format("%0300d", 7);
  EXPECT_EQ(300u, longText.size());
  EXPECT_EQ('7', longText.back());

  std::string t = " \t padded text \n";
  vesk::utils::trim(t);
  EXPECT_EQ("padded text", t);
  std::string empty = "   ";
  vesk::utils::trim(empty);
  EXPECT_EQ("", empty);

  int fds[2];
  ASSERT_EQ(0, pipe(fds));
  EXPECT_EQ(0, fcntl(fds[0], F_GETFL) & O_NONBLOCK);
  EXPECT_TRUE(vesk::utils::SetFdOptions(fds[0], 0x80000000u));
  EXPECT_NE(0, fcntl(fds[0], F_GETFL) & O_NONBLOCK);
  close(fds[0]);
  close(fds[1]);
  EXPECT_FALSE(vesk::utils::SetFdOptions(fds[0], 0x80000000u)) << "closed descriptor";
}

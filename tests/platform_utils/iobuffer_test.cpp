#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <csignal>
#include <string>

#include <gtest/gtest.h>

#include "vesk/utils/iobuffer.h"
#include "vesk/utils/utils.h"

using vesk::utils::IOBuffer;

namespace {

std::string Text(const IOBuffer& b) { return std::string((const char*)b.GetPointer(), b.GetAvailable()); }

// A pipe with both ends non-blocking (0x80000000 is the non-blocking option).
struct Pipe {
  int fds[2];
  Pipe() {
    EXPECT_EQ(0, pipe(fds));
    for (int fd : fds) {
      EXPECT_EQ(0, fcntl(fd, F_GETFL) & O_NONBLOCK);
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

TEST(Utils, FormatAndTrim) {
  EXPECT_EQ("a=1 b=xyz", vesk::utils::format("a=%d b=%s", 1, "xyz"));
  std::string longText = vesk::utils::format("%0300d", 7);
  EXPECT_EQ(300u, longText.size());
  EXPECT_EQ('7', longText.back());
  for (auto c : {std::make_pair(" \t padded text \n", "padded text"), {"   ", ""}}) {
    std::string t = c.first;
    vesk::utils::trim(t);
    EXPECT_EQ(c.second, t);
  }
}

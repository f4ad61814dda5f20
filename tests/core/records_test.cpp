#include <sys/uio.h>

#include <cstring>
#include <vector>

#include <gtest/gtest.h>

#include "vesk/records.h"

using namespace vesk::encoder;

TEST(Timestamp, RescaleRoundsHalfUpAndComparesInTheFirstTimescale) {
  EXPECT_EQ(17, RescaleTimestamp(1500, 90000, 1000)) << "(1500*1000 + 45000) / 90000";
  EXPECT_EQ(16, RescaleTimestamp(1454, 90000, 1000));
  EXPECT_EQ(90000, RescaleTimestamp(1000, 1000, 90000));
  EXPECT_EQ(100000000000LL, RescaleTimestamp(9000000000000LL, 90000, 1000)) << "exact in 64 bits";

  timestamp_t unset;
  EXPECT_EQ(-1, unset.value);
  EXPECT_FALSE(unset.IsSet());
  timestamp_t video(90000, 90000), audio(16000, 16000), later(16512, 16000);
  EXPECT_EQ(0, video.Compare(audio));
  EXPECT_EQ(90000 - 92880, video.Compare(later)) << "other converted to 90 kHz first";
}

TEST(VideoFrame, WrapRuleGivesOneOrTwoRunsAndByteAccessAgrees) {
  std::vector<uint8_t> ring(100);
  for (size_t i = 0; i < ring.size(); i++) ring[i] = (uint8_t)i;
  struct {
    uint32_t offset, length, runs, firstStart, firstLength;
  } cases[] = {
      {90, 25, 2, 90, 10},  // crossing the end: 10 then 15 bytes
      {75, 25, 1, 75, 25},  // ending exactly at the ring end
      {100, 5, 1, 0, 5},    // an offset at or past the ring size starts at offset - ringSize
      {130, 5, 1, 30, 5},
  };
  for (auto& c : cases) {
    SCOPED_TRACE(c.offset);
    video_frame_t f = {};
    f.ringBase = ring.data();
    f.ringSize = (uint32_t)ring.size();
    f.offset = c.offset;
    f.length = c.length;
    f.isContiguous = c.offset + c.length <= ring.size() ? 1 : 0;
    payload_runs_t runs;
    ASSERT_EQ(c.runs, GetPayloadRuns(f, runs));
    EXPECT_EQ(ring.data() + c.firstStart, runs.data[0]);
    EXPECT_EQ(c.firstLength, runs.length[0]);
    if (c.runs == 2) {
      EXPECT_EQ(ring.data(), runs.data[1]);
      EXPECT_EQ(c.length - c.firstLength, runs.length[1]);
    }
    for (uint32_t i = 0; i < c.length; i++) EXPECT_EQ((c.offset + i) % 100, PayloadByte(f, i));
  }
}

TEST(Message, PartsAreIovecsAndEmptinessFollowsTheFields) {
  message_part_t parts[3];
  message_t m{parts, 0, 0};
  EXPECT_TRUE(m.IsEmpty());
  m.Append("abc", 3);
  m.Append("defg", 4);
  EXPECT_FALSE(m.IsEmpty());
  EXPECT_EQ(2u, m.partCount);
  EXPECT_EQ(7u, m.totalLength);
  const struct iovec* iov = m.AsIovec();
  EXPECT_EQ(0, memcmp(iov[1].iov_base, "defg", iov[1].iov_len));
  m.Reset();
  EXPECT_TRUE(m.IsEmpty());
  message_t nullParts{nullptr, 1, 5};
  EXPECT_TRUE(nullParts.IsEmpty());
}

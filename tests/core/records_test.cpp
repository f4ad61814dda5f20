#include <sys/uio.h>

#include <cstring>
#include <vector>

#include <gtest/gtest.h>

#include "vesk/records.h"

using namespace vesk::encoder;

TEST(Timestamp, RescaleRoundsHalfUpAndComparesInTheFirstTimescale) {
  EXPECT_EQ(17, RescaleTimestamp(1500, 90000, 1000)) << "(1500*1000 + 45000) / 90000";
  EXPECT_EQ(16, RescaleTimestamp(1499 - 45, 90000, 1000));
  EXPECT_EQ(1500, RescaleTimestamp(1500, 90000, 90000)) << "same timescale: unchanged";
  EXPECT_EQ(90000, RescaleTimestamp(1000, 1000, 90000));
  // Large values stay exact in 64 bits.
  EXPECT_EQ(100000000000LL, RescaleTimestamp(9000000000000LL, 90000, 1000));

  timestamp_t unset;
  EXPECT_EQ(-1, unset.value);
  EXPECT_EQ(0u, unset.timescale);
  EXPECT_FALSE(unset.IsSet());

  timestamp_t video(90000, 90000), audio(16000, 16000);
  EXPECT_EQ(0, video.Compare(audio));
  timestamp_t later(16512, 16000);
  EXPECT_EQ(90000 - 92880, video.Compare(later)) << "other converted to 90 kHz first";
}

namespace {

video_frame_t Frame(std::vector<uint8_t>& ring, uint32_t offset, uint32_t length) {
  video_frame_t f = {};
  f.ringBase = ring.data();
  f.ringSize = (uint32_t)ring.size();
  f.offset = offset;
  f.length = length;
  f.isContiguous = (uint64_t)offset + length <= ring.size() ? 1 : 0;
  return f;
}

}  // namespace

TEST(VideoFrame, WrapRuleGivesOneOrTwoRunsAndByteAccessAgrees) {
  std::vector<uint8_t> ring(100);
  for (size_t i = 0; i < ring.size(); i++) ring[i] = (uint8_t)i;
  payload_runs_t runs;

  // Crossing the end: two runs of 10 and 15 bytes.
  video_frame_t wrap = Frame(ring, 90, 25);
  ASSERT_EQ(2u, GetPayloadRuns(wrap, runs));
  EXPECT_EQ(ring.data() + 90, runs.data[0]);
  EXPECT_EQ(10u, runs.length[0]);
  EXPECT_EQ(ring.data(), runs.data[1]);
  EXPECT_EQ(15u, runs.length[1]);
  for (uint32_t i = 0; i < 25; i++) EXPECT_EQ((90 + i) % 100, PayloadByte(wrap, i));

  // Ending exactly at the ring end: one run.
  video_frame_t atEnd = Frame(ring, 75, 25);
  ASSERT_EQ(1u, GetPayloadRuns(atEnd, runs));
  EXPECT_EQ(25u, runs.length[0]);

  // An offset at or past the ring size starts at offset - ringSize.
  video_frame_t past = Frame(ring, 100, 5);
  past.isContiguous = 0;
  ASSERT_EQ(1u, GetPayloadRuns(past, runs));
  EXPECT_EQ(ring.data(), runs.data[0]);
  past.offset = 130;
  ASSERT_EQ(1u, GetPayloadRuns(past, runs));
  EXPECT_EQ(ring.data() + 30, runs.data[0]);
  EXPECT_EQ(5u, runs.length[0]);
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

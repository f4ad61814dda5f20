// The receiver's reassembly of vesk packets, on hand-made packets: the
// explicit little-endian timescale, lost packets, milestones.
#include <gtest/gtest.h>

#include <cstdint>
#include <tuple>
#include <vector>

#include "vesk_reassembler.h"

namespace vesk {
namespace camera {
namespace {

struct packet_fields_t {
  uint16_t channel;
  uint16_t flags;
  uint16_t sequence;
  uint32_t explicitTimescale;  // written when the flags' low byte is 1
  uint64_t timestamp;          // written with flag 0x0800
  uint32_t totalLength;        // written on a first packet that is not the last
  std::vector<uint8_t> chunk;
};

void Put32(std::vector<uint8_t>& out, uint32_t v) {
  for (int shift = 24; shift >= 0; shift -= 8) out.push_back((uint8_t)(v >> shift));
}

std::vector<uint8_t> Build(const packet_fields_t& fields) {
  std::vector<uint8_t> out = {0xA0, (uint8_t)(fields.channel >> 8), (uint8_t)fields.channel,
                              (uint8_t)(0xA0 ^ (fields.channel >> 8) ^ (fields.channel & 0xFF)),
                              (uint8_t)(fields.flags >> 8), (uint8_t)fields.flags,
                              (uint8_t)(fields.sequence >> 8), (uint8_t)fields.sequence};
  if ((fields.flags & 0xFF) == 1)
    for (int shift = 0; shift < 32; shift += 8) out.push_back((uint8_t)(fields.explicitTimescale >> shift));
  if (fields.flags & kVeskTimestamp) {
    if (fields.flags & kVeskLongTimestamp) Put32(out, (uint32_t)(fields.timestamp >> 32));
    Put32(out, (uint32_t)fields.timestamp);
  }
  if ((fields.flags & kVeskFirst) && !(fields.flags & kVeskLast)) Put32(out, fields.totalLength);
  Put32(out, (uint32_t)fields.chunk.size());
  out.insert(out.end(), fields.chunk.begin(), fields.chunk.end());
  while ((out.size() % 4) != 0) out.push_back(0);
  return out;
}

// Split frames, padding and timestamps on real frames: the vesk container's
// UDP test, where this receiver takes what the container sends.
TEST(VeskReassembler, ExplicitTimescaleLostPacketsAndMalformedDatagrams) {
  std::vector<std::vector<uint8_t>> frames;
  std::vector<vesk_frame_t> seen;  // bytes only valid in the sink: see frames
  VeskReassembler reassembler([&](const vesk_frame_t& frame) {
    frames.push_back(*frame.bytes);
    seen.push_back(frame);
  });
  auto feed = [&](const std::vector<uint8_t>& packet, size_t cut = 0) {
    return reassembler.Feed(packet.data(), packet.size() - cut);
  };
  // An audio frame at 96 kHz: code 1 and the timescale in little-endian
  // order; the timestamp needs 8 bytes (flag 0x0400).
  EXPECT_TRUE(feed(Build({1000, 0xFC00 | 1, 1, 96000, 4294967296ull + 7, 0, {9}})));
  ASSERT_EQ(frames.size(), 1u);
  EXPECT_TRUE(seen[0].audio && seen[0].key);
  EXPECT_EQ(seen[0].timescale, 96000u);
  EXPECT_EQ(seen[0].timestamp, 4294967296ull + 7);

  // A lost middle packet: the frame is dropped and the gap counted; the next frame arrives.
  std::vector<uint8_t> whole = Build({1001, 0xC000 | 0x0800 | 12, 4, 0, 15000, 0, {7}});
  EXPECT_TRUE(feed(Build({1001, 0x8000 | 0x0800 | 12, 1, 0, 12000, 6, {1, 2}})));
  EXPECT_TRUE(feed(Build({1001, 0x4000, 3, 0, 0, 0, {5, 6}})));
  EXPECT_TRUE(feed(whole));
  ASSERT_EQ(frames.size(), 2u);
  EXPECT_EQ(frames[1], (std::vector<uint8_t>{7}));
  EXPECT_EQ(seen[1].timescale, 90000u);
  const vesk_channel_stats_t& video = reassembler.Channels().at(1001);
  EXPECT_EQ(std::make_tuple(video.lostPackets, video.incompleteFrames, video.frames), std::make_tuple(1u, 1u, 1u));

  // A frame growing past its announced length is dropped at once, whatever follows.
  EXPECT_TRUE(feed(Build({1001, 0x8000, 5, 0, 0, 4, {1, 2, 3}})));
  EXPECT_TRUE(feed(Build({1001, 0x0000, 6, 0, 0, 0, {4, 5}})));
  EXPECT_EQ(video.incompleteFrames, 2u);
  EXPECT_TRUE(feed(Build({1001, 0x4000, 7, 0, 0, 0, {6}})));
  EXPECT_EQ(std::make_tuple(video.incompleteFrames, video.frames), std::make_tuple(2u, 1u));

  // Not vesk: a wrong check byte, a chunk longer than the datagram, missing padding.
  std::vector<uint8_t> bad = whole;
  bad[3] ^= 1;
  EXPECT_FALSE(feed(bad));
  EXPECT_FALSE(feed(whole, 4));
  EXPECT_FALSE(feed(Build({1001, 0xC000, 8, 0, 0, 0, {1, 2, 3}}), 1));
  EXPECT_EQ(reassembler.Malformed(), 3u);
  EXPECT_EQ(frames.size(), 2u);

  // A frame announcing 4 GiB is dropped once it holds more than 16 MiB.
  std::vector<uint8_t> piece(65000, 7);
  EXPECT_TRUE(feed(Build({2000, 0x8000, 1, 0, 0, 0xFFFFFFF0u, piece})));
  uint16_t sequence = 2;
  for (size_t held = piece.size(); held <= kMaxFrameBytes; held += piece.size()) {
    EXPECT_EQ(reassembler.Channels().at(2000).incompleteFrames, 0u);
    EXPECT_TRUE(feed(Build({2000, 0x0000, sequence++, 0, 0, 0, piece})));
  }
  EXPECT_EQ(reassembler.Channels().at(2000).incompleteFrames, 1u);
  // Only so many channels are followed at once: one more is refused.
  for (uint16_t channel = 3000; reassembler.Channels().size() < kMaxChannels; channel++)
    EXPECT_TRUE(feed(Build({channel, 0xC000, 1, 0, 0, 0, {1}})));
  EXPECT_FALSE(feed(Build({4000, 0xC000, 1, 0, 0, 0, {1}})));
  EXPECT_EQ(reassembler.Malformed(), 4u);
}

TEST(VeskReassembler, MilestoneCountsAreComparedWithWhatArrived) {
  VeskReassembler reassembler([](const vesk_frame_t&) {});
  auto milestone = [](uint32_t packets) {
    std::vector<uint8_t> chunk(12, 0);
    chunk[11] = (uint8_t)packets;
    return Build({kVeskControlChannel, 0xF000, 0, 0, 0, 0, chunk});
  };
  auto media = [](uint16_t sequence) { return Build({1001, 0xC000 | 0x0800 | 12, sequence, 0, 0, 0, {1}}); };
  // Joined late: the first milestone is not judged; then 3 packets counted
  // right, then 2 counted where one went missing.
  for (const std::vector<uint8_t>& packet :
       {media(1), milestone(40), media(2), media(3), media(4), milestone(3), media(6), milestone(2)})
    reassembler.Feed(packet.data(), packet.size());
  EXPECT_EQ(reassembler.Milestones(), 3u);
  EXPECT_EQ(reassembler.MilestoneMismatches(), 1u);
}

}  // namespace
}  // namespace camera
}  // namespace vesk

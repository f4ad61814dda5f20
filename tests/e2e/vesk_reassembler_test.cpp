// The receiver's reassembly of vesk packets, on hand-made packets: split
// frames, padding, the explicit little-endian timescale, lost packets.
#include <gtest/gtest.h>

#include <cstdint>
#include <vector>

#include "vesk_reassembler.h"

namespace vesk {
namespace camera {
namespace {

struct packet_spec_t {
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

std::vector<uint8_t> Build(const packet_spec_t& spec) {
  std::vector<uint8_t> out = {0xA0, (uint8_t)(spec.channel >> 8), (uint8_t)spec.channel,
                              (uint8_t)(0xA0 ^ (spec.channel >> 8) ^ (spec.channel & 0xFF)),
                              (uint8_t)(spec.flags >> 8), (uint8_t)spec.flags,
                              (uint8_t)(spec.sequence >> 8), (uint8_t)spec.sequence};
  if ((spec.flags & 0xFF) == 1)
    for (int shift = 0; shift < 32; shift += 8) out.push_back((uint8_t)(spec.explicitTimescale >> shift));
  if (spec.flags & kVeskTimestamp) {
    if (spec.flags & kVeskLongTimestamp) Put32(out, (uint32_t)(spec.timestamp >> 32));
    Put32(out, (uint32_t)spec.timestamp);
  }
  if ((spec.flags & kVeskFirst) && !(spec.flags & kVeskLast)) Put32(out, spec.totalLength);
  Put32(out, (uint32_t)spec.chunk.size());
  out.insert(out.end(), spec.chunk.begin(), spec.chunk.end());
  while ((out.size() % 4) != 0) out.push_back(0);
  return out;
}

TEST(VeskReassembler, JoinsChunksAndSkipsWhatWasBrokenOnTheWay) {
  std::vector<std::vector<uint8_t>> frames;
  std::vector<vesk_frame_t> seen;
  VeskReassembler reassembler([&](const vesk_frame_t& frame) {
    frames.push_back(*frame.bytes);
    seen.push_back(frame);
  });
  auto feed = [&](const std::vector<uint8_t>& packet, size_t cut = 0) {
    return reassembler.Feed(packet.data(), packet.size() - cut);
  };
  // A video key frame of 5 bytes in two packets (the second needs 2 bytes of padding).
  EXPECT_TRUE(feed(Build({1001, 0x8000 | 0x2000 | 0x0800 | 12, 1, 0, 9000, 5, {1, 2, 3}})));
  EXPECT_TRUE(feed(Build({1001, 0x4000, 2, 0, 0, 0, {4, 5}})));
  ASSERT_EQ(frames.size(), 1u);
  EXPECT_EQ(frames[0], (std::vector<uint8_t>{1, 2, 3, 4, 5}));
  EXPECT_TRUE(seen[0].key && !seen[0].audio);
  EXPECT_EQ(seen[0].timestamp, 9000u);
  EXPECT_EQ(seen[0].timescale, 90000u);

  // An audio frame at 96 kHz: code 1 and the timescale in little-endian
  // order; the timestamp needs 8 bytes (flag 0x0400).
  EXPECT_TRUE(feed(Build({1000, 0xFC00 | 1, 1, 96000, 4294967296ull + 7, 0, {9}})));
  ASSERT_EQ(frames.size(), 2u);
  EXPECT_TRUE(seen[1].audio);
  EXPECT_EQ(seen[1].timescale, 96000u);
  EXPECT_EQ(seen[1].timestamp, 4294967296ull + 7);

  // A lost middle packet: the frame is dropped and the gap counted; the next frame arrives.
  std::vector<uint8_t> whole = Build({1001, 0xC000 | 0x0800 | 12, 6, 0, 15000, 0, {7}});
  feed(Build({1001, 0x8000 | 0x0800 | 12, 3, 0, 12000, 6, {1, 2}}));
  feed(Build({1001, 0x4000, 5, 0, 0, 0, {5, 6}}));
  feed(whole);
  ASSERT_EQ(frames.size(), 3u);
  EXPECT_EQ(frames[2], (std::vector<uint8_t>{7}));
  const vesk_channel_stats_t& video = reassembler.Channels().at(1001);
  EXPECT_EQ(video.lostPackets, 1u);
  EXPECT_EQ(video.incompleteFrames, 1u);
  EXPECT_EQ(video.frames, 2u);

  // Not vesk: a wrong check byte, a chunk longer than the datagram, missing padding.
  std::vector<uint8_t> bad = whole;
  bad[3] ^= 1;
  EXPECT_FALSE(feed(bad));
  EXPECT_FALSE(feed(whole, 4));
  EXPECT_FALSE(feed(Build({1001, 0xC000, 7, 0, 0, 0, {1, 2, 3}}), 1));
  EXPECT_EQ(reassembler.Malformed(), 3u);
  EXPECT_EQ(frames.size(), 3u);
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

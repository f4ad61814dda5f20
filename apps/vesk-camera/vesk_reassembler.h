// The receiving side of the vesk packet format: parses each datagram and
// puts the chunks of every channel back together into whole frames.
#pragma once

#include <cstddef>
#include <cstdint>
#include <functional>
#include <map>
#include <vector>

namespace vesk {
namespace camera {

// One parsed packet; chunk points into the datagram.
struct vesk_packet_t {
  uint16_t channel = 0;
  uint16_t flags = 0;
  uint16_t sequence = 0;
  bool hasTimescale = false;
  uint32_t timescale = 0;  // explicit (code 1) or from the code table; 0 when unknown
  bool hasTimestamp = false;
  uint64_t timestamp = 0;
  bool hasTotalLength = false;
  uint32_t totalLength = 0;
  const uint8_t* chunk = nullptr;
  uint32_t chunkLength = 0;
};

constexpr uint16_t kVeskFirst = 0x8000;
constexpr uint16_t kVeskLast = 0x4000;
constexpr uint16_t kVeskKey = 0x2000;
constexpr uint16_t kVeskAudio = 0x1000;
constexpr uint16_t kVeskTimestamp = 0x0800;
constexpr uint16_t kVeskLongTimestamp = 0x0400;
constexpr uint16_t kVeskCompositionOffset = 0x0200;
constexpr uint16_t kVeskControlChannel = 5;
constexpr size_t kMaxFrameBytes = 16u << 20;  // the largest frame put back together
constexpr size_t kMaxChannels = 64;            // channels followed at once

// False when the bytes are not one well-formed packet (bad channel header,
// truncated fields, chunk longer than the datagram, padding missing).
bool ParseVeskPacket(const uint8_t* data, size_t length, vesk_packet_t& packet);

struct vesk_frame_t {
  uint16_t channel;
  bool audio;
  bool key;
  uint64_t timestamp;
  uint32_t timescale;
  const std::vector<uint8_t>* bytes;
};

struct vesk_channel_stats_t {
  bool audio = false;
  uint64_t packets = 0;
  uint64_t frames = 0;
  uint64_t keyFrames = 0;
  uint64_t lostPackets = 0;        // sequence gaps
  uint64_t incompleteFrames = 0;   // started but never finished, or of the wrong length
};

class VeskReassembler {
 public:
  typedef std::function<void(const vesk_frame_t& frame)> FrameSink;
  explicit VeskReassembler(FrameSink sink) : sink_(sink) {}

  // One datagram; false when it is not a vesk packet (counted as malformed).
  bool Feed(const uint8_t* data, size_t length);

  const std::map<uint16_t, vesk_channel_stats_t>& Channels() const { return stats_; }
  uint64_t Malformed() const { return malformed_; }
  uint64_t Milestones() const { return milestones_; }
  // Milestones whose packet count differed from the media packets received
  // since the one before (packets lost on the way).
  uint64_t MilestoneMismatches() const { return milestoneMismatches_; }

 private:
  struct assembly_t {
    bool haveSequence = false;
    uint16_t lastSequence = 0;
    bool inFrame = false;
    bool key = false;
    bool audio = false;
    uint64_t timestamp = 0;
    uint32_t timescale = 0;
    bool hasTotal = false;
    uint32_t total = 0;
    std::vector<uint8_t> bytes;
  };

  void Milestone(const vesk_packet_t& packet);

  FrameSink sink_;
  std::map<uint16_t, assembly_t> assemblies_;
  std::map<uint16_t, vesk_channel_stats_t> stats_;
  uint64_t malformed_ = 0;
  uint64_t milestones_ = 0;
  uint64_t milestoneMismatches_ = 0;
  uint64_t packetsSinceMilestone_ = 0;
};

}  // namespace camera
}  // namespace vesk

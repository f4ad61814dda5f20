#include "vesk_reassembler.h"

namespace vesk {
namespace camera {

namespace {

uint16_t Be16(const uint8_t* p) { return (uint16_t)((p[0] << 8) | p[1]); }
uint32_t Be32(const uint8_t* p) {
  return ((uint32_t)p[0] << 24) | ((uint32_t)p[1] << 16) | ((uint32_t)p[2] << 8) | p[3];
}
uint64_t Be64(const uint8_t* p) { return ((uint64_t)Be32(p) << 32) | Be32(p + 4); }
// The explicit timescale field is in the sender's (little-endian) byte order.
uint32_t Le32(const uint8_t* p) {
  return ((uint32_t)p[3] << 24) | ((uint32_t)p[2] << 16) | ((uint32_t)p[1] << 8) | p[0];
}

uint32_t TimescaleOfCode(uint8_t code) {
  static const uint32_t kTimescales[] = {0,     0,     1000,  8000,  11025,   12000,      16000, 22050,
                                         24000, 32000, 44100, 48000, 90000, 1000000, 1000000000};
  return code < sizeof(kTimescales) / sizeof(kTimescales[0]) ? kTimescales[code] : 0;
}

}  // namespace

bool ParseVeskPacket(const uint8_t* data, size_t length, vesk_packet_t& packet) {
  size_t at = 0;
  auto need = [&](size_t count) { return at + count <= length; };
  if (!need(8)) return false;
  if (data[0] != 0xA0 || (data[0] ^ data[1] ^ data[2]) != data[3]) return false;
  packet = vesk_packet_t();
  packet.channel = Be16(data + 1);
  packet.flags = Be16(data + 4);
  packet.sequence = Be16(data + 6);
  at = 8;
  uint8_t code = (uint8_t)(packet.flags & 0xFF);
  if (code == 1) {
    if (!need(4)) return false;
    packet.hasTimescale = true;
    packet.timescale = Le32(data + at);
    at += 4;
  } else {
    packet.timescale = TimescaleOfCode(code);
  }
  if (packet.flags & kVeskTimestamp) {
    packet.hasTimestamp = true;
    if (packet.flags & kVeskLongTimestamp) {
      if (!need(8)) return false;
      packet.timestamp = Be64(data + at);
      at += 8;
    } else {
      if (!need(4)) return false;
      packet.timestamp = Be32(data + at);
      at += 4;
    }
  }
  if (packet.flags & kVeskCompositionOffset) {
    if (!need(4)) return false;
    at += 4;
  }
  if ((packet.flags & kVeskFirst) && !(packet.flags & kVeskLast)) {
    if (!need(4)) return false;
    packet.hasTotalLength = true;
    packet.totalLength = Be32(data + at);
    at += 4;
  }
  if (!need(4)) return false;
  packet.chunkLength = Be32(data + at);
  at += 4;
  size_t padded = ((size_t)packet.chunkLength + 3u) & ~(size_t)3u;
  if (!need(padded)) return false;
  packet.chunk = data + at;
  return at + padded == length;
}

bool VeskReassembler::Feed(const uint8_t* data, size_t length) {
  vesk_packet_t packet;
  if (!ParseVeskPacket(data, length, packet)) {
    malformed_++;
    return false;
  }
  if (packet.channel == kVeskControlChannel) {
    Milestone(packet);
    return true;
  }
  // A sender cannot make the receiver track channels without end.
  if (assemblies_.size() >= kMaxChannels && assemblies_.count(packet.channel) == 0) {
    malformed_++;
    return false;
  }
  packetsSinceMilestone_++;
  assembly_t& state = assemblies_[packet.channel];
  vesk_channel_stats_t& stats = stats_[packet.channel];
  stats.packets++;
  if (state.haveSequence && packet.sequence != (uint16_t)(state.lastSequence + 1)) {
    stats.lostPackets += (uint16_t)(packet.sequence - state.lastSequence - 1);
    if (state.inFrame) stats.incompleteFrames++;
    state.inFrame = false;
  }
  state.haveSequence = true;
  state.lastSequence = packet.sequence;

  if (packet.flags & kVeskFirst) {
    if (state.inFrame) stats.incompleteFrames++;
    state.inFrame = true;
    state.bytes.clear();
    state.key = (packet.flags & kVeskKey) != 0;
    state.audio = (packet.flags & kVeskAudio) != 0;
    stats.audio = state.audio;
    state.timestamp = packet.timestamp;
    state.timescale = packet.timescale;
    state.hasTotal = packet.hasTotalLength;
    state.total = packet.totalLength;
  } else if (!state.inFrame) {
    return true;  // joined in the middle of a frame
  }
  // A frame never grows past its announced length nor past kMaxFrameBytes:
  // a sender cannot make the receiver's memory grow.
  size_t limit = state.hasTotal && state.total < kMaxFrameBytes ? state.total : kMaxFrameBytes;
  if (state.bytes.size() + packet.chunkLength > limit) {
    stats.incompleteFrames++;
    state.inFrame = false;
    std::vector<uint8_t>().swap(state.bytes);  // the memory goes with the frame
    return true;
  }
  state.bytes.insert(state.bytes.end(), packet.chunk, packet.chunk + packet.chunkLength);
  if (!(packet.flags & kVeskLast)) return true;
  state.inFrame = false;
  if (state.hasTotal && state.total != state.bytes.size()) {
    stats.incompleteFrames++;
    return true;
  }
  stats.frames++;
  if (state.key) stats.keyFrames++;
  vesk_frame_t frame = {packet.channel, state.audio, state.key, state.timestamp, state.timescale, &state.bytes};
  sink_(frame);
  return true;
}

void VeskReassembler::Milestone(const vesk_packet_t& packet) {
  milestones_++;
  // Before the first milestone the receiver may have joined mid-way.
  if (milestones_ > 1 && packet.chunkLength >= 12) {
    uint32_t counted = Be32(packet.chunk + 8);
    if (counted != packetsSinceMilestone_) milestoneMismatches_++;
  }
  packetsSinceMilestone_ = 0;
}

}  // namespace camera
}  // namespace vesk

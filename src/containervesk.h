// The library's own packet format for a live peer: every frame is cut into
// chunks of at most 1400 bytes, each sent as one self-describing packet on
// the track's channel; a milestone packet on the control channel lets the
// peer count what it received.
#pragma once

#include "basecontainer.h"

namespace vesk {
namespace encoder {
namespace internal {

class ContainerVesk : public BaseContainer {
 public:
  static constexpr uint32_t kChunkSize = 1400;
  static constexpr uint16_t kControlChannel = 5;

  explicit ContainerVesk(OutStream* outStream);
  ~ContainerVesk() override;

  bool FeedVideoFrame(const video_frame_t* frame) override;
  bool FeedAudioFrame(const audio_frame_t* frame) override;
  // A peer can join at any packet boundary: nothing to send.
  bool SignalTransportReady(BaseTransport* transport) override { return true; }

  // Called after every media packet with that packet's size.
  void SendTidMapAndMilestone(uint32_t packetBytes);

  // The 4-byte channel header of a channel id (with its check byte).
  static void PutChannelHeader(uint8_t* p, uint16_t channel);
  // The timescale code of the flags' low byte; 1 when the timescale is sent.
  static uint8_t TimescaleCode(uint32_t timescale);

 protected:
  bool InternalInitialize(StreamInfo& info, const vesk::variant::Variant& settings) override;

 private:
  // The fields of one track's packets, reused for every packet.
  struct track_packet_t {
    uint8_t header[4];          // channel header
    uint8_t flags[2];
    uint8_t sequence[2];
    uint8_t timescale[4];       // little-endian, when the code is 1
    uint8_t timestamp[8];
    uint8_t composition[4];
    uint8_t totalLength[4];
    uint8_t chunkLength[4];
    uint8_t padding[4];
    uint32_t counter;           // packets sent on the channel
    message_part_t parts[11];
    message_t message;
  };
  // Cuts one frame into packets and sends them. firstFlags holds the
  // first-packet bits other than first/last; chunks are read through
  // source (a video picture, or a flat audio payload when frame is null).
  void SendFrame(track_packet_t& track, uint16_t firstFlags, const timestamp_t& pts,
                 bool explicitTimescale, bool composition, int64_t compositionValue,
                 const video_frame_t* frame, const uint8_t* flat, uint32_t length);

  track_packet_t video_;
  track_packet_t audio_;
  bool milestoneEnabled_;
  uint32_t milestonePacketInterval_;
  uint32_t milestoneByteInterval_;
  uint32_t packetsSinceMilestone_;
  uint32_t bytesSinceMilestone_;
  uint64_t milestoneNumber_;
  uint8_t milestone_[24];
  message_part_t milestonePart_[1];
  message_t milestoneMessage_;
};

}  // namespace internal
}  // namespace encoder
}  // namespace vesk

// H.264 video and AAC audio as an FLV tag stream for a live consumer. Every
// message is one complete tag plus its previous-tag-size field; the extended
// format appends a 16-byte timing extension to each. Tags are scatter lists
// over header words kept here and the payload where the producer keeps it.
#pragma once

#include "basecontainer.h"
#include "vesk/utils/iobuffer.h"

namespace vesk {
namespace encoder {
namespace internal {

class ContainerFLV : public BaseContainer {
 public:
  ContainerFLV(OutStream* outStream, bool extendedFormat);
  ~ContainerFLV() override;

  bool FeedVideoFrame(const video_frame_t* frame) override;
  bool FeedAudioFrame(const audio_frame_t* frame) override;
  // Sends the newcomer the onMetaData message and both sequence headers.
  bool SignalTransportReady(BaseTransport* transport) override;

  bool IsExtendedFormat() const { return extendedFormat_; }

 protected:
  bool InternalInitialize(StreamInfo& info, const vesk::variant::Variant& settings) override;

 private:
  bool BuildOnMetadata(StreamInfo& info);
  bool BuildOnClockSync(StreamInfo& info);
  void BuildVideoCodecBytes();
  void BuildAudioCodecBytes(const audio_frame_t* frame);
  // The ready sequence-header message stamped with the tag timestamp, or
  // null after a log line when it does not exist yet.
  message_t* GetVideoCodecBytes(uint32_t timestamp);
  message_t* GetAudioCodecBytes(uint32_t timestamp);
  // target null: to every transport of the stream (result true); else to
  // that transport only, with its result.
  bool SendNotifyOnMetadata(BaseTransport* target);
  bool SendNotifyOnClockSync(BaseTransport* target);
  bool SendVideoCodecBytes(BaseTransport* target);
  bool SendAudioCodecBytes(BaseTransport* target);
  bool Send(message_t* message, BaseTransport* target);
  // The 16-byte timing extension (extended format only).
  void AddExtendedTimestamps(message_t* message, const timestamp_t& reference, uint32_t extra,
                             int64_t overrideValue);
  bool FeedInternalVideoKeyFrame(const video_frame_t* frame, int64_t overrideValue);
  bool FeedInternalVideoNonKeyFrame(const video_frame_t* frame);
  bool FeedInternalVideoFrame(const video_frame_t* frame, int64_t overrideValue);

  // The stream's time origin and newest time, from a track's frame time.
  void AdvanceClock(const timestamp_t& pts);
  // The tag timestamp of t relative to the time origin; FF FF FF FF unknown.
  uint32_t TagTimestamp(const timestamp_t& t) const;
  // Whether the picture's SPS and PPS equal the stored ones.
  bool SameParameterSets(const video_frame_t* frame, const uint32_t* nal) const;
  static void CopyUnit(const video_frame_t* frame, uint32_t offset, uint32_t length,
                       vesk::utils::IOBuffer& unit);

  int64_t baseTimeMs_;
  timestamp_t current_;
  bool overlapAvoidance_;
  int64_t nextAudioMin_;
  int64_t nextVideoMin_;

  // onMetaData: the file header and the script tag, prebuilt.
  vesk::utils::IOBuffer metadata_;
  message_part_t metadataParts_[6];
  message_t metadataMessage_;
  uint8_t metadataTimestamp_[4];
  bool metadataSent_;

  // onClockSync: the prebuilt 101-byte tag and its variable fields.
  vesk::utils::IOBuffer clockSync_;
  message_part_t clockSyncParts_[12];
  message_t clockSyncMessage_;
  uint8_t clockSyncTimestamp_[4];
  uint8_t streamClockBase_[8];
  uint8_t streamClock_[8];
  uint8_t wallClock_[8];
  int64_t nextAudioClockSync_;

  bool extendedFormat_;
  // The timing extension, shared by all messages and filled before each send.
  uint8_t extTimescale_[4];
  uint8_t extExtra_[4];
  uint8_t extValue_[8];

  // The current parameter sets, each with its 4-byte start code.
  vesk::utils::IOBuffer sps_;
  vesk::utils::IOBuffer pps_;

  // The AVC sequence header.
  vesk::utils::IOBuffer videoCodec_;
  message_part_t videoCodecParts_[6];
  message_t videoCodecMessage_;
  uint8_t videoCodecTimestamp_[4];

  // The video frame tag.
  uint8_t videoTagHeader_[4];   // tag type, data size
  uint8_t videoTimestamp_[4];
  uint8_t videoStreamFlags_[4]; // stream id, frame type and codec
  uint8_t videoPacketCts_[4];   // AVC packet type, composition time
  uint8_t videoNalLength_[4];
  uint8_t videoPrevSize_[4];
  message_part_t videoParts_[11];
  message_t videoMessage_;

  // The AAC sequence header.
  vesk::utils::IOBuffer audioCodec_;
  message_part_t audioCodecParts_[6];
  message_t audioCodecMessage_;
  uint8_t audioCodecTimestamp_[4];

  // The audio frame tag.
  uint8_t audioTagHeader_[4];   // tag type, data size
  uint8_t audioTimestamp_[4];
  uint8_t audioStreamFlags_[4]; // stream id, sound format
  uint8_t audioPacketType_[1];
  uint8_t audioPrevSize_[4];
  message_part_t audioParts_[10];
  message_t audioMessage_;
};

}  // namespace internal
}  // namespace encoder
}  // namespace vesk

#include "containerflv.h"

#include <cstring>
#include <string>

#include "basetransport.h"
#include "bytewriter.h"
#include "outstream.h"
#include "vlog.h"

namespace vesk {
namespace encoder {
namespace internal {

using vesk::utils::IOBuffer;
using vesk::variant::Variant;

namespace {

constexpr uint8_t kTagAudio = 8;
constexpr uint8_t kTagVideo = 9;
constexpr uint8_t kTagScript = 18;
constexpr uint32_t kTagHeaderSize = 11;
constexpr uint32_t kFileHeaderSize = 13;  // header and the first previous tag size
constexpr uint32_t kClockSyncSize = 101;
constexpr uint8_t kAacSoundFormat = 0xAF;  // AAC, 44 kHz, 16-bit, stereo
constexpr uint32_t kStartCodeSize = 4;

// Milliseconds of a timestamp; -1 when it is not known.
int64_t ToMs(const timestamp_t& t) {
  if (t.timescale == 0 || t.value < 0) return -1;
  if (t.timescale == 1000) return t.value;
  return (t.value * 1000 + (int64_t)(t.timescale / 2)) / (int64_t)t.timescale;
}

void InitMessage(message_t& message, message_part_t* parts) {
  message.parts = parts;
  message.partCount = 0;
  message.totalLength = 0;
}

// A prebuilt tag as three parts: its first four bytes, the timestamp word
// (replacing bytes 4-7), the rest from byte 8 on.
message_t* StampedTag(IOBuffer& tag, message_t& message, uint8_t* timestampWord,
                      uint32_t timestamp) {
  PutTimestamp(timestampWord, timestamp);
  uint8_t* bytes = tag.GetPointer();
  message.Reset();
  message.Append(bytes, 4);
  message.Append(timestampWord, 4);
  message.Append(bytes + 8, tag.GetAvailable() - 8);
  return &message;
}

}  // namespace

ContainerFLV::ContainerFLV(OutStream* outStream, bool extendedFormat)
    : BaseContainer(CONTAINER_FLV, outStream), baseTimeMs_(-1), current_(0, 0),
      overlapAvoidance_(false), nextAudioMin_(-1), nextVideoMin_(-1), metadataSent_(false),
      nextAudioClockSync_(-1), extendedFormat_(extendedFormat) {
  InitMessage(metadataMessage_, metadataParts_);
  InitMessage(clockSyncMessage_, clockSyncParts_);
  InitMessage(videoCodecMessage_, videoCodecParts_);
  InitMessage(videoMessage_, videoParts_);
  InitMessage(audioCodecMessage_, audioCodecParts_);
  InitMessage(audioMessage_, audioParts_);
  memset(metadataTimestamp_, 0, sizeof(metadataTimestamp_));
  memset(clockSyncTimestamp_, 0, sizeof(clockSyncTimestamp_));
  memset(streamClockBase_, 0, sizeof(streamClockBase_));
  memset(streamClock_, 0, sizeof(streamClock_));
  memset(wallClock_, 0, sizeof(wallClock_));
  memset(extTimescale_, 0, sizeof(extTimescale_));
  memset(extExtra_, 0, sizeof(extExtra_));
  memset(extValue_, 0, sizeof(extValue_));
  memset(videoCodecTimestamp_, 0, sizeof(videoCodecTimestamp_));
  memset(audioCodecTimestamp_, 0, sizeof(audioCodecTimestamp_));
}

ContainerFLV::~ContainerFLV() {}

bool ContainerFLV::InternalInitialize(StreamInfo& info, const Variant& settings) {
  const Variant& overlap =
      settings.IsContainer() ? settings["enableTimestampsOverlapAvoidance"] : Variant();
  overlapAvoidance_ = overlap.GetType() == vesk::variant::V_BOOL && (bool)overlap;
  if (!BuildOnMetadata(info)) return false;
  return BuildOnClockSync(info);
}

// ---- prebuilt messages ----

bool ContainerFLV::BuildOnMetadata(StreamInfo& info) {
  bool hasAudio = info.hasAudio();
  bool hasVideo = info.hasVideo();
  std::string name = info.streamName();
  bool carryAudio = hasAudio && !suppressAudio_;
  bool carryVideo = hasVideo && !suppressVideo_;
  uint8_t avFlags = 0;
  if (carryAudio) avFlags |= 0x04;
  if (carryVideo) avFlags |= 0x01;
  // A reserved bit of the FLV header marks the extended format.
  if (extendedFormat_) avFlags |= 0x02;
  VLOG_DEBUG(
      "name: %s; hasAudio: %d; suppressAudio: %d; hasVideo: %d; suppressVideo: %d; "
      "extendedFormat: %d; avFlags: 0x%02x",
      name.c_str(), hasAudio, suppressAudio_, hasVideo, suppressVideo_, extendedFormat_, avFlags);

  uint8_t header[kFileHeaderSize + kTagHeaderSize];
  memcpy(header, "FLV", 3);         // signature
  PutU8(header + 3, 1);             // version
  PutU8(header + 4, avFlags);       // audio/video flags
  PutBe32(header + 5, 9);           // header length
  PutBe32(header + 9, 0);           // previous tag size
  PutU8(header + 13, kTagScript);   // tag type
  PutBe24(header + 14, 0);          // data size, written below
  PutTimestamp(header + 17, 0);     // timestamp, replaced at send
  PutBe24(header + 21, 0);          // stream id
  metadata_.IgnoreAll();
  metadata_.ReadFromBuffer(header, sizeof(header));

  if (!Variant("onMetaData").ToAMF(metadata_)) {
    VLOG_ERROR("Unable to serialize onMetaData");
    return false;
  }
  Variant values = info;
  values["hasAudio"] = carryAudio;
  if (!carryAudio) {
    for (const char* key : {"audioBandwidth", "audioChannels", "audioFrequency"}) {
      values.RemoveValue(key);
    }
  }
  values["hasVideo"] = carryVideo;
  if (!carryVideo) {
    for (const char* key : {"videoWidth", "videoHeight", "videoFps", "videoBandwidth"}) {
      values.RemoveValue(key);
    }
  }
  values["extendedFormat"] = extendedFormat_;
  if (!values.ToAMF(metadata_)) {
    VLOG_ERROR("Unable to serialize onMetaData");
    return false;
  }
  uint32_t size = metadata_.GetAvailable();
  PutBe24(metadata_.GetPointer() + kFileHeaderSize + 1, size - kFileHeaderSize - kTagHeaderSize);
  uint8_t previousSize[4];
  PutBe32(previousSize, size - kFileHeaderSize);  // previous tag size
  metadata_.ReadFromBuffer(previousSize, 4);
  return true;
}

bool ContainerFLV::BuildOnClockSync(StreamInfo& info) {
  uint8_t header[kTagHeaderSize];
  PutU8(header, kTagScript);  // tag type
  PutBe24(header + 1, 0);     // data size, written below
  PutTimestamp(header + 4, 0);
  PutBe24(header + 8, 0);     // stream id
  clockSync_.IgnoreAll();
  clockSync_.ReadFromBuffer(header, sizeof(header));
  if (!Variant("onClockSync").ToAMF(clockSync_)) {
    VLOG_ERROR("Unable to serialize onClockSync");
    return false;
  }
  // The map's keys serialise in sorted order: streamClock, streamClockBase,
  // wallClock, which fixes the offsets of the three numbers.
  Variant clocks;
  clocks["streamClockBase"] = 0.0;
  clocks["streamClock"] = 0.0;
  clocks["wallClock"] = 0.0;
  if (!clocks.ToAMF(clockSync_) || clockSync_.GetAvailable() + 4 != kClockSyncSize) {
    VLOG_ERROR("Unable to serialize onMetaData");
    return false;
  }
  uint32_t size = clockSync_.GetAvailable();
  PutBe24(clockSync_.GetPointer() + 1, size - kTagHeaderSize);  // data size
  uint8_t previousSize[4];
  PutBe32(previousSize, size);  // previous tag size
  clockSync_.ReadFromBuffer(previousSize, 4);

  bool videoCarried = !suppressVideo_ && info.hasVideo();
  nextAudioClockSync_ = videoCarried ? -1 : 0;
  return true;
}

void ContainerFLV::BuildVideoCodecBytes() {
  uint32_t s = sps_.GetAvailable() - kStartCodeSize;
  uint32_t p = pps_.GetAvailable() - kStartCodeSize;
  const uint8_t* sps = sps_.GetPointer() + kStartCodeSize;
  const uint8_t* pps = pps_.GetPointer() + kStartCodeSize;
  uint32_t total = s + p + 31;
  videoCodec_.IgnoreAll();
  videoCodec_.EnsureSize(total);
  uint8_t* b = videoCodec_.GetWritePointer();
  PutU8(b + 0, kTagVideo);         // tag type
  PutBe24(b + 1, s + p + 16);      // data size
  PutTimestamp(b + 4, 0);          // timestamp, replaced at send
  PutBe24(b + 8, 0);               // stream id
  PutU8(b + 11, 0x17);             // key frame, AVC
  PutU8(b + 12, 0);                // AVC sequence header
  PutBe24(b + 13, 0);              // composition time
  PutU8(b + 16, 1);                // configuration version
  memcpy(b + 17, sps + 1, 3);      // profile, compatibility, level
  PutU8(b + 20, 0xFF);             // 4-byte NAL lengths
  PutU8(b + 21, 0xE1);             // one SPS
  PutBe16(b + 22, (uint16_t)s);    // SPS length
  memcpy(b + 24, sps, s);          // SPS
  uint8_t* q = b + 24 + s;
  PutU8(q, 1);                     // one PPS
  PutBe16(q + 1, (uint16_t)p);     // PPS length
  memcpy(q + 3, pps, p);           // PPS
  PutBe32(q + 3 + p, s + p + 27);  // previous tag size
  videoCodec_.Publish(total);
}

void ContainerFLV::BuildAudioCodecBytes(const audio_frame_t* frame) {
  uint32_t length = 0;
  const uint8_t* adts = ChooseAudioPayload(frame, length);
  uint8_t b2 = adts[2];
  uint8_t b3 = adts[3];
  uint8_t objectType = (uint8_t)((b2 >> 6) + 1);
  uint8_t samplingIndex = (uint8_t)((b2 >> 2) & 15);
  uint8_t channels = (uint8_t)(((b2 & 1) << 2) | (b3 >> 6));
  uint8_t b[19];
  PutU8(b + 0, kTagAudio);        // tag type
  PutBe24(b + 1, 4);              // data size
  PutTimestamp(b + 4, 0);         // timestamp, replaced at send
  PutBe24(b + 8, 0);              // stream id
  PutU8(b + 11, kAacSoundFormat); // sound format
  PutU8(b + 12, 0);               // AAC sequence header
  PutU8(b + 13, (uint8_t)((objectType << 3) | (samplingIndex >> 1)));  // AudioSpecificConfig
  PutU8(b + 14, (uint8_t)(((samplingIndex & 1) << 7) | (channels << 3)));
  PutBe32(b + 15, 15);            // previous tag size
  audioCodec_.IgnoreAll();
  audioCodec_.ReadFromBuffer(b, sizeof(b));
}

message_t* ContainerFLV::GetVideoCodecBytes(uint32_t timestamp) {
  if (videoCodec_.GetAvailable() == 0) {
    VLOG_ERROR("No video codec bytes available");
    return nullptr;
  }
  return StampedTag(videoCodec_, videoCodecMessage_, videoCodecTimestamp_, timestamp);
}

message_t* ContainerFLV::GetAudioCodecBytes(uint32_t timestamp) {
  if (audioCodec_.GetAvailable() == 0) {
    VLOG_ERROR("No audio codec bytes available");
    return nullptr;
  }
  return StampedTag(audioCodec_, audioCodecMessage_, audioCodecTimestamp_, timestamp);
}

// ---- sending ----

bool ContainerFLV::Send(message_t* message, BaseTransport* target) {
  if (target != nullptr) return target->SendMessage(message);
  outStream_->SendMessage(message);
  return true;
}

void ContainerFLV::AddExtendedTimestamps(message_t* message, const timestamp_t& reference,
                                         uint32_t extra, int64_t overrideValue) {
  if (!extendedFormat_ || message == nullptr) return;
  PutBe32(extTimescale_, reference.timescale);  // timescale of the reference time
  PutBe32(extExtra_, extra);                    // extra
  PutBe64(extValue_, (uint64_t)(overrideValue >= 1 ? overrideValue : reference.value));  // value
  message->Append(extTimescale_, 4);
  message->Append(extExtra_, 4);
  message->Append(extValue_, 8);
}

bool ContainerFLV::SendNotifyOnMetadata(BaseTransport* target) {
  int64_t ms = ToMs(current_);
  if (baseTimeMs_ < 0 || current_.timescale == 0 || current_.value < 0 || ms < 0) return true;
  uint32_t relative = (uint32_t)((ms > baseTimeMs_ ? ms : baseTimeMs_) - baseTimeMs_);
  PutTimestamp(metadataTimestamp_, relative);
  uint8_t* bytes = metadata_.GetPointer();
  uint32_t size = metadata_.GetAvailable();
  metadataMessage_.Reset();
  metadataMessage_.Append(bytes, kFileHeaderSize + 4);  // file header, tag type and size
  metadataMessage_.Append(metadataTimestamp_, 4);
  metadataMessage_.Append(bytes + kFileHeaderSize + 8, size - kFileHeaderSize - 8);
  AddExtendedTimestamps(&metadataMessage_, current_, 0, -1);
  return Send(&metadataMessage_, target);
}

bool ContainerFLV::SendNotifyOnClockSync(BaseTransport* target) {
  int64_t ms = ToMs(current_);
  if (baseTimeMs_ < 0 || current_.timescale == 0 || current_.value < 0 || ms < 0) return true;
  int64_t relative = (ms > baseTimeMs_ ? ms : baseTimeMs_) - baseTimeMs_;
  PutTimestamp(clockSyncTimestamp_, (uint32_t)relative);
  PutBeDouble(streamClock_, (double)relative);
  PutBeDouble(streamClockBase_, (double)baseTimeMs_);
  PutBeDouble(wallClock_, (double)nowWallMs());
  uint8_t* b = clockSync_.GetPointer();
  clockSyncMessage_.Reset();
  clockSyncMessage_.Append(b, 4);         // tag type, data size
  clockSyncMessage_.Append(clockSyncTimestamp_, 4);
  clockSyncMessage_.Append(b + 8, 32);    // stream id .. streamClock's marker
  clockSyncMessage_.Append(streamClock_, 8);
  clockSyncMessage_.Append(b + 48, 18);   // "streamClockBase" and its marker
  clockSyncMessage_.Append(streamClockBase_, 8);
  clockSyncMessage_.Append(b + 74, 12);   // "wallClock" and its marker
  clockSyncMessage_.Append(wallClock_, 8);
  clockSyncMessage_.Append(b + 94, 7);    // object end, previous tag size
  AddExtendedTimestamps(&clockSyncMessage_, current_, 0, -1);
  return Send(&clockSyncMessage_, target);
}

bool ContainerFLV::SendVideoCodecBytes(BaseTransport* target) {
  message_t* message = GetVideoCodecBytes(TagTimestamp(current_));
  if (message == nullptr) return true;
  AddExtendedTimestamps(message, current_, 0, -1);
  return Send(message, target);
}

bool ContainerFLV::SendAudioCodecBytes(BaseTransport* target) {
  message_t* message = GetAudioCodecBytes(TagTimestamp(current_));
  if (message == nullptr) return true;
  AddExtendedTimestamps(message, current_, 0, -1);
  return Send(message, target);
}

bool ContainerFLV::SignalTransportReady(BaseTransport* transport) {
  if (!SendNotifyOnMetadata(transport)) return false;
  if (!SendVideoCodecBytes(transport)) return false;
  return SendAudioCodecBytes(transport);
}

// ---- time ----

void ContainerFLV::AdvanceClock(const timestamp_t& pts) {
  if (baseTimeMs_ < 0) baseTimeMs_ = ToMs(pts);
  int64_t converted = (pts.timescale == 0 || pts.value < 0)
                          ? -1
                          : RescaleTimestamp(pts.value, pts.timescale, current_.timescale);
  // Time never moves back.
  if (current_.timescale == 0 || converted > current_.value) current_ = pts;
}

uint32_t ContainerFLV::TagTimestamp(const timestamp_t& t) const {
  int64_t ms = ToMs(t);
  if (ms < 0 || baseTimeMs_ < 0) return 0xFFFFFFFF;
  return (uint32_t)((ms > baseTimeMs_ ? ms : baseTimeMs_) - baseTimeMs_);
}

// ---- video ----

bool ContainerFLV::FeedVideoFrame(const video_frame_t* frame) {
  if (suppressVideo_) return true;
  const timestamp_t& pts = frame->pts;
  int64_t overrideValue = -1;
  bool retimed = false;
  if (overlapAvoidance_) {
    if (nextVideoMin_ < 0) {
      nextVideoMin_ = pts.value + frame->duration;
    } else if (pts.value < nextVideoMin_) {
      if (!frame->isKeyFrame) {
        VLOG_WARN("Video overlap avoided: %lld; KF: %d", (long long)(pts.value - nextVideoMin_),
                  0);
        return true;
      }
      VLOG_WARN("Video overlap happened on KF: %lld; Correct it to be %lld",
                (long long)(pts.value - nextVideoMin_), (long long)nextVideoMin_);
      overrideValue = nextVideoMin_;
      nextVideoMin_ += frame->duration;
      retimed = true;
    } else {
      nextVideoMin_ = pts.value + frame->duration;
    }
  }
  if (!retimed) AdvanceClock(pts);
  // JPEG pictures are not carried in FLV.
  if (frame->isJpeg) return true;
  if (!metadataSent_) {
    SendNotifyOnMetadata(nullptr);
    metadataSent_ = true;
  }
  if (frame->isKeyFrame) return FeedInternalVideoKeyFrame(frame, overrideValue);
  return FeedInternalVideoNonKeyFrame(frame);
}

bool ContainerFLV::SameParameterSets(const video_frame_t* frame, const uint32_t* nal) const {
  if (sps_.GetAvailable() == 0 || pps_.GetAvailable() == 0) return false;
  if (sps_.GetAvailable() != nal[NAL_SPS_LENGTH] || pps_.GetAvailable() != nal[NAL_PPS_LENGTH]) {
    return false;
  }
  const uint8_t* sps = sps_.GetPointer();
  for (uint32_t i = 0; i < nal[NAL_SPS_LENGTH]; i++) {
    if (PayloadByte(*frame, nal[NAL_SPS_OFFSET] + i) != sps[i]) return false;
  }
  const uint8_t* pps = pps_.GetPointer();
  for (uint32_t i = 0; i < nal[NAL_PPS_LENGTH]; i++) {
    if (PayloadByte(*frame, nal[NAL_PPS_OFFSET] + i) != pps[i]) return false;
  }
  return true;
}

void ContainerFLV::CopyUnit(const video_frame_t* frame, uint32_t offset, uint32_t length,
                            IOBuffer& unit) {
  unit.IgnoreAll();
  unit.EnsureSize(length);
  uint8_t* out = unit.GetWritePointer();
  for (uint32_t i = 0; i < length; i++) out[i] = PayloadByte(*frame, offset + i);
  unit.Publish(length);
}

bool ContainerFLV::FeedInternalVideoKeyFrame(const video_frame_t* frame, int64_t overrideValue) {
  if (!SendNotifyOnClockSync(nullptr)) {
    VLOG_ERROR("Unable to send clock sync message");
    return false;
  }
  const uint32_t* nal = GetNalInfo(*frame);
  // A usable unit has its start code, a header byte and (for the SPS) the
  // profile, compatibility and level bytes, all inside the payload.
  bool spsUsable = nal[NAL_SPS_LENGTH] >= kStartCodeSize + 4 &&
                   (uint64_t)nal[NAL_SPS_OFFSET] + nal[NAL_SPS_LENGTH] <= frame->length;
  bool ppsUsable = nal[NAL_PPS_LENGTH] >= kStartCodeSize + 1 &&
                   (uint64_t)nal[NAL_PPS_OFFSET] + nal[NAL_PPS_LENGTH] <= frame->length;
  bool unchanged = spsUsable && ppsUsable ? SameParameterSets(frame, nal)
                                          : sps_.GetAvailable() != 0 && pps_.GetAvailable() != 0;
  if (!unchanged) {
    if (spsUsable && ppsUsable) {
      CopyUnit(frame, nal[NAL_SPS_OFFSET], nal[NAL_SPS_LENGTH], sps_);
      CopyUnit(frame, nal[NAL_PPS_OFFSET], nal[NAL_PPS_LENGTH], pps_);
      BuildVideoCodecBytes();
    }
    uint32_t timestamp = overrideValue >= 1
                             ? TagTimestamp(timestamp_t(overrideValue, frame->pts.timescale))
                             : TagTimestamp(frame->pts);
    message_t* message = GetVideoCodecBytes(timestamp);
    if (message == nullptr) return false;
    AddExtendedTimestamps(message, frame->pts, (uint32_t)frame->ptsDtsDelta.value,
                          overrideValue);
    outStream_->SendMessage(message);
  }
  return FeedInternalVideoFrame(frame, overrideValue);
}

bool ContainerFLV::FeedInternalVideoNonKeyFrame(const video_frame_t* frame) {
  // Pictures before the first key frame are not carried.
  if (sps_.GetAvailable() == 0 || pps_.GetAvailable() == 0) return true;
  return FeedInternalVideoFrame(frame, -1);
}

bool ContainerFLV::FeedInternalVideoFrame(const video_frame_t* frame, int64_t overrideValue) {
  uint32_t slice = GetNalInfo(*frame)[NAL_SLICE_OFFSET];
  // Everything from the first slice on, without its start code.
  if ((uint64_t)slice + kStartCodeSize > frame->length) return true;
  uint32_t skip = slice + kStartCodeSize;
  uint32_t n = frame->length - skip;
  uint32_t timestamp = overrideValue >= 1
                           ? TagTimestamp(timestamp_t(overrideValue, frame->pts.timescale))
                           : TagTimestamp(frame->pts);
  const timestamp_t& delta = frame->ptsDtsDelta;
  uint32_t compositionTime =
      (delta.timescale == 0 || delta.value < 0) ? 0xFFFFFF : (uint32_t)ToMs(delta) & 0xFFFFFF;

  PutU8(videoTagHeader_, kTagVideo);                               // tag type
  PutBe24(videoTagHeader_ + 1, n + 9);                             // data size
  PutTimestamp(videoTimestamp_, timestamp);                        // timestamp
  PutBe24(videoStreamFlags_, 0);                                   // stream id
  PutU8(videoStreamFlags_ + 3, frame->isKeyFrame ? 0x17 : 0x27);   // frame type, AVC
  PutU8(videoPacketCts_, 1);                                       // AVC NAL unit
  PutBe24(videoPacketCts_ + 1, compositionTime);                   // composition time
  PutBe32(videoNalLength_, n);                                     // NAL unit length
  PutBe32(videoPrevSize_, n + 20);                                 // previous tag size

  videoMessage_.Reset();
  videoMessage_.Append(videoTagHeader_, 4);
  videoMessage_.Append(videoTimestamp_, 4);
  videoMessage_.Append(videoStreamFlags_, 4);
  videoMessage_.Append(videoPacketCts_, 4);
  videoMessage_.Append(videoNalLength_, 4);
  payload_runs_t runs;
  GetPayloadSlice(*frame, skip, n, runs);
  for (uint32_t i = 0; i < runs.count; i++) videoMessage_.Append(runs.data[i], runs.length[i]);
  videoMessage_.Append(videoPrevSize_, 4);
  AddExtendedTimestamps(&videoMessage_, frame->pts, (uint32_t)delta.value, overrideValue);
  outStream_->SendMessage(&videoMessage_);
  return true;
}

// ---- audio ----

bool ContainerFLV::FeedAudioFrame(const audio_frame_t* frame) {
  if (suppressAudio_) return true;
  const timestamp_t& pts = frame->pts;
  if (overlapAvoidance_) {
    if (nextAudioMin_ < 0) {
      nextAudioMin_ = pts.value + frame->duration;
    } else if (pts.value < nextAudioMin_) {
      VLOG_WARN("Audio overlap avoided");
      return true;  // audio is dropped, never retimed
    } else {
      nextAudioMin_ = pts.value + frame->duration;
    }
  }
  AdvanceClock(pts);
  if (!metadataSent_) {
    SendNotifyOnMetadata(nullptr);
    metadataSent_ = true;
  }
  uint32_t length = 0;
  const uint8_t* payload = ChooseAudioPayload(frame, length);
  // Without a whole ADTS header there is nothing to carry.
  if (payload == nullptr || length < 7) return true;

  // The sequence header comes from the first audio frame, once.
  if (audioCodec_.GetAvailable() == 0) {
    BuildAudioCodecBytes(frame);
    message_t* header = GetAudioCodecBytes(TagTimestamp(pts));
    AddExtendedTimestamps(header, pts, 0, -1);
    outStream_->SendMessage(header);
  }

  PutU8(audioTagHeader_, kTagAudio);                 // tag type
  PutBe24(audioTagHeader_ + 1, length - 5);          // data size
  PutTimestamp(audioTimestamp_, TagTimestamp(pts));  // timestamp
  PutBe24(audioStreamFlags_, 0);                     // stream id
  PutU8(audioStreamFlags_ + 3, kAacSoundFormat);     // sound format
  PutU8(audioPacketType_, 1);                        // raw AAC
  PutBe32(audioPrevSize_, length + 6);               // previous tag size
  audioMessage_.Reset();
  audioMessage_.Append(audioTagHeader_, 4);
  audioMessage_.Append(audioTimestamp_, 4);
  audioMessage_.Append(audioStreamFlags_, 4);
  audioMessage_.Append(audioPacketType_, 1);
  // The access unit without its 7-byte ADTS header.
  if (length > 7) audioMessage_.Append(payload + 7, length - 7);
  audioMessage_.Append(audioPrevSize_, 4);
  AddExtendedTimestamps(&audioMessage_, pts, 0, -1);
  outStream_->SendMessage(&audioMessage_);

  // Without video, a clock sync follows the audio once per second.
  if (nextAudioClockSync_ >= 0 && pts.value >= nextAudioClockSync_) {
    if (!SendNotifyOnClockSync(nullptr)) {
      VLOG_ERROR("Unable to send clock sync message");
      return false;
    }
    nextAudioClockSync_ = pts.timescale != 0 ? pts.value + pts.timescale : pts.value - 1;
  }
  return true;
}

}  // namespace internal
}  // namespace encoder
}  // namespace vesk

#include "containervesk.h"

#include <cstring>

#include "bytewriter.h"
#include "outstream.h"
#include "vlog.h"

namespace vesk {
namespace encoder {
namespace internal {

using vesk::variant::Variant;

namespace {

constexpr uint16_t kFlagFirst = 0x8000;
constexpr uint16_t kFlagLast = 0x4000;
constexpr uint16_t kFlagKey = 0x2000;
constexpr uint16_t kFlagAudio = 0x1000;
constexpr uint16_t kFlagTimestamp = 0x0800;
constexpr uint16_t kFlagLongTimestamp = 0x0400;
constexpr uint16_t kFlagComposition = 0x0200;
constexpr uint8_t kVideoTimescaleCode = 12;  // the video clock is 90 kHz
constexpr uint16_t kDefaultAudioId = 1000;
constexpr uint16_t kDefaultVideoId = 1001;

// An id from the settings: false when the key is missing; -1 when it holds
// no usable number.
bool ReadId(const Variant& settings, const char* key, int64_t& id) {
  if (!settings.IsContainer() || !settings.HasKey(key)) return false;
  const Variant& value = settings[key];
  double number = value.IsNumeric() ? (double)value : -1.0;
  id = (number < 0 || number > 4294967295.0) ? -1 : (int64_t)number;
  return true;
}

bool IdValid(int64_t id) { return id >= 2 && id <= 65535 && id != ContainerVesk::kControlChannel; }

}  // namespace

ContainerVesk::ContainerVesk(OutStream* outStream)
    : BaseContainer(CONTAINER_VESK, outStream), milestoneEnabled_(false),
      milestonePacketInterval_(0), milestoneByteInterval_(0), packetsSinceMilestone_(0),
      bytesSinceMilestone_(0), milestoneNumber_(0) {
  for (track_packet_t* track : {&video_, &audio_}) {
    memset(track, 0, sizeof(*track));
    track->message.parts = track->parts;
  }
  memset(milestone_, 0, sizeof(milestone_));
  milestoneMessage_.parts = milestonePart_;
  milestoneMessage_.Reset();
}

ContainerVesk::~ContainerVesk() {}

void ContainerVesk::PutChannelHeader(uint8_t* p, uint16_t channel) {
  uint8_t high = (uint8_t)(channel >> 8);
  uint8_t low = (uint8_t)channel;
  PutU8(p, 0xA0);                        // marker
  PutU8(p + 1, high);                    // channel id
  PutU8(p + 2, low);
  PutU8(p + 3, (uint8_t)(0xA0 ^ high ^ low));  // check byte
}

uint8_t ContainerVesk::TimescaleCode(uint32_t timescale) {
  switch (timescale) {
    case 1000: return 2;
    case 8000: return 3;
    case 11025: return 4;
    case 12000: return 5;
    case 16000: return 6;
    case 22050: return 7;
    case 24000: return 8;
    case 32000: return 9;
    case 44100: return 10;
    case 48000: return 11;
    case 90000: return 12;
    case 1000000: return 13;
    case 1000000000: return 14;
    default: return 1;  // the explicit timescale field follows
  }
}

bool ContainerVesk::InternalInitialize(StreamInfo& info, const Variant& settings) {
  int64_t audioId = 0;
  bool audioGiven = ReadId(settings, "audioId", audioId);
  if (!audioGiven) {
    VLOG_WARN("No audio ID specified. Defaulting to 1000");
    audioId = kDefaultAudioId;
  }
  int64_t videoId = 0;
  bool videoGiven = ReadId(settings, "videoId", videoId);
  if (!videoGiven) {
    VLOG_WARN("No video ID specified. Defaulting to 1001");
    videoId = kDefaultVideoId;
  }
  if ((audioGiven && !IdValid(audioId)) || (videoGiven && !IdValid(videoId)) ||
      audioId == videoId) {
    VLOG_ERROR(
        "Audio/video IDs are incorrect. Valid values are between 0 and 65535 and they must not "
        "be the same");
    return false;
  }
  PutChannelHeader(audio_.header, (uint16_t)audioId);
  PutChannelHeader(video_.header, (uint16_t)videoId);
  milestoneEnabled_ = true;
  milestonePacketInterval_ = 1000;
  milestoneByteInterval_ = 1048576;
  return true;
}

void ContainerVesk::SendFrame(track_packet_t& track, uint16_t firstFlags, const timestamp_t& pts,
                              bool explicitTimescale, bool composition, int64_t compositionValue,
                              const video_frame_t* frame, const uint8_t* flat, uint32_t length) {
  bool longTimestamp = pts.value > 4294967295LL;
  for (uint32_t p = 0; p < length; p += kChunkSize) {
    uint32_t n = length - p < kChunkSize ? length - p : kChunkSize;
    bool first = p == 0;
    bool last = p + n == length;
    track.counter++;
    uint16_t flags = 0;
    if (first) flags |= kFlagFirst | firstFlags | kFlagTimestamp;
    if (last) flags |= kFlagLast;
    if (first && longTimestamp) flags |= kFlagLongTimestamp;
    if (first && composition) flags |= kFlagComposition;

    message_t& message = track.message;
    message.Reset();
    message.Append(track.header, 4);
    PutBe16(track.flags, flags);                         // flags
    message.Append(track.flags, 2);
    PutBe16(track.sequence, (uint16_t)track.counter);    // sequence
    message.Append(track.sequence, 2);
    if (first && explicitTimescale) {
      PutLe32(track.timescale, pts.timescale);           // timescale, host order
      message.Append(track.timescale, 4);
    }
    if (first) {
      if (longTimestamp) {
        PutBe64(track.timestamp, (uint64_t)pts.value);   // timestamp, 8 bytes
        message.Append(track.timestamp, 8);
      } else {
        PutBe32(track.timestamp, (uint32_t)pts.value);   // timestamp, low 32 bits
        message.Append(track.timestamp, 4);
      }
    }
    if (first && composition) {
      PutBe32(track.composition, (uint32_t)compositionValue);  // composition offset
      message.Append(track.composition, 4);
    }
    if (first && !last) {
      PutBe32(track.totalLength, length);                // total frame length
      message.Append(track.totalLength, 4);
    }
    PutBe32(track.chunkLength, n);                       // chunk length
    message.Append(track.chunkLength, 4);
    if (frame != nullptr) {
      payload_runs_t runs;
      GetPayloadSlice(*frame, p, n, runs);
      for (uint32_t i = 0; i < runs.count; i++) message.Append(runs.data[i], runs.length[i]);
    } else {
      message.Append(flat + p, n);
    }
    uint32_t padding = (4 - (n & 3)) & 3;
    if (padding != 0) message.Append(track.padding, padding);  // zero padding

    outStream_->SendMessage(&message);
    SendTidMapAndMilestone(message.totalLength);
  }
}

bool ContainerVesk::FeedVideoFrame(const video_frame_t* frame) {
  if (suppressVideo_ || frame->length == 0) return true;
  uint16_t firstFlags = kVideoTimescaleCode;
  if (frame->isKeyFrame) firstFlags |= kFlagKey;
  int64_t delta = frame->ptsDtsDelta.value;
  SendFrame(video_, firstFlags, frame->pts, false, delta != 0, delta, frame, nullptr,
            frame->length);
  return true;
}

bool ContainerVesk::FeedAudioFrame(const audio_frame_t* frame) {
  if (suppressAudio_) return true;
  uint32_t length = 0;
  const uint8_t* payload = ChooseAudioPayload(frame, length);
  if (length == 0 || payload == nullptr) return true;
  uint8_t code = TimescaleCode(frame->pts.timescale);
  // Every audio frame counts as a key frame.
  uint16_t firstFlags = (uint16_t)(kFlagKey | kFlagAudio | code);
  SendFrame(audio_, firstFlags, frame->pts, code == 1, false, 0, nullptr, payload, length);
  return true;
}

void ContainerVesk::SendTidMapAndMilestone(uint32_t packetBytes) {
  if (!milestoneEnabled_) return;
  packetsSinceMilestone_++;
  bytesSinceMilestone_ += packetBytes;
  bool due = milestonePacketInterval_ >= 2 &&
             packetsSinceMilestone_ % milestonePacketInterval_ == 0;
  if (!due) due = milestoneByteInterval_ >= 2 && bytesSinceMilestone_ >= milestoneByteInterval_;
  if (!due) return;

  PutChannelHeader(milestone_, kControlChannel);            // channel 5
  PutBe16(milestone_ + 4, 0xF000);                          // flags
  PutBe16(milestone_ + 6, 0);                               // sequence
  PutBe32(milestone_ + 8, 12);                              // length
  PutBe32(milestone_ + 12, (uint32_t)(milestoneNumber_ >> 32));  // milestone number, high word
  PutBe32(milestone_ + 16, 0);                              // reserved
  PutBe32(milestone_ + 20, packetsSinceMilestone_);         // packets since the last one
  milestoneMessage_.Reset();
  milestoneMessage_.Append(milestone_, sizeof(milestone_));
  outStream_->SendMessage(&milestoneMessage_);
  packetsSinceMilestone_ = 0;
  bytesSinceMilestone_ = 0;
  milestoneNumber_++;
}

}  // namespace internal
}  // namespace encoder
}  // namespace vesk

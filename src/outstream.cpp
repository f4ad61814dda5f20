#include "outstream.h"

#include <climits>
#include <cstdlib>
#include <cstring>
#include <string>

#include "basecontainer.h"
#include "basetransport.h"
#include "bytewriter.h"
#include "vesk/encoder.h"
#include "vesk/messages/avserializer.h"
#include "vesk/variant/uri.h"
#include "vlog.h"

namespace vesk {
namespace encoder {
namespace internal {

using vesk::ipc::messages::AVSerializer;
using vesk::utils::IOBuffer;
using vesk::variant::URI;
using vesk::variant::Variant;

// ---- BandwidthSampler ----

BandwidthSampler::BandwidthSampler() : capacity_(kCapacity), added_(0), byteTotal_(0) {
  samples_ = new sample_t[kCapacity]();
}

BandwidthSampler::~BandwidthSampler() { delete[] samples_; }

void BandwidthSampler::AddSample(uint64_t timeMs, uint32_t bytes) {
  uint64_t index = added_ % capacity_;
  // A full ring forgets the sample being overwritten.
  if (added_ >= capacity_) byteTotal_ -= samples_[index].bytes;
  byteTotal_ += bytes;
  samples_[index].timeMs = timeMs;
  samples_[index].bytes = bytes;
  added_++;
}

int64_t BandwidthSampler::GetRate() const {
  if (added_ == 0) return -1;
  uint64_t oldest = added_ < capacity_ ? 0 : added_ % capacity_;
  uint64_t newest = (added_ - 1) % capacity_;
  int64_t span = (int64_t)(samples_[newest].timeMs - samples_[oldest].timeMs);
  if (span < 1) return -1;
  return (int64_t)(byteTotal_ * 1000 / (uint64_t)span);
}

void BandwidthSampler::Reset() {
  added_ = 0;
  byteTotal_ = 0;
}

// ---- peer messages ----

void ParsePeerMessages(IOBuffer& buffer, peer_report_t& report) {
  report.bitrateSeen = false;
  report.bitrate = -1;
  report.level = -1;
  report.idrRequested = false;
  report.invalidIngest = false;
  report.discarded = false;
  for (;;) {
    uint32_t available = buffer.GetAvailable();
    if (available == 0) return;
    const uint8_t* bytes = buffer.GetPointer();
    switch (bytes[0]) {
      case 0:  // bitrate report: type, rate (4 bytes), level
        if (available < 6) return;  // the rest comes later
        report.bitrateSeen = true;
        if (bytes[1] & 0x80) {
          report.bitrate = -1;
          report.level = -1;
        } else {
          report.bitrate = GetBe32(bytes + 1);
          report.level = (int8_t)bytes[5];
        }
        buffer.Ignore(6);
        break;
      case 1:  // IDR request
        report.idrRequested = true;
        buffer.Ignore(1);
        break;
      case 2:  // not supported: never consumed, the parse ends here
        return;
      case 3:  // invalid ingest point
        buffer.Ignore(1);
        report.invalidIngest = true;
        return;
      default:
        buffer.IgnoreAll();
        report.bitrateSeen = false;
        report.idrRequested = false;
        report.discarded = true;  // nothing of this pass is acted on
        return;
    }
  }
}

// ---- OutStream ----


OutStream::OutStream(Encoder* encoder, unsigned int streamOrdinal)
    : encoder_(encoder), container_(nullptr), syncMonitor_(streamOrdinal),
      invalidIngest_(false) {}

OutStream::~OutStream() { Close(); }

bool OutStream::Configure(const Variant& config, StreamInfo& info) {
  streamInfo_ = info;

  // The output configuration, normalised: a canonical "type", and
  // "parameters"/"destinations" that are containers.
  AVSerializer serializer(config);
  serializer.NormalizeFields();
  std::string type = serializer.type();

  Close();

  const Variant& destinations = serializer.destinations();
  for (auto it = destinations.num_begin(); it != destinations.num_end(); ++it) {
    BaseTransport* transport = GetTransport(it->second);
    if (transport != nullptr) transports_.push_back(transport);
  }
  for (auto it = destinations.str_begin(); it != destinations.str_end(); ++it) {
    BaseTransport* transport = GetTransport(it->second);
    if (transport != nullptr) transports_.push_back(transport);
  }
  // A stream with no transport is valid: it takes frames and sends nothing.
  if (transports_.empty()) return true;

  container_ = BaseContainer::GetInstance(this, type, streamInfo_, serializer.parameters());
  if (container_ != nullptr) return true;
  VLOG_ERROR("Unable to obtain a container of type `%s`", type.c_str());
  return false;
}

BaseTransport* OutStream::GetTransport(const Variant& uriText) {
  if (uriText.GetType() != vesk::variant::V_STRING) {
    VLOG_WARN("Invalid URI:\n%s", uriText.ToString().c_str());
    return nullptr;
  }
  URI uri;
  if (!URI::FromString(uriText.c_str(), true, uri)) {
    VLOG_ERROR("Unable to resolve URI: `%s`", uriText.c_str());
    return nullptr;
  }
  if (GetUriString(uri, "schema") == "file" &&
      GetUriString(uri, "fullDocumentPath") == "/dev/null") {
    return nullptr;
  }
  BaseTransport* transport = BaseTransport::GetInstance(this, uri);
  if (transport == nullptr) VLOG_WARN("Unable to get transport for `%s`", uriText.c_str());
  return transport;
}

void OutStream::ServiceTransports() {
  for (size_t i = 0; i < transports_.size(); i++) {
    BaseTransport* transport = transports_[i];
    if (transport == nullptr) continue;
    invalidIngest_ = false;
    bool ok = transport->Service();
    if (invalidIngest_) {
      VLOG_ERROR("Transport %s discontinued", GetUriString(transport->GetURI(), "fullUri").c_str());
      delete transport;
      transports_[i] = nullptr;
    } else if (!ok) {
      delete transport;
      transports_[i] = nullptr;
    }
  }
}

void OutStream::SendMessage(const message_t* message) {
  if (message != nullptr && message->totalLength != 0) {
    outputSampler_.AddSample(nowMs(), message->totalLength);
  }
  for (size_t i = 0; i < transports_.size(); i++) {
    BaseTransport* transport = transports_[i];
    if (transport == nullptr) continue;
    if (!transport->SendMessage(message)) {
      delete transport;
      transports_[i] = nullptr;
    }
  }
}

bool OutStream::FeedVideoFrame(const video_frame_t* frame) {
  syncMonitor_.lastVideo = frame->pts;
  ServiceTransports();
  if (container_ == nullptr) return true;
  return container_->FeedVideoFrame(frame);
}

bool OutStream::FeedAudioFrame(const audio_frame_t* frame) {
  syncMonitor_.lastAudio = frame->pts;
  ServiceTransports();
  if (container_ == nullptr) return true;
  return container_->FeedAudioFrame(frame);
}

bool OutStream::SignalTransportReady(BaseTransport* transport) {
  if (container_ == nullptr) return false;
  return container_->SignalTransportReady(transport);
}

void OutStream::SignalTransportReceivedData(IOBuffer& buffer) {
  peer_report_t report;
  ParsePeerMessages(buffer, report);
  if (report.invalidIngest) {
    VLOG_ERROR("Invalid ingest point used");
    invalidIngest_ = true;
    return;
  }
  if (report.discarded) {
    VLOG_ERROR("Invalid message received.");
    return;
  }
  if (!report.bitrateSeen && !report.idrRequested) return;
  if (encoder_ == nullptr) return;
  uint32_t channelId = streamInfo_.channelId();
  // The peer counts bytes; the encoder adapts in bits.
  int64_t bits = report.bitrate * 8;
  int bitrateBits = bits > INT_MAX ? INT_MAX : (int)bits;
  encoder_->AdaptServerPlayerBitrate(channelId, (signed char)report.level, bitrateBits,
                                     report.idrRequested);
  if (report.idrRequested) encoder_->ForceIDR();
}

uint8_t OutStream::GetOutputBufferLevel(uint8_t level) {
  for (BaseTransport* transport : transports_) {
    if (transport != nullptr) level = transport->GetOutputBufferLevel(level);
  }
  return level > 100 ? 100 : level;
}

bool OutStream::IsDrifted() const {
  if (container_ == nullptr || container_->IsSuppressingTracks()) return false;
  if (maxAllowedDrift_.timescale == 0 || maxAllowedDrift_.value < 1) return false;
  const timestamp_t& audio = syncMonitor_.lastAudio;
  const timestamp_t& video = syncMonitor_.lastVideo;
  if (audio.value < 0 || audio.timescale == 0 || video.value < 0 || video.timescale == 0) {
    return false;
  }
  int64_t a = audio.In(maxAllowedDrift_.timescale);
  int64_t v = video.In(maxAllowedDrift_.timescale);
  return llabs(v - a) > maxAllowedDrift_.value;
}

void OutStream::ResetSyncMonitor() {
  syncMonitor_.lastAudio = timestamp_t();
  syncMonitor_.lastVideo = timestamp_t();
}

void OutStream::Close() {
  for (BaseTransport* transport : transports_) delete transport;
  transports_.clear();
  delete container_;
  container_ = nullptr;
}

}  // namespace internal
}  // namespace encoder
}  // namespace vesk

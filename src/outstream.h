// One outgoing stream of the encoder: a container that turns frames into
// messages and any number of transports that each receive every message. It
// also measures its output rate, watches audio/video drift and reads the
// small control messages a peer sends back.
#pragma once

#include <cstdint>
#include <vector>

#include "vesk/records.h"
#include "vesk/streaminfo.h"
#include "vesk/utils/iobuffer.h"
#include "vesk/variant/variant.h"

namespace vesk {
namespace encoder {

class Encoder;

namespace internal {

class BaseContainer;
class BaseTransport;

// The rate of bytes sent over the last up to 512 messages.
class BandwidthSampler {
 public:
  static constexpr uint64_t kCapacity = 512;

  BandwidthSampler();
  virtual ~BandwidthSampler();
  BandwidthSampler(const BandwidthSampler&) = delete;
  BandwidthSampler& operator=(const BandwidthSampler&) = delete;

  void AddSample(uint64_t timeMs, uint32_t bytes);
  // Bytes per second over the ring; -1 without a sample or a span under 1 ms.
  int64_t GetRate() const;
  void Reset();

 private:
  struct sample_t {
    uint64_t timeMs;
    uint32_t bytes;
  };
  sample_t* samples_;
  uint64_t capacity_;
  uint64_t added_;
  uint64_t byteTotal_;
};

// The last audio and video presentation times a stream was fed.
struct sync_monitor_t {
  explicit sync_monitor_t(uint32_t ordinal) : streamOrdinal(ordinal) {}
  virtual ~sync_monitor_t() {}
  uint32_t streamOrdinal;
  timestamp_t lastAudio;
  timestamp_t lastVideo;
};

// What one pass over a peer's bytes found.
struct peer_report_t {
  bool bitrateSeen;      // a complete type-0 report
  int64_t bitrate;       // bytes per second, -1 for "unknown"
  int8_t level;          // -1 for "unknown"
  bool idrRequested;     // a type-1 message
  bool invalidIngest;    // a type-3 message (the parse stopped there)
  bool discarded;        // an unknown type: everything readable was dropped
};

// Parses the peer messages readable in buffer and consumes what it uses. A
// truncated bitrate report, and a type-2 byte, stay unread.
void ParsePeerMessages(vesk::utils::IOBuffer& buffer, peer_report_t& report);

class OutStream {
 public:
  OutStream(Encoder* encoder, unsigned int streamOrdinal);
  virtual ~OutStream();
  OutStream(const OutStream&) = delete;
  OutStream& operator=(const OutStream&) = delete;

  // config: one output configuration, read as an AVSerializer ("type",
  // "parameters", "destinations").
  bool Configure(const vesk::variant::Variant& config, StreamInfo& info);
  BaseTransport* GetTransport(const vesk::variant::Variant& uri);
  void ServiceTransports();
  // Called by the container for each finished message.
  void SendMessage(const message_t* message);
  bool FeedVideoFrame(const video_frame_t* frame);
  bool FeedAudioFrame(const audio_frame_t* frame);
  // Called by a transport once it is connected (from its Service).
  bool SignalTransportReady(BaseTransport* transport);
  // Called by a transport with the bytes its peer sent (from its Service).
  void SignalTransportReceivedData(vesk::utils::IOBuffer& buffer);

  StreamInfo& GetStreamInfo() { return streamInfo_; }
  const StreamInfo& GetStreamInfo() const { return streamInfo_; }
  uint8_t GetOutputBufferLevel(uint8_t level);
  void SetMaxAllowedDrift(const timestamp_t& drift) { maxAllowedDrift_ = drift; }
  const timestamp_t& GetMaxAllowedDrift() const { return maxAllowedDrift_; }
  bool IsDrifted() const;
  void ResetSyncMonitor();
  const sync_monitor_t& GetSyncMonitor() const { return syncMonitor_; }
  int64_t GetOutputBitrate() const { return outputSampler_.GetRate(); }
  void ResetOutputBitrate() { outputSampler_.Reset(); }
  void Close();

  // The stream's parts, for the encoder's statistics and for tests.
  BaseContainer* GetContainer() const { return container_; }
  const std::vector<BaseTransport*>& GetTransports() const { return transports_; }

 private:
  BandwidthSampler outputSampler_;
  Encoder* encoder_;
  std::vector<BaseTransport*> transports_;  // entries may be null
  BaseContainer* container_;
  StreamInfo streamInfo_;
  sync_monitor_t syncMonitor_;
  timestamp_t maxAllowedDrift_;
  bool invalidIngest_;
};

}  // namespace internal
}  // namespace encoder
}  // namespace vesk

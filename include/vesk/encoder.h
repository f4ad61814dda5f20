// The public entry point of libvesk_encoder: the Encoder, with the records,
// settings and messages a host needs.
#pragma once

#include <string>
#include <vector>

#include "vesk/host/log.h"
#include "vesk/messages.h"
#include "vesk/records.h"
#include "vesk/settings.h"
#include "vesk/streaminfo.h"

namespace vesk {
namespace encoder {

namespace internal {
class BaseTrackEncoderVideo;
class TrackEncoderAudio;
class OutStream;
}  // namespace internal

// The library's one object, owned by the host and driven from its pump thread.
// None of its operations lock: call every one of them from that thread.
class Encoder {
 public:
  static const unsigned kMaxOutStreams = 5;

  Encoder();
  // Close(), then stops the process-wide motion detection thread.
  virtual ~Encoder();
  Encoder(const Encoder&) = delete;
  Encoder& operator=(const Encoder&) = delete;

  // Full (re)start from settings; false after one log line naming the step
  // that failed. Video failing is fatal, audio failing is not.
  bool Configure(const EncoderSettings& settings, bool saveAsDefault);
  // Configure from the settings saved by the last Configure(..., true).
  bool ResetToDefaults();
  // Deletes the streams, then the video track, then the audio track.
  void Close();
  // One pump pass: every ready audio frame to every stream, at most one video
  // picture to its own stream, the drift check and the bit-rate adaptation.
  // The number of frames moved, or -1 when there is no track at all.
  int EncodeFrames();
  int EncodeAudioFrames();
  int EncodeVideoFrames();
  const EncoderSettings& GetCurrentSettings() const { return currentSettings_; }
  // The performance figure of the detected chip.
  static int GetVideoChipPerformance();
  // Whether the AAC encoder takes this audio (mode, sample rate, bit rate)
  // triplet; audio settings outside it leave the encoder without audio.
  static bool IsAudioTripletSupported(unsigned mode, unsigned sampleRate, unsigned bitRate);

  // Asks the video track for an IDR picture on all streams.
  bool ForceIDR();
  // Forwards a peer's report (level, rate in bits per second, whether the peer
  // asked for an IDR picture) to the video track.
  bool AdaptServerPlayerBitrate(unsigned int channel, signed char level, int bitrate,
                                bool resetOutputBitrate);

  // Output streams. streamSettings is one video stream's settings map.
  internal::OutStream* CreateOutStream(const vesk::variant::Variant& streamSettings,
                                       const vesk::variant::Variant& avSerializer);
  bool ConfigureOutStream(const vesk::variant::Variant& streamSettings);
  bool UpdateOutStream(vesk::variant::Variant& streamSettings,
                       const vesk::variant::Variant& avSerializer);
  bool ConfigureOutStreams();
  // The stream in a slot (null when empty), for hosts' status displays.
  const internal::OutStream* GetOutStream(unsigned slot) const;

  // Reads one decimal number from a text file (the hardware timer's files).
  static bool ReadHWClockFile(const char* path, long long& value);
  // The hardware timer's current tick count, with its frequency as timescale.
  // False, with out left not set, when either timer file cannot be read.
  static bool GetCurrentHWClock(timestamp_t* out);
  // Runtime changes: new settings for the tracks and a rebuild of the
  // affected streams; RestartStreams rebuilds the named streams' outputs.
  bool UpdateSettings(vesk::ipc::messages::ChangeVideoSettings& request);
  bool RestartStreams(vesk::ipc::messages::RestartStreams& request);
  // One line of bit-rate statistics per H.264 stream (three lines); level < 1
  // leaves lines untouched.
  void GetChannelsOSDStats(signed char level, std::vector<std::string>& lines);

  bool UpdateDriftAllowance();
  bool UpdateDriftAllowance(const vesk::variant::Variant& streamSettings,
                            const timestamp_t* audioFramePeriod);
  void RebaseTimestamps();

  // What a host's status display shows of the stream in a slot.
  struct stream_status_t {
    std::string name;                // the stream's name ("streamName" of its info)
    unsigned transports = 0;         // destinations still attached
    unsigned connected = 0;          // of those, the ones delivering now (TCP peers connected)
    long long outputBytesPerSecond = -1;  // over the last messages sent; -1 not measured yet
    timestamp_t lastVideo;           // presentation time of the last picture fed
    timestamp_t lastAudio;           // presentation time of the last audio frame fed
  };
  // False when the slot is empty or out of range.
  bool GetStreamStatus(unsigned slot, stream_status_t& status) const;

 private:
  void DeleteStream(unsigned slot);

  EncoderSettings defaultSettings_;
  EncoderSettings currentSettings_;
  internal::BaseTrackEncoderVideo* videoTrack_;
  internal::TrackEncoderAudio* audioTrack_;
  internal::OutStream* outStreams_[kMaxOutStreams];
};

}  // namespace encoder
}  // namespace vesk

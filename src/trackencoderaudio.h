// The audio track: owns the audio encoder worker built from the "audio"
// settings block and hands its frames to the encoder's pump.
#pragma once

#include "audioencoder.h"
#include "basetrackencoder.h"

namespace vesk {
namespace encoder {
namespace internal {

class TrackEncoderAudio : public BaseTrackEncoder {
 public:
  explicit TrackEncoderAudio(EncoderSettings& settings);
  ~TrackEncoderAudio() override;

  bool Initialize() override;
  bool StartEncoding() override;
  bool StopEncoding() override;
  // Applies the request's volume; a negative volume leaves it unchanged.
  bool UpdateSettings(vesk::ipc::messages::ChangeVideoSettings& request) override;

  // The next frame, valid until the next call; null when none is ready.
  audio_frame_t* GetFrame();
  bool Muted();
  void ForceTimestampsRebase();
  AudioEncoder* GetEncoder() { return encoder_; }

 private:
  AudioEncoder* encoder_;
};

}  // namespace internal
}  // namespace encoder
}  // namespace vesk

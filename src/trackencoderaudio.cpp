#include "trackencoderaudio.h"

#include "vlog.h"

namespace vesk {
namespace encoder {
namespace internal {

TrackEncoderAudio::TrackEncoderAudio(EncoderSettings& settings)
    : BaseTrackEncoder(settings), encoder_(nullptr) {}

TrackEncoderAudio::~TrackEncoderAudio() { AudioEncoder::FreeInstance(encoder_); }

bool TrackEncoderAudio::Initialize() {
  AudioEncoder::FreeInstance(encoder_);
  encoder_ = nullptr;
  int error = 0;
  encoder_ = AudioEncoder::GetInstance(settings_.audio(), error);
  if (encoder_ == nullptr) {
    VLOG_ERROR("Unable to obtain the audio encoder. Error was: %d", error);
    return false;
  }
  return true;
}

bool TrackEncoderAudio::StartEncoding() {
  if (encoder_ == nullptr) {
    VLOG_ERROR("No AAC encoder");
    return false;
  }
  // The first frame after a start is a fresh one.
  encoder_->DiscardExistingFrames();
  return true;
}

bool TrackEncoderAudio::StopEncoding() {
  AudioEncoder::FreeInstance(encoder_);
  encoder_ = nullptr;
  return true;
}

audio_frame_t* TrackEncoderAudio::GetFrame() {
  if (encoder_ == nullptr) {
    VLOG_ERROR("No AAC encoder");
    return nullptr;
  }
  int error = 0;
  audio_frame_t* frame = encoder_->GetFrame(true, error);
  if (frame == nullptr && error != 0)
    VLOG_WARN("Error occurred while trying to encode a frame. Error was: %d", error);
  return frame;
}

bool TrackEncoderAudio::Muted() {
  return encoder_ == nullptr || (encoder_->GetFlags() & AudioEncoder::FLAG_MUTED) != 0;
}

void TrackEncoderAudio::ForceTimestampsRebase() {
  if (encoder_ == nullptr) {
    VLOG_ERROR("No AAC encoder");
    return;
  }
  int err = encoder_->Rebase();
  if (err != 0) VLOG_ERROR("AAC encoder rebase failed. Error was: %d", err);
}

bool TrackEncoderAudio::UpdateSettings(vesk::ipc::messages::ChangeVideoSettings& request) {
  if (encoder_ == nullptr) {
    VLOG_ERROR("No AAC encoder");
    return false;
  }
  vesk::variant::Variant* audio = request.GetKeyChain(vesk::variant::V_MAP, "audio");
  int requested = -1;
  if (audio != nullptr && audio->HasKey("volume") && (*audio)["volume"].IsNumeric())
    requested = (signed char)(*audio)["volume"];
  if (requested < 0) return true;  // the volume is not to change

  unsigned current = settings_.audio().volume();
  unsigned wanted = (unsigned)requested;
  if (current == 0) {
    // Once muted at run time, the camera stays muted until initialised again.
    if (wanted != 0)
      VLOG_WARN("Camera is currently muted. Attempt to set the volume to %u is not allowed",
                wanted);
    return true;
  }
  if (wanted == current) return true;
  int err = encoder_->SetVolume(wanted);
  if (err != 0) {
    VLOG_ERROR("Unable to update the volume. Error was: %d", err);
    return false;
  }
  VLOG_INFO("PCM volume set to %u%%", wanted);
  return true;
}

}  // namespace internal
}  // namespace encoder
}  // namespace vesk

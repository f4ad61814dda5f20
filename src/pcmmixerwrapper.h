// Sets the capture volume through the ALSA mixer element "VESK_CVOLUME" of
// the control device "default".
#pragma once

#include <alsa/asoundlib.h>

namespace vesk {
namespace encoder {
namespace internal {

class pcm_mixer_wrapper_t {
 public:
  pcm_mixer_wrapper_t() : control_(nullptr) {}
  ~pcm_mixer_wrapper_t() { Close(); }
  pcm_mixer_wrapper_t(const pcm_mixer_wrapper_t&) = delete;
  pcm_mixer_wrapper_t& operator=(const pcm_mixer_wrapper_t&) = delete;

  // Caps volume at 100 (the caller sees the capped value) and writes the
  // element's raw value min + volume * (max - min) / 100 to both channels.
  // 0, or -1 after a log line.
  int SetVolume(unsigned& volume);

 private:
  void Close();
  snd_ctl_t* control_;
};

}  // namespace internal
}  // namespace encoder
}  // namespace vesk

#include "pcmmixerwrapper.h"

#include "vlog.h"

namespace vesk {
namespace encoder {
namespace internal {

void pcm_mixer_wrapper_t::Close() {
  if (control_ != nullptr) snd_ctl_close(control_);
  control_ = nullptr;
}

int pcm_mixer_wrapper_t::SetVolume(unsigned& volume) {
  Close();
  if (volume > 100) volume = 100;

  int err = snd_ctl_open(&control_, "default", 0);
  if (err < 0) {
    control_ = nullptr;
    VLOG_ERROR("snd_ctl_open failed. Error was: %d %s", err, snd_strerror(err));
    return -1;
  }

  snd_ctl_elem_id_t* id;
  snd_ctl_elem_info_t* info;
  snd_ctl_elem_value_t* value;
  snd_ctl_elem_id_alloca(&id);
  snd_ctl_elem_info_alloca(&info);
  snd_ctl_elem_value_alloca(&value);
  snd_ctl_elem_id_set_interface(id, SND_CTL_ELEM_IFACE_MIXER);
  snd_ctl_elem_id_set_name(id, "VESK_CVOLUME");
  snd_ctl_elem_info_set_id(info, id);
  err = snd_ctl_elem_info(control_, info);
  if (err < 0) {
    VLOG_ERROR("snd_ctl_elem_info failed. Error was: %d %s", err, snd_strerror(err));
    Close();
    return -1;
  }

  long minimum = snd_ctl_elem_info_get_min(info);
  long maximum = snd_ctl_elem_info_get_max(info);
  long raw = minimum + (long)volume * (maximum - minimum) / 100;
  if (raw < minimum) raw = minimum;
  if (raw > maximum) raw = maximum;

  snd_ctl_elem_value_set_id(value, id);
  snd_ctl_elem_value_set_integer(value, 0, raw);
  snd_ctl_elem_value_set_integer(value, 1, raw);
  err = snd_ctl_elem_write(control_, value);
  if (err < 0) {
    VLOG_ERROR("snd_ctl_elem_write failed. Error was: %d %s", err, snd_strerror(err));
    Close();
    return -1;
  }
  Close();
  return 0;
}

}  // namespace internal
}  // namespace encoder
}  // namespace vesk

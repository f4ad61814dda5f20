#include "pcmwrapper.h"

#include "vesk/encoder.h"
#include "vlog.h"

namespace vesk {
namespace encoder {
namespace internal {

pcm_wrapper_t::pcm_wrapper_t()
    : hwParams_(nullptr),
      pcm_(nullptr),
      sampleRate_(0),
      channels_(0),
      volume_(0),
      framesPerBlock_(0),
      bufferBytes_(0),
      timeBase_(-1),
      samplesRead_(0) {}

pcm_wrapper_t::~pcm_wrapper_t() { Stop(); }

void pcm_wrapper_t::Stop() {
  if (pcm_ != nullptr) snd_pcm_close(pcm_);
  pcm_ = nullptr;
  if (hwParams_ != nullptr) snd_pcm_hw_params_free(hwParams_);
  hwParams_ = nullptr;
}

// Logs one ALSA failure with its error number and text; true when err failed.
#define PCM_FAILED(call, err)                                                       \
  ((err) < 0 ? (VLOG_ERROR(call " failed. Error was: %d %s", (err), snd_strerror(err)), true) \
             : false)

int pcm_wrapper_t::Configure() {
  int err = snd_pcm_open(&pcm_, "vesk_capture", SND_PCM_STREAM_CAPTURE, 0);
  if (PCM_FAILED("snd_pcm_open", err)) {
    pcm_ = nullptr;
    return -1;
  }
  err = snd_pcm_hw_params_malloc(&hwParams_);
  if (PCM_FAILED("snd_pcm_hw_params_malloc", err)) {
    hwParams_ = nullptr;
    return -1;
  }
  err = snd_pcm_hw_params_any(pcm_, hwParams_);
  if (PCM_FAILED("snd_pcm_hw_params_any", err)) return -1;
  err = snd_pcm_hw_params_set_access(pcm_, hwParams_, SND_PCM_ACCESS_RW_INTERLEAVED);
  if (PCM_FAILED("snd_pcm_hw_params_set_access", err)) return -1;
  err = snd_pcm_hw_params_set_format(pcm_, hwParams_, SND_PCM_FORMAT_S16_LE);
  if (PCM_FAILED("snd_pcm_hw_params_set_format", err)) return -1;
  err = snd_pcm_hw_params_set_rate_resample(pcm_, hwParams_, 0);
  if (PCM_FAILED("snd_pcm_hw_params_set_rate_resample", err)) return -1;

  unsigned granted = sampleRate_;
  err = snd_pcm_hw_params_set_rate_near(pcm_, hwParams_, &granted, nullptr);
  if (PCM_FAILED("snd_pcm_hw_params_set_rate_near", err)) return -1;
  // Time stamps count samples, so the capture rate must be exact.
  if (granted != sampleRate_) {
    VLOG_ERROR("We have requested %uHz sampling rate but ALSA set %uHz. Abort!", sampleRate_,
               granted);
    return -1;
  }

  err = snd_pcm_hw_params_set_channels(pcm_, hwParams_, channels_);
  if (PCM_FAILED("snd_pcm_hw_params_set_channels", err)) return -1;
  err = snd_pcm_hw_params(pcm_, hwParams_);
  if (PCM_FAILED("snd_pcm_hw_params", err)) return -1;
  err = snd_pcm_prepare(pcm_);
  if (PCM_FAILED("snd_pcm_prepare", err)) return -1;
  err = snd_pcm_start(pcm_);
  if (PCM_FAILED("snd_pcm_start", err)) return -1;
  return 0;
}

int pcm_wrapper_t::Start(unsigned sampleRate, unsigned channels, unsigned volume,
                         unsigned framesPerBlock) {
  Stop();
  sampleRate_ = sampleRate;
  channels_ = channels;
  {
    std::lock_guard<std::mutex> lock(volumeMutex_);
    volume_ = volume;
  }
  framesPerBlock_ = framesPerBlock;
  bufferBytes_ = framesPerBlock * channels * 2;
  buffer_.assign(bufferBytes_, 0);
  return Open();
}

int pcm_wrapper_t::Open() {
  if (Configure() != 0) {
    Stop();
    return -1;
  }

  timestamp_t clock;
  if (!Encoder::GetCurrentHWClock(&clock)) {
    VLOG_ERROR("Unable to obtain the current value of the HW clock");
    Stop();
    return -1;
  }
  if (clock.value < 0 || clock.timescale == 0 || sampleRate_ == 0)
    timeBase_ = -1;
  else
    timeBase_ = RescaleTimestamp(clock.value, clock.timescale, sampleRate_);
  samplesRead_ = 0;

  int err = 0;
  {
    std::lock_guard<std::mutex> lock(volumeMutex_);
    unsigned v = volume_;
    err = SetVolumeLocked(v);
  }
  if (err != 0) {
    VLOG_ERROR("Unable to set volume. Error was: %d", err);
    Stop();
    return -1;
  }
  return 0;
}

int pcm_wrapper_t::Restart() {
  Stop();
  int err = Open();
  if (err != 0) VLOG_ERROR("Unable to start the PCM wrapper. Error was: %d", err);
  return err;
}

const unsigned char* pcm_wrapper_t::Read(long long& timestamp, int& error) {
  error = 0;
  if (buffer_.empty() || pcm_ == nullptr) {
    VLOG_ERROR("No available buffer");
    error = -1;
    return nullptr;
  }
  snd_pcm_sframes_t got = snd_pcm_readi(pcm_, buffer_.data(), framesPerBlock_);
  if (got != (snd_pcm_sframes_t)framesPerBlock_) {
    error = (int)got;
    VLOG_ERROR("snd_pcm_readi failed. Error was: %d", error);
    return nullptr;
  }
  samplesRead_ += framesPerBlock_;
  timestamp = timeBase_ + (long long)samplesRead_;
  return buffer_.data();
}

int pcm_wrapper_t::SetVolume(unsigned& volume) {
  std::lock_guard<std::mutex> lock(volumeMutex_);
  return SetVolumeLocked(volume);
}

int pcm_wrapper_t::SetVolumeLocked(unsigned& volume) {
  int err = mixer_.SetVolume(volume);
  if (err != 0) {
    VLOG_ERROR("Unable to set the PCM volume. Error was: %d", err);
    return err;
  }
  volume_ = volume;
  return 0;
}

}  // namespace internal
}  // namespace encoder
}  // namespace vesk

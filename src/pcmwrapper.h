// The ALSA capture device "vesk_capture": fixed-size blocks of interleaved
// signed 16-bit samples, each stamped in samples from the hardware clock
// taken at start.
#pragma once

#include <alsa/asoundlib.h>

#include <cstdint>
#include <mutex>
#include <vector>

#include "pcmmixerwrapper.h"

namespace vesk {
namespace encoder {
namespace internal {

class pcm_wrapper_t {
 public:
  pcm_wrapper_t();
  ~pcm_wrapper_t();
  pcm_wrapper_t(const pcm_wrapper_t&) = delete;
  pcm_wrapper_t& operator=(const pcm_wrapper_t&) = delete;

  // Opens, configures (exact rate) and starts the capture, takes the time
  // base from the hardware clock and sets the volume. 0, or -1 after a log line.
  int Start(unsigned sampleRate, unsigned channels, unsigned volume, unsigned framesPerBlock);
  // Stop, then Start with the stored parameters and the latest volume.
  int Restart();
  // Closes the device; safe to call twice.
  void Stop();
  // One block of framesPerBlock frames, stamped with the sample position of
  // its end; null with error set on failure.
  const unsigned char* Read(long long& timestamp, int& error);
  // Any thread: the volume and the mixer are guarded against a restart on
  // the capture thread.
  int SetVolume(unsigned& volume);

  unsigned SampleRate() const { return sampleRate_; }
  unsigned Channels() const { return channels_; }
  unsigned FramesPerBlock() const { return framesPerBlock_; }
  unsigned BufferBytes() const { return bufferBytes_; }
  int64_t TimeBase() const { return timeBase_; }
  uint64_t SamplesRead() const { return samplesRead_; }

 private:
  int Configure();
  // Opens the device with the stored parameters (Start without them).
  int Open();
  int SetVolumeLocked(unsigned& volume);

  snd_pcm_hw_params_t* hwParams_;
  snd_pcm_t* pcm_;
  unsigned sampleRate_;
  unsigned channels_;
  unsigned volume_;
  unsigned framesPerBlock_;
  std::vector<unsigned char> buffer_;
  unsigned bufferBytes_;
  int64_t timeBase_;
  uint64_t samplesRead_;
  std::mutex volumeMutex_;  // guards volume_ and mixer_
  pcm_mixer_wrapper_t mixer_;
};

}  // namespace internal
}  // namespace encoder
}  // namespace vesk

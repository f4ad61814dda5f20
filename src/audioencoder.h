// The "audio_encoder" worker: reads PCM blocks from the capture device, mixes
// in talkback from a FIFO, encodes AAC and queues frames for the audio track.
// Frames are recycled through a free pool; at most 8 wait to be collected.
#pragma once

#include <cstdio>
#include <map>
#include <memory>
#include <vector>

#include "aacwrapper.h"
#include "bitratelimits.h"
#include "pcmwrapper.h"
#include "thread.h"
#include "virtualmic.h"
#include "vesk/records.h"
#include "vesk/settings/audioencodersettings.h"

namespace vesk {
namespace encoder {
namespace internal {

class AudioEncoder : public Thread {
 public:
  enum : unsigned {
    FLAG_MUST_EXIT = 1u << 0,
    FLAG_RESTART = 1u << 1,
    FLAG_MUTED = 1u << 2,
  };
  static const unsigned kMaxReadyFrames = 8;
  static constexpr const char* kTalkbackFifo = "/var/run/emulated_spk";
  static constexpr const char* kLifeCycleFile = "/tmp/audio_th_life_cycle";

  // Builds and initialises an encoder; null (error set) after a log line.
  static AudioEncoder* GetInstance(AudioEncoderSettings& settings, int& error);
  static void FreeInstance(AudioEncoder* encoder);
  ~AudioEncoder() override;

  void SetMustExit(bool mustExit) override;
  void Work() override;

  int Initialize();
  int ValidateSettings(unsigned mode, unsigned sampleRate, unsigned bitRate);
  // Whether the AAC encoder takes this (mode, sample rate, bit rate) triplet.
  static bool IsSupportedTriplet(unsigned mode, unsigned sampleRate, unsigned bitRate);
  // The oldest ready frame, now owned by the caller until its next call with
  // releasePrevious true; null when none is ready.
  audio_frame_t* GetFrame(bool releasePrevious, int& error);
  int Rebase();
  void DiscardExistingFrames();
  unsigned GetFlags();
  int SetVolume(unsigned volume);
  int SetBitRate(unsigned bitRate);
  // Sums two blocks of signed 16-bit samples and halves them (arithmetic shift).
  static unsigned char* Mix(const unsigned char* microphone, const unsigned char* talkback,
                            unsigned char* out, unsigned samples);
  audio_frame_t* CreateFrame();

 private:
  explicit AudioEncoder(AudioEncoderSettings& settings);
  int InitPCM();
  int InitAAC();
  void ReleaseFrame(audio_frame_t* frame);
  // Restarts the capture after a failure: false when the restart failed.
  bool RecoverCapture();
  void EncodeAndQueue(const unsigned char* block, const unsigned char* mixed, long long timestamp,
                      unsigned sampleRate, bool muted);
  void ExitSequence();
  void LifeLog(int line, const char* format, ...) __attribute__((format(printf, 3, 4)));

  AudioEncoderSettings& settings_;
  unsigned flags_;  // mutex held
  VirtualMic virtualMic_;
  std::map<int, std::map<unsigned, bitrate_limits_t>> bitrateLimits_;
  std::unique_ptr<pcm_wrapper_t> pcm_;
  std::unique_ptr<aac_wrapper_t> aac_;
  std::unique_ptr<aac_wrapper_t> aacMixed_;
  std::vector<audio_frame_t*> readyFrames_;  // mutex held
  std::vector<audio_frame_t*> takenFrames_;  // mutex held
  std::vector<audio_frame_t*> freeFrames_;   // mutex held
  FILE* lifeCycle_;                          // worker thread only
};

}  // namespace internal
}  // namespace encoder
}  // namespace vesk

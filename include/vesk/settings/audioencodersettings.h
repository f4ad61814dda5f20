// The AAC audio encoder, stored under "audio". The final choice of mode, rate and
// bit rate against the AAC encoder's limits is the audio track's.
#pragma once

#include <string>

#include "vesk/settings/baseencodersettings.h"

namespace vesk {
namespace encoder {

class AudioEncoderSettings : public BaseEncoderSettings {
 public:
  AudioEncoderSettings();  // an empty map
  AudioEncoderSettings(const vesk::variant::Variant& value);
  using BaseEncoderSettings::operator=;
  ~AudioEncoderSettings() override;

  // Repairs "type", "mode", "channels", "sampleRate", "bitRate", "quality",
  // "enableTemporalNoiseShaping", "volume" in this order, then those of BaseEncoderSettings.
  bool NormalizeFields() override;

  // Allowed values, in the order they are matched.
  static constexpr const char* kTypeValues[] = {"aac"};
  static constexpr unsigned int kSampleRateValues[] = {8000,  11025, 12000, 16000, 22050,
                                                       24000, 32000, 44100, 48000};

  // Get-or-insert accessors: a missing or wrongly typed value is replaced by
  // its default first.
  std::string type();
  unsigned char mode();
  unsigned char channels();
  unsigned int sampleRate();
  unsigned int bitRate();
  unsigned char quality();
  bool enableTemporalNoiseShaping();
  unsigned char volume();
};

}  // namespace encoder
}  // namespace vesk

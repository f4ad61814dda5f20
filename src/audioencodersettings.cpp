// AudioEncoderSettings: defaults and rules of its keys.
#include "vesk/settings/audioencodersettings.h"

#include "settingsrules.h"

namespace vesk {
namespace encoder {

using namespace internal;
using vesk::variant::Variant;

AudioEncoderSettings::AudioEncoderSettings() {}

AudioEncoderSettings::AudioEncoderSettings(const Variant& value) : BaseEncoderSettings(value) {}

AudioEncoderSettings::~AudioEncoderSettings() {}

bool AudioEncoderSettings::NormalizeFields() {
  StoreOneOf(*this, "type", type(), kTypeValues);
  StoreAtMost(*this, "mode", mode(), 2);
  StoreZeroReplaced(*this, "channels", channels(), 1, 2);
  StoreLargestNotAbove(*this, "sampleRate", sampleRate(), kSampleRateValues);
  StoreClamped(*this, "bitRate", bitRate(), 7999, 160000);
  StoreAtMost(*this, "quality", quality(), 2);
  StoreValue(*this, "enableTemporalNoiseShaping", enableTemporalNoiseShaping());
  StoreAtMost(*this, "volume", volume(), 100);
  return BaseEncoderSettings::NormalizeFields();
}

std::string AudioEncoderSettings::type() { return ReadString(*this, "type", kTypeValues[0]); }
unsigned char AudioEncoderSettings::mode() { return ReadNumber<unsigned char>(*this, "mode", 1); }
unsigned char AudioEncoderSettings::channels() {
  return ReadNumber<unsigned char>(*this, "channels", 1);
}
unsigned int AudioEncoderSettings::sampleRate() {
  return ReadNumber<unsigned int>(*this, "sampleRate", 11025);
}
unsigned int AudioEncoderSettings::bitRate() {
  return ReadNumber<unsigned int>(*this, "bitRate", 7999);
}
unsigned char AudioEncoderSettings::quality() {
  return ReadNumber<unsigned char>(*this, "quality", 0);
}
bool AudioEncoderSettings::enableTemporalNoiseShaping() {
  return ReadBool(*this, "enableTemporalNoiseShaping", false);
}
unsigned char AudioEncoderSettings::volume() {
  return ReadNumber<unsigned char>(*this, "volume", 50);
}

}  // namespace encoder
}  // namespace vesk

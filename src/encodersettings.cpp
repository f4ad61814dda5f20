// EncoderSettings: defaults and rules of its keys.
#include "vesk/settings/encodersettings.h"

#include "settingsrules.h"

namespace vesk {
namespace encoder {

using namespace internal;
using vesk::variant::Variant;

EncoderSettings::EncoderSettings() {}

EncoderSettings::EncoderSettings(const Variant& value) : BaseVariantContainer(value) {}

EncoderSettings::~EncoderSettings() {}

bool EncoderSettings::NormalizeFields() {
  StoreValue(*this, "firmwarePath", firmwarePath());
  chip().NormalizeFields();
  audio().NormalizeFields();
  video().NormalizeFields();
  return BaseVariantContainer::NormalizeFields();
}

std::string EncoderSettings::firmwarePath() {
  return ReadString(*this, "firmwarePath", "/lib/firmware/");
}
ChipSettings& EncoderSettings::chip() { return ReadChild<ChipSettings>(*this, "chip"); }
AudioEncoderSettings& EncoderSettings::audio() {
  return ReadChild<AudioEncoderSettings>(*this, "audio");
}
VideoEncoderSettings& EncoderSettings::video() {
  return ReadChild<VideoEncoderSettings>(*this, "video");
}

}  // namespace encoder
}  // namespace vesk

// The root of the encoder configuration that the host hands to the Encoder:
// firmware path, chip set-up, audio encoder and video encoders.
#pragma once

#include <string>

#include "vesk/settings/audioencodersettings.h"
#include "vesk/settings/chipsettings.h"
#include "vesk/settings/videoencodersettings.h"
#include "vesk/variant/basevariantcontainer.h"

namespace vesk {
namespace encoder {

class EncoderSettings : public vesk::variant::BaseVariantContainer {
 public:
  EncoderSettings();  // an empty map
  EncoderSettings(const vesk::variant::Variant& value);
  using vesk::variant::BaseVariantContainer::operator=;
  ~EncoderSettings() override;

  // Repairs "firmwarePath", "chip", "audio", "video" in this order, then makes sure the value is a
  // map.
  bool NormalizeFields() override;

  // Get-or-insert accessors: a missing or wrongly typed value is replaced by
  // its default first. A child is returned in place, as an object of its class.
  std::string firmwarePath();
  ChipSettings& chip();
  AudioEncoderSettings& audio();
  VideoEncoderSettings& video();
};

}  // namespace encoder
}  // namespace vesk

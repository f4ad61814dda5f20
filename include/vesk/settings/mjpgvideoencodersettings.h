// An MJPEG channel ("mjpg", "mjpg1", "mjpg2").
#pragma once

#include <string>

#include "vesk/settings/basevideoencodersettings.h"

namespace vesk {
namespace encoder {

class MJPGVideoEncoderSettings : public BaseVideoEncoderSettings {
 public:
  MJPGVideoEncoderSettings();  // an empty map
  MJPGVideoEncoderSettings(const vesk::variant::Variant& value);
  using BaseVideoEncoderSettings::operator=;
  ~MJPGVideoEncoderSettings() override;

  // Repairs "type", "quality" in this order, then those of BaseVideoEncoderSettings.
  bool NormalizeFields() override;

  // Allowed values, in the order they are matched.
  static constexpr const char* kTypeValues[] = {"mjpg"};

  // Get-or-insert accessors: a missing or wrongly typed value is replaced by
  // its default first.
  std::string type();
  unsigned char quality();
};

}  // namespace encoder
}  // namespace vesk

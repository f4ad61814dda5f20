// An H.264 channel ("video1" to "video3"). "M" and "N" are the GOP shape handed
// to the chip; the GOP-model table has no 5, and that gap is the program's own.
#pragma once

#include <string>

#include "vesk/settings/basevideoencodersettings.h"

namespace vesk {
namespace encoder {

class H264VideoEncoderSettings : public BaseVideoEncoderSettings {
 public:
  H264VideoEncoderSettings();  // an empty map
  H264VideoEncoderSettings(const vesk::variant::Variant& value);
  using BaseVideoEncoderSettings::operator=;
  ~H264VideoEncoderSettings() override;

  // Repairs "type", "verticalFlip", "horizontalFlip", "M", "N", "nMultiplier", "gopModel" in this
  // order, then those of BaseVideoEncoderSettings.
  bool NormalizeFields() override;

  // Allowed values, in the order they are matched.
  static constexpr const char* kTypeValues[] = {"h264"};
  static constexpr unsigned int kGopModelValues[] = {0, 1, 2, 3, 4, 6, 7};

  // Get-or-insert accessors: a missing or wrongly typed value is replaced by
  // its default first.
  std::string type();
  bool verticalFlip();
  bool horizontalFlip();
  unsigned int M();
  unsigned int N();
  unsigned int nMultiplier();
  unsigned int gopModel();
};

}  // namespace encoder
}  // namespace vesk

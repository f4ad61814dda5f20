// A video input ("vin0", "vin1"). The chip layer validates the numbers against
// the hardware; here they are only made present.
#pragma once

#include "vesk/settings/basechipsettings.h"

namespace vesk {
namespace encoder {

class BaseVinSettings : public BaseChipSettings {
 public:
  BaseVinSettings();  // an empty map
  BaseVinSettings(const vesk::variant::Variant& value);
  using BaseChipSettings::operator=;
  ~BaseVinSettings() override;

  // Repairs "vsrcId", "width", "height", "vsrcCtxSwitch", "hdrMode", "fps" in this order, then
  // those of BaseChipSettings.
  bool NormalizeFields() override;

  // Get-or-insert accessors: a missing or wrongly typed value is replaced by
  // its default first.
  unsigned int vsrcId();
  unsigned int width();
  unsigned int height();
  unsigned char vsrcCtxSwitch();
  unsigned char hdrMode();
  unsigned short fps();
};

}  // namespace encoder
}  // namespace vesk

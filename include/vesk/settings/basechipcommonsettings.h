// The chip's common switch: -1 (leave the chip's own setting), 0 or 1.
#pragma once

#include "vesk/variant/basevariantcontainer.h"

namespace vesk {
namespace encoder {

class BaseChipCommonSettings : public vesk::variant::BaseVariantContainer {
 public:
  BaseChipCommonSettings();  // an empty map
  BaseChipCommonSettings(const vesk::variant::Variant& value);
  using vesk::variant::BaseVariantContainer::operator=;
  ~BaseChipCommonSettings() override;

  // Repairs "vsync_detection_disable" in this order, then makes sure the value is a map.
  bool NormalizeFields() override;

  // Get-or-insert accessors: a missing or wrongly typed value is replaced by
  // its default first.
  signed char vsync_detection_disable();
};

}  // namespace encoder
}  // namespace vesk

// The chip's debug switch: -1 (leave the chip's own setting), 0 or 1.
#pragma once

#include "vesk/variant/basevariantcontainer.h"

namespace vesk {
namespace encoder {

class BaseChipDebugSettings : public vesk::variant::BaseVariantContainer {
 public:
  BaseChipDebugSettings();  // an empty map
  BaseChipDebugSettings(const vesk::variant::Variant& value);
  using vesk::variant::BaseVariantContainer::operator=;
  ~BaseChipDebugSettings() override;

  // Repairs "check_disable" in this order, then makes sure the value is a map.
  bool NormalizeFields() override;

  // Get-or-insert accessors: a missing or wrongly typed value is replaced by
  // its default first.
  signed char check_disable();
};

}  // namespace encoder
}  // namespace vesk

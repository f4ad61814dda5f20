// The common tail of every vin, channel, buffer and canvas block.
#pragma once

#include <string>

#include "vesk/variant/basevariantcontainer.h"

namespace vesk {
namespace encoder {

class BaseChipSettings : public vesk::variant::BaseVariantContainer {
 public:
  BaseChipSettings();  // an empty map
  BaseChipSettings(const vesk::variant::Variant& value);
  using vesk::variant::BaseVariantContainer::operator=;
  ~BaseChipSettings() override;

  // Repairs "description", "enabled", "id" in this order, then makes sure the value is a map.
  bool NormalizeFields() override;

  // Get-or-insert accessors: a missing or wrongly typed value is replaced by
  // its default first.
  std::string description();
  bool enabled();
  unsigned char id();
};

}  // namespace encoder
}  // namespace vesk

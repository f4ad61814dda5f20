// The chip part of a runtime change: one block per video input.
#pragma once

#include "vesk/messages/chipvinsettingselement.h"
#include "vesk/variant/basevariantcontainer.h"

namespace vesk {
namespace ipc {
namespace messages {

class ChipSettings : public vesk::variant::BaseVariantContainer {
 public:
  ChipSettings();  // an empty map
  ChipSettings(const vesk::variant::Variant& value);
  using vesk::variant::BaseVariantContainer::operator=;
  ~ChipSettings() override;

  // Repairs "vin0", "vin1" in this order, then makes sure the value is a map.
  bool NormalizeFields() override;

  // Get-or-insert accessors: a missing or wrongly typed value is replaced by
  // its default first. A child is returned in place, as an object of its class.
  ChipVinSettingsElement& vin0();
  ChipVinSettingsElement& vin1();
};

}  // namespace messages
}  // namespace ipc
}  // namespace vesk

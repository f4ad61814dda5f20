// A video input's runtime change: its HDR mode, -1 meaning "leave it".
#pragma once

#include "vesk/variant/basevariantcontainer.h"

namespace vesk {
namespace ipc {
namespace messages {

class ChipVinSettingsElement : public vesk::variant::BaseVariantContainer {
 public:
  ChipVinSettingsElement();  // an empty map
  ChipVinSettingsElement(const vesk::variant::Variant& value);
  using vesk::variant::BaseVariantContainer::operator=;
  ~ChipVinSettingsElement() override;

  // Repairs "hdrMode" in this order, then makes sure the value is a map.
  bool NormalizeFields() override;

  // Get-or-insert accessors: a missing or wrongly typed value is replaced by
  // its default first.
  signed char hdrMode();
};

}  // namespace messages
}  // namespace ipc
}  // namespace vesk

// One source of a canvas: a channel's buffer.
#pragma once

#include "vesk/variant/basevariantcontainer.h"

namespace vesk {
namespace encoder {

class CanvasSourceSettings : public vesk::variant::BaseVariantContainer {
 public:
  CanvasSourceSettings();  // an empty map
  CanvasSourceSettings(const vesk::variant::Variant& value);
  using vesk::variant::BaseVariantContainer::operator=;
  ~CanvasSourceSettings() override;

  // Repairs "chanId", "bufferId", "enabled" in this order, then makes sure the value is a map.
  bool NormalizeFields() override;

  // Get-or-insert accessors: a missing or wrongly typed value is replaced by
  // its default first.
  unsigned char chanId();
  unsigned char bufferId();
  bool enabled();
};

}  // namespace encoder
}  // namespace vesk

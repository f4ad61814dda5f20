// The rectangle a source buffer outputs.
#pragma once

#include "vesk/variant/basevariantcontainer.h"

namespace vesk {
namespace encoder {

class BufferGeomSettings : public vesk::variant::BaseVariantContainer {
 public:
  BufferGeomSettings();  // an empty map
  BufferGeomSettings(const vesk::variant::Variant& value);
  using vesk::variant::BaseVariantContainer::operator=;
  ~BufferGeomSettings() override;

  // Repairs "x", "y", "width", "height" in this order, then makes sure the value is a map.
  bool NormalizeFields() override;

  // Get-or-insert accessors: a missing or wrongly typed value is replaced by
  // its default first.
  unsigned int x();
  unsigned int y();
  unsigned int width();
  unsigned int height();
};

}  // namespace encoder
}  // namespace vesk

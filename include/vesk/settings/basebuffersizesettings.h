// The largest size a source buffer is set up for.
#pragma once

#include "vesk/variant/basevariantcontainer.h"

namespace vesk {
namespace encoder {

class BaseBufferSizeSettings : public vesk::variant::BaseVariantContainer {
 public:
  BaseBufferSizeSettings();  // an empty map
  BaseBufferSizeSettings(const vesk::variant::Variant& value);
  using vesk::variant::BaseVariantContainer::operator=;
  ~BaseBufferSizeSettings() override;

  // Repairs "width", "height" in this order, then makes sure the value is a map.
  bool NormalizeFields() override;

  // Get-or-insert accessors: a missing or wrongly typed value is replaced by
  // its default first.
  unsigned int width();
  unsigned int height();
};

}  // namespace encoder
}  // namespace vesk

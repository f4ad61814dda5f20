// A canvas ("canvas0" to "canvas4") and its two sources.
#pragma once

#include "vesk/settings/basechipsettings.h"
#include "vesk/settings/canvassourcesettings.h"

namespace vesk {
namespace encoder {

class BaseCanvasSettings : public BaseChipSettings {
 public:
  BaseCanvasSettings();  // an empty map
  BaseCanvasSettings(const vesk::variant::Variant& value);
  using BaseChipSettings::operator=;
  ~BaseCanvasSettings() override;

  // Repairs "extraDramBuf", "source0", "source1", "canvasId" in this order, then those of
  // BaseChipSettings.
  bool NormalizeFields() override;

  // Get-or-insert accessors: a missing or wrongly typed value is replaced by
  // its default first. A child is returned in place, as an object of its class.
  unsigned char extraDramBuf();
  CanvasSourceSettings& source0();
  CanvasSourceSettings& source1();
  unsigned char canvasId();
};

}  // namespace encoder
}  // namespace vesk

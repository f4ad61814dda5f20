// The chip set-up, stored under "chip": debug and common switches, video
// inputs, channels and canvases.
#pragma once

#include "vesk/settings/basecanvassettings.h"
#include "vesk/settings/basechansettings.h"
#include "vesk/settings/basechipcommonsettings.h"
#include "vesk/settings/basechipdebugsettings.h"
#include "vesk/settings/basevinsettings.h"
#include "vesk/variant/basevariantcontainer.h"

namespace vesk {
namespace encoder {

class ChipSettings : public vesk::variant::BaseVariantContainer {
 public:
  ChipSettings();  // an empty map
  ChipSettings(const vesk::variant::Variant& value);
  using vesk::variant::BaseVariantContainer::operator=;
  ~ChipSettings() override;

  // Repairs "debug", "common", "vin0", "vin1", "chan0", "chan1", "canvas0", "canvas1", "canvas2",
  // "canvas3", "canvas4" in this order, then makes sure the value is a map.
  bool NormalizeFields() override;

  // Get-or-insert accessors: a missing or wrongly typed value is replaced by
  // its default first. A child is returned in place, as an object of its class.
  BaseChipDebugSettings& debug();
  BaseChipCommonSettings& common();
  BaseVinSettings& vin0();
  BaseVinSettings& vin1();
  BaseChanSettings& chan0();
  BaseChanSettings& chan1();
  BaseCanvasSettings& canvas0();
  BaseCanvasSettings& canvas1();
  BaseCanvasSettings& canvas2();
  BaseCanvasSettings& canvas3();
  BaseCanvasSettings& canvas4();
};

}  // namespace encoder
}  // namespace vesk

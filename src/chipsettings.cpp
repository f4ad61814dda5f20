// ChipSettings: defaults and rules of its keys.
#include "vesk/settings/chipsettings.h"

#include "settingsrules.h"

namespace vesk {
namespace encoder {

using namespace internal;
using vesk::variant::Variant;

ChipSettings::ChipSettings() {}

ChipSettings::ChipSettings(const Variant& value) : BaseVariantContainer(value) {}

ChipSettings::~ChipSettings() {}

bool ChipSettings::NormalizeFields() {
  debug().NormalizeFields();
  common().NormalizeFields();
  vin0().NormalizeFields();
  vin1().NormalizeFields();
  chan0().NormalizeFields();
  chan1().NormalizeFields();
  canvas0().NormalizeFields();
  canvas1().NormalizeFields();
  canvas2().NormalizeFields();
  canvas3().NormalizeFields();
  canvas4().NormalizeFields();
  return BaseVariantContainer::NormalizeFields();
}

BaseChipDebugSettings& ChipSettings::debug() {
  return ReadChild<BaseChipDebugSettings>(*this, "debug");
}
BaseChipCommonSettings& ChipSettings::common() {
  return ReadChild<BaseChipCommonSettings>(*this, "common");
}
BaseVinSettings& ChipSettings::vin0() { return ReadChild<BaseVinSettings>(*this, "vin0"); }
BaseVinSettings& ChipSettings::vin1() { return ReadChild<BaseVinSettings>(*this, "vin1"); }
BaseChanSettings& ChipSettings::chan0() { return ReadChild<BaseChanSettings>(*this, "chan0"); }
BaseChanSettings& ChipSettings::chan1() { return ReadChild<BaseChanSettings>(*this, "chan1"); }
BaseCanvasSettings& ChipSettings::canvas0() {
  return ReadChild<BaseCanvasSettings>(*this, "canvas0");
}
BaseCanvasSettings& ChipSettings::canvas1() {
  return ReadChild<BaseCanvasSettings>(*this, "canvas1");
}
BaseCanvasSettings& ChipSettings::canvas2() {
  return ReadChild<BaseCanvasSettings>(*this, "canvas2");
}
BaseCanvasSettings& ChipSettings::canvas3() {
  return ReadChild<BaseCanvasSettings>(*this, "canvas3");
}
BaseCanvasSettings& ChipSettings::canvas4() {
  return ReadChild<BaseCanvasSettings>(*this, "canvas4");
}

}  // namespace encoder
}  // namespace vesk

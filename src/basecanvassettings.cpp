// BaseCanvasSettings: defaults and rules of its keys.
#include "vesk/settings/basecanvassettings.h"

#include "settingsrules.h"

namespace vesk {
namespace encoder {

using namespace internal;
using vesk::variant::Variant;

BaseCanvasSettings::BaseCanvasSettings() {}

BaseCanvasSettings::BaseCanvasSettings(const Variant& value) : BaseChipSettings(value) {}

BaseCanvasSettings::~BaseCanvasSettings() {}

bool BaseCanvasSettings::NormalizeFields() {
  StoreValue(*this, "extraDramBuf", extraDramBuf());
  source0().NormalizeFields();
  source1().NormalizeFields();
  StoreValue(*this, "canvasId", canvasId());
  return BaseChipSettings::NormalizeFields();
}

unsigned char BaseCanvasSettings::extraDramBuf() {
  return ReadNumber<unsigned char>(*this, "extraDramBuf", 0);
}
CanvasSourceSettings& BaseCanvasSettings::source0() {
  return ReadChild<CanvasSourceSettings>(*this, "source0");
}
CanvasSourceSettings& BaseCanvasSettings::source1() {
  return ReadChild<CanvasSourceSettings>(*this, "source1");
}
unsigned char BaseCanvasSettings::canvasId() {
  return ReadNumber<unsigned char>(*this, "canvasId", 0);
}

}  // namespace encoder
}  // namespace vesk

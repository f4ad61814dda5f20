// CanvasSourceSettings: defaults and rules of its keys.
#include "vesk/settings/canvassourcesettings.h"

#include "settingsrules.h"

namespace vesk {
namespace encoder {

using namespace internal;
using vesk::variant::Variant;

CanvasSourceSettings::CanvasSourceSettings() {}

CanvasSourceSettings::CanvasSourceSettings(const Variant& value) : BaseVariantContainer(value) {}

CanvasSourceSettings::~CanvasSourceSettings() {}

bool CanvasSourceSettings::NormalizeFields() {
  StoreValue(*this, "chanId", chanId());
  StoreValue(*this, "bufferId", bufferId());
  StoreValue(*this, "enabled", enabled());
  return BaseVariantContainer::NormalizeFields();
}

unsigned char CanvasSourceSettings::chanId() {
  return ReadNumber<unsigned char>(*this, "chanId", 0);
}
unsigned char CanvasSourceSettings::bufferId() {
  return ReadNumber<unsigned char>(*this, "bufferId", 0);
}
bool CanvasSourceSettings::enabled() { return ReadBool(*this, "enabled", false); }

}  // namespace encoder
}  // namespace vesk

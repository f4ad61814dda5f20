// BaseChipCommonSettings: defaults and rules of its keys.
#include "vesk/settings/basechipcommonsettings.h"

#include "settingsrules.h"

namespace vesk {
namespace encoder {

using namespace internal;
using vesk::variant::Variant;

BaseChipCommonSettings::BaseChipCommonSettings() {}

BaseChipCommonSettings::BaseChipCommonSettings(const Variant& value)
    : BaseVariantContainer(value) {}

BaseChipCommonSettings::~BaseChipCommonSettings() {}

bool BaseChipCommonSettings::NormalizeFields() {
  StoreNegativeReplaced(*this, "vsync_detection_disable", vsync_detection_disable(), -1, 1);
  return BaseVariantContainer::NormalizeFields();
}

signed char BaseChipCommonSettings::vsync_detection_disable() {
  return ReadNumber<signed char>(*this, "vsync_detection_disable", -1);
}

}  // namespace encoder
}  // namespace vesk

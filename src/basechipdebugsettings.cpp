// BaseChipDebugSettings: defaults and rules of its keys.
#include "vesk/settings/basechipdebugsettings.h"

#include "settingsrules.h"

namespace vesk {
namespace encoder {

using namespace internal;
using vesk::variant::Variant;

BaseChipDebugSettings::BaseChipDebugSettings() {}

BaseChipDebugSettings::BaseChipDebugSettings(const Variant& value) : BaseVariantContainer(value) {}

BaseChipDebugSettings::~BaseChipDebugSettings() {}

bool BaseChipDebugSettings::NormalizeFields() {
  StoreNegativeReplaced(*this, "check_disable", check_disable(), -1, 1);
  return BaseVariantContainer::NormalizeFields();
}

signed char BaseChipDebugSettings::check_disable() {
  return ReadNumber<signed char>(*this, "check_disable", -1);
}

}  // namespace encoder
}  // namespace vesk

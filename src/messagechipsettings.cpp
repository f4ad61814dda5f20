// ChipSettings: defaults and rules of its keys.
#include "settingsrules.h"
#include "vesk/messages/chipsettings.h"

namespace vesk {
namespace ipc {
namespace messages {

using namespace vesk::encoder::internal;
using vesk::variant::Variant;

ChipSettings::ChipSettings() {}

ChipSettings::ChipSettings(const Variant& value) : BaseVariantContainer(value) {}

ChipSettings::~ChipSettings() {}

bool ChipSettings::NormalizeFields() {
  vin0().NormalizeFields();
  vin1().NormalizeFields();
  return BaseVariantContainer::NormalizeFields();
}

ChipVinSettingsElement& ChipSettings::vin0() {
  return ReadChild<ChipVinSettingsElement>(*this, "vin0");
}
ChipVinSettingsElement& ChipSettings::vin1() {
  return ReadChild<ChipVinSettingsElement>(*this, "vin1");
}

}  // namespace messages
}  // namespace ipc
}  // namespace vesk

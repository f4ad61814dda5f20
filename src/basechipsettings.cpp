// BaseChipSettings: defaults and rules of its keys.
#include "vesk/settings/basechipsettings.h"

#include "settingsrules.h"

namespace vesk {
namespace encoder {

using namespace internal;
using vesk::variant::Variant;

BaseChipSettings::BaseChipSettings() {}

BaseChipSettings::BaseChipSettings(const Variant& value) : BaseVariantContainer(value) {}

BaseChipSettings::~BaseChipSettings() {}

bool BaseChipSettings::NormalizeFields() {
  StoreValue(*this, "description", description());
  StoreValue(*this, "enabled", enabled());
  StoreValue(*this, "id", id());
  return BaseVariantContainer::NormalizeFields();
}

std::string BaseChipSettings::description() { return ReadString(*this, "description", ""); }
bool BaseChipSettings::enabled() { return ReadBool(*this, "enabled", false); }
unsigned char BaseChipSettings::id() { return ReadNumber<unsigned char>(*this, "id", 0); }

}  // namespace encoder
}  // namespace vesk

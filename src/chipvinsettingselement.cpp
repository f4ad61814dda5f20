// ChipVinSettingsElement: defaults and rules of its keys.
#include "vesk/messages/chipvinsettingselement.h"

#include "settingsrules.h"

namespace vesk {
namespace ipc {
namespace messages {

using namespace vesk::encoder::internal;
using vesk::variant::Variant;

ChipVinSettingsElement::ChipVinSettingsElement() {}

ChipVinSettingsElement::ChipVinSettingsElement(const Variant& value)
    : BaseVariantContainer(value) {}

ChipVinSettingsElement::~ChipVinSettingsElement() {}

bool ChipVinSettingsElement::NormalizeFields() {
  StoreNegativeReplaced(*this, "hdrMode", hdrMode(), -1);
  return BaseVariantContainer::NormalizeFields();
}

signed char ChipVinSettingsElement::hdrMode() {
  return ReadNumber<signed char>(*this, "hdrMode", -1);
}

}  // namespace messages
}  // namespace ipc
}  // namespace vesk

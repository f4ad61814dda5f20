// BaseEncoderSettings: defaults and rules of its keys.
#include "vesk/settings/baseencodersettings.h"

#include "settingsrules.h"

namespace vesk {
namespace encoder {

using namespace internal;
using vesk::variant::Variant;

BaseEncoderSettings::BaseEncoderSettings() {}

BaseEncoderSettings::BaseEncoderSettings(const Variant& value) : BaseVariantContainer(value) {}

BaseEncoderSettings::~BaseEncoderSettings() {}

bool BaseEncoderSettings::NormalizeFields() {
  StoreOneOf(*this, "type", type(), kTypeValues);
  StoreValue(*this, "description", description());
  StoreValue(*this, "enabled", enabled());
  return BaseVariantContainer::NormalizeFields();
}

std::string BaseEncoderSettings::type() { return ReadString(*this, "type", kTypeValues[0]); }
std::string BaseEncoderSettings::description() { return ReadString(*this, "description", ""); }
bool BaseEncoderSettings::enabled() { return ReadBool(*this, "enabled", false); }

}  // namespace encoder
}  // namespace vesk

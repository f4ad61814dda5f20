// BaseVinSettings: defaults and rules of its keys.
#include "vesk/settings/basevinsettings.h"

#include "settingsrules.h"

namespace vesk {
namespace encoder {

using namespace internal;
using vesk::variant::Variant;

BaseVinSettings::BaseVinSettings() {}

BaseVinSettings::BaseVinSettings(const Variant& value) : BaseChipSettings(value) {}

BaseVinSettings::~BaseVinSettings() {}

bool BaseVinSettings::NormalizeFields() {
  StoreValue(*this, "vsrcId", vsrcId());
  StoreValue(*this, "width", width());
  StoreValue(*this, "height", height());
  StoreValue(*this, "vsrcCtxSwitch", vsrcCtxSwitch());
  StoreValue(*this, "hdrMode", hdrMode());
  StoreValue(*this, "fps", fps());
  return BaseChipSettings::NormalizeFields();
}

unsigned int BaseVinSettings::vsrcId() { return ReadNumber<unsigned int>(*this, "vsrcId", 0); }
unsigned int BaseVinSettings::width() { return ReadNumber<unsigned int>(*this, "width", 0); }
unsigned int BaseVinSettings::height() { return ReadNumber<unsigned int>(*this, "height", 0); }
unsigned char BaseVinSettings::vsrcCtxSwitch() {
  return ReadNumber<unsigned char>(*this, "vsrcCtxSwitch", 0);
}
unsigned char BaseVinSettings::hdrMode() { return ReadNumber<unsigned char>(*this, "hdrMode", 0); }
unsigned short BaseVinSettings::fps() { return ReadNumber<unsigned short>(*this, "fps", 0); }

}  // namespace encoder
}  // namespace vesk

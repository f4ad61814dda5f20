// BaseBufferSizeSettings: defaults and rules of its keys.
#include "vesk/settings/basebuffersizesettings.h"

#include "settingsrules.h"

namespace vesk {
namespace encoder {

using namespace internal;
using vesk::variant::Variant;

BaseBufferSizeSettings::BaseBufferSizeSettings() {}

BaseBufferSizeSettings::BaseBufferSizeSettings(const Variant& value)
    : BaseVariantContainer(value) {}

BaseBufferSizeSettings::~BaseBufferSizeSettings() {}

bool BaseBufferSizeSettings::NormalizeFields() {
  StoreValue(*this, "width", width());
  StoreValue(*this, "height", height());
  return BaseVariantContainer::NormalizeFields();
}

unsigned int BaseBufferSizeSettings::width() { return ReadNumber<unsigned int>(*this, "width", 0); }
unsigned int BaseBufferSizeSettings::height() {
  return ReadNumber<unsigned int>(*this, "height", 0);
}

}  // namespace encoder
}  // namespace vesk

// BufferGeomSettings: defaults and rules of its keys.
#include "vesk/settings/buffergeomsettings.h"

#include "settingsrules.h"

namespace vesk {
namespace encoder {

using namespace internal;
using vesk::variant::Variant;

BufferGeomSettings::BufferGeomSettings() {}

BufferGeomSettings::BufferGeomSettings(const Variant& value) : BaseVariantContainer(value) {}

BufferGeomSettings::~BufferGeomSettings() {}

bool BufferGeomSettings::NormalizeFields() {
  StoreValue(*this, "x", x());
  StoreValue(*this, "y", y());
  StoreValue(*this, "width", width());
  StoreValue(*this, "height", height());
  return BaseVariantContainer::NormalizeFields();
}

unsigned int BufferGeomSettings::x() { return ReadNumber<unsigned int>(*this, "x", 0); }
unsigned int BufferGeomSettings::y() { return ReadNumber<unsigned int>(*this, "y", 0); }
unsigned int BufferGeomSettings::width() { return ReadNumber<unsigned int>(*this, "width", 0); }
unsigned int BufferGeomSettings::height() { return ReadNumber<unsigned int>(*this, "height", 0); }

}  // namespace encoder
}  // namespace vesk

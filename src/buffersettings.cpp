// BufferSettings: defaults and rules of its keys.
#include "vesk/settings/buffersettings.h"

#include "settingsrules.h"

namespace vesk {
namespace encoder {

using namespace internal;
using vesk::variant::Variant;

BufferSettings::BufferSettings() {}

BufferSettings::BufferSettings(const Variant& value) : BaseChipSettings(value) {}

BufferSettings::~BufferSettings() {}

bool BufferSettings::NormalizeFields() {
  max_output().NormalizeFields();
  output().NormalizeFields();
  return BaseChipSettings::NormalizeFields();
}

BaseBufferSizeSettings& BufferSettings::max_output() {
  return ReadChild<BaseBufferSizeSettings>(*this, "max_output");
}
BufferGeomSettings& BufferSettings::output() {
  return ReadChild<BufferGeomSettings>(*this, "output");
}

}  // namespace encoder
}  // namespace vesk

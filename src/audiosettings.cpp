// AudioSettings: defaults and rules of its keys.
#include "vesk/messages/audiosettings.h"

#include "settingsrules.h"

namespace vesk {
namespace ipc {
namespace messages {

using namespace vesk::encoder::internal;
using vesk::variant::Variant;

AudioSettings::AudioSettings() {}

AudioSettings::AudioSettings(const Variant& value) : BaseVariantContainer(value) {}

AudioSettings::~AudioSettings() {}

bool AudioSettings::NormalizeFields() {
  StoreAtMost(*this, "volume", volume(), 100);
  StoreClamped(*this, "bitRate", bitRate(), 7999, 160000);
  return BaseVariantContainer::NormalizeFields();
}

signed char AudioSettings::volume() { return ReadNumber<signed char>(*this, "volume", -1); }
unsigned int AudioSettings::bitRate() { return ReadNumber<unsigned int>(*this, "bitRate", 7999); }

}  // namespace messages
}  // namespace ipc
}  // namespace vesk

// The audio part of a runtime change. A negative volume means "leave it".
#pragma once

#include "vesk/variant/basevariantcontainer.h"

namespace vesk {
namespace ipc {
namespace messages {

class AudioSettings : public vesk::variant::BaseVariantContainer {
 public:
  AudioSettings();  // an empty map
  AudioSettings(const vesk::variant::Variant& value);
  using vesk::variant::BaseVariantContainer::operator=;
  ~AudioSettings() override;

  // Repairs "volume", "bitRate" in this order, then makes sure the value is a map.
  bool NormalizeFields() override;

  // Get-or-insert accessors: a missing or wrongly typed value is replaced by
  // its default first.
  signed char volume();
  unsigned int bitRate();
};

}  // namespace messages
}  // namespace ipc
}  // namespace vesk

// A source buffer of a channel ("buffer0" to "buffer4").
#pragma once

#include "vesk/settings/basebuffersizesettings.h"
#include "vesk/settings/basechipsettings.h"
#include "vesk/settings/buffergeomsettings.h"

namespace vesk {
namespace encoder {

class BufferSettings : public BaseChipSettings {
 public:
  BufferSettings();  // an empty map
  BufferSettings(const vesk::variant::Variant& value);
  using BaseChipSettings::operator=;
  ~BufferSettings() override;

  // Repairs "max_output", "output" in this order, then those of BaseChipSettings.
  bool NormalizeFields() override;

  // Get-or-insert accessors: a missing or wrongly typed value is replaced by
  // its default first. A child is returned in place, as an object of its class.
  BaseBufferSizeSettings& max_output();
  BufferGeomSettings& output();
};

}  // namespace encoder
}  // namespace vesk

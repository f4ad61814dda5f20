// A chip channel ("chan0", "chan1") with its five source buffers.
#pragma once

#include "vesk/settings/basechipsettings.h"
#include "vesk/settings/buffersettings.h"

namespace vesk {
namespace encoder {

class BaseChanSettings : public BaseChipSettings {
 public:
  BaseChanSettings();  // an empty map
  BaseChanSettings(const vesk::variant::Variant& value);
  using BaseChipSettings::operator=;
  ~BaseChanSettings() override;

  // Repairs "vinId", "vsrcCtx", "imgStatsSrcChan", "idspFps", "largeDownscale", "sensorCtrl",
  // "buffer0", "buffer1", "buffer2", "buffer3", "buffer4" in this order, then those of
  // BaseChipSettings.
  bool NormalizeFields() override;

  // Get-or-insert accessors: a missing or wrongly typed value is replaced by
  // its default first. A child is returned in place, as an object of its class.
  unsigned char vinId();
  unsigned char vsrcCtx();
  unsigned char imgStatsSrcChan();
  unsigned short idspFps();
  unsigned char largeDownscale();
  unsigned char sensorCtrl();
  BufferSettings& buffer0();
  BufferSettings& buffer1();
  BufferSettings& buffer2();
  BufferSettings& buffer3();
  BufferSettings& buffer4();
};

}  // namespace encoder
}  // namespace vesk

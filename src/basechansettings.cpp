// BaseChanSettings: defaults and rules of its keys.
#include "vesk/settings/basechansettings.h"

#include "settingsrules.h"

namespace vesk {
namespace encoder {

using namespace internal;
using vesk::variant::Variant;

BaseChanSettings::BaseChanSettings() {}

BaseChanSettings::BaseChanSettings(const Variant& value) : BaseChipSettings(value) {}

BaseChanSettings::~BaseChanSettings() {}

bool BaseChanSettings::NormalizeFields() {
  StoreValue(*this, "vinId", vinId());
  StoreValue(*this, "vsrcCtx", vsrcCtx());
  StoreValue(*this, "imgStatsSrcChan", imgStatsSrcChan());
  StoreValue(*this, "idspFps", idspFps());
  StoreValue(*this, "largeDownscale", largeDownscale());
  StoreValue(*this, "sensorCtrl", sensorCtrl());
  buffer0().NormalizeFields();
  buffer1().NormalizeFields();
  buffer2().NormalizeFields();
  buffer3().NormalizeFields();
  buffer4().NormalizeFields();
  return BaseChipSettings::NormalizeFields();
}

unsigned char BaseChanSettings::vinId() { return ReadNumber<unsigned char>(*this, "vinId", 0); }
unsigned char BaseChanSettings::vsrcCtx() { return ReadNumber<unsigned char>(*this, "vsrcCtx", 0); }
unsigned char BaseChanSettings::imgStatsSrcChan() {
  return ReadNumber<unsigned char>(*this, "imgStatsSrcChan", 0);
}
unsigned short BaseChanSettings::idspFps() {
  return ReadNumber<unsigned short>(*this, "idspFps", 0);
}
unsigned char BaseChanSettings::largeDownscale() {
  return ReadNumber<unsigned char>(*this, "largeDownscale", 0);
}
unsigned char BaseChanSettings::sensorCtrl() {
  return ReadNumber<unsigned char>(*this, "sensorCtrl", 0);
}
BufferSettings& BaseChanSettings::buffer0() { return ReadChild<BufferSettings>(*this, "buffer0"); }
BufferSettings& BaseChanSettings::buffer1() { return ReadChild<BufferSettings>(*this, "buffer1"); }
BufferSettings& BaseChanSettings::buffer2() { return ReadChild<BufferSettings>(*this, "buffer2"); }
BufferSettings& BaseChanSettings::buffer3() { return ReadChild<BufferSettings>(*this, "buffer3"); }
BufferSettings& BaseChanSettings::buffer4() { return ReadChild<BufferSettings>(*this, "buffer4"); }

}  // namespace encoder
}  // namespace vesk

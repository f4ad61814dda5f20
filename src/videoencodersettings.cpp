// VideoEncoderSettings: defaults and rules of its keys.
#include "vesk/settings/videoencodersettings.h"

#include "settingsrules.h"

namespace vesk {
namespace encoder {

using namespace internal;
using vesk::variant::Variant;

VideoEncoderSettings::VideoEncoderSettings() {}

VideoEncoderSettings::VideoEncoderSettings(const Variant& value) : BaseVariantContainer(value) {}

VideoEncoderSettings::~VideoEncoderSettings() {}

bool VideoEncoderSettings::NormalizeFields() {
  StoreValue(*this, "enableHrd", enableHrd());
  StoreValue(*this, "lowDelay", lowDelay());
  StoreValue(*this, "hdrMode", hdrMode());
  StoreValue(*this, "vinFps", vinFps());
  video1().NormalizeFields();
  video2().NormalizeFields();
  video3().NormalizeFields();
  mjpg().NormalizeFields();
  mjpg1().NormalizeFields();
  mjpg2().NormalizeFields();
  return BaseVariantContainer::NormalizeFields();
}

bool VideoEncoderSettings::enableHrd() { return ReadBool(*this, "enableHrd", false); }
bool VideoEncoderSettings::lowDelay() { return ReadBool(*this, "lowDelay", false); }
unsigned char VideoEncoderSettings::hdrMode() {
  return ReadNumber<unsigned char>(*this, "hdrMode", 0);
}
unsigned short VideoEncoderSettings::vinFps() {
  return ReadNumber<unsigned short>(*this, "vinFps", 0);
}
H264VideoEncoderSettings& VideoEncoderSettings::video1() {
  return ReadChild<H264VideoEncoderSettings>(*this, "video1");
}
H264VideoEncoderSettings& VideoEncoderSettings::video2() {
  return ReadChild<H264VideoEncoderSettings>(*this, "video2");
}
H264VideoEncoderSettings& VideoEncoderSettings::video3() {
  return ReadChild<H264VideoEncoderSettings>(*this, "video3");
}
MJPGVideoEncoderSettings& VideoEncoderSettings::mjpg() {
  return ReadChild<MJPGVideoEncoderSettings>(*this, "mjpg");
}
MJPGVideoEncoderSettings& VideoEncoderSettings::mjpg1() {
  return ReadChild<MJPGVideoEncoderSettings>(*this, "mjpg1");
}
MJPGVideoEncoderSettings& VideoEncoderSettings::mjpg2() {
  return ReadChild<MJPGVideoEncoderSettings>(*this, "mjpg2");
}

}  // namespace encoder
}  // namespace vesk

// VideoSettings: defaults and rules of its keys.
#include "vesk/messages/videosettings.h"

#include "settingsrules.h"

namespace vesk {
namespace ipc {
namespace messages {

using namespace vesk::encoder::internal;
using vesk::variant::Variant;

VideoSettings::VideoSettings() {}

VideoSettings::VideoSettings(const Variant& value) : BaseVariantContainer(value) {}

VideoSettings::~VideoSettings() {}

bool VideoSettings::NormalizeFields() {
  StoreNegativeReplaced(*this, "hdrMode", hdrMode(), -1);
  video1().NormalizeFields();
  video2().NormalizeFields();
  video3().NormalizeFields();
  mjpg().NormalizeFields();
  mjpg1().NormalizeFields();
  mjpg2().NormalizeFields();
  return BaseVariantContainer::NormalizeFields();
}

signed char VideoSettings::hdrMode() { return ReadNumber<signed char>(*this, "hdrMode", -1); }
VideoSettingsElement& VideoSettings::video1() {
  return ReadChild<VideoSettingsElement>(*this, "video1");
}
VideoSettingsElement& VideoSettings::video2() {
  return ReadChild<VideoSettingsElement>(*this, "video2");
}
VideoSettingsElement& VideoSettings::video3() {
  return ReadChild<VideoSettingsElement>(*this, "video3");
}
VideoSettingsElement& VideoSettings::mjpg() {
  return ReadChild<VideoSettingsElement>(*this, "mjpg");
}
VideoSettingsElement& VideoSettings::mjpg1() {
  return ReadChild<VideoSettingsElement>(*this, "mjpg1");
}
VideoSettingsElement& VideoSettings::mjpg2() {
  return ReadChild<VideoSettingsElement>(*this, "mjpg2");
}

}  // namespace messages
}  // namespace ipc
}  // namespace vesk

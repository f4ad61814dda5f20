// ChangeVideoSettings: defaults and rules of its keys.
#include "vesk/messages/changevideosettings.h"

#include "settingsrules.h"

namespace vesk {
namespace ipc {
namespace messages {

using namespace vesk::encoder::internal;
using vesk::variant::Variant;

ChangeVideoSettings::ChangeVideoSettings() {}

ChangeVideoSettings::ChangeVideoSettings(const Variant& value) : BaseRequestMessage(value) {}

ChangeVideoSettings::~ChangeVideoSettings() {}

bool ChangeVideoSettings::NormalizeFields() {
  StoreRequestHead(*this, kFunctionNameValues);
  chip().NormalizeFields();
  audio().NormalizeFields();
  video().NormalizeFields();
  return BaseRequestMessage::NormalizeFields();
}

std::string ChangeVideoSettings::functionName() {
  return ReadString(*this, "functionName", kFunctionNameValues[0]);
}
bool ChangeVideoSettings::responseExpected() { return ReadBool(*this, "responseExpected", false); }
ChipSettings& ChangeVideoSettings::chip() { return ReadChild<ChipSettings>(*this, "chip"); }
AudioSettings& ChangeVideoSettings::audio() { return ReadChild<AudioSettings>(*this, "audio"); }
VideoSettings& ChangeVideoSettings::video() { return ReadChild<VideoSettings>(*this, "video"); }

}  // namespace messages
}  // namespace ipc
}  // namespace vesk

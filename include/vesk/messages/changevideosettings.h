// A runtime change request: chip, audio and video parts. Every default means
// "not requested".
#pragma once

#include <string>

#include "vesk/messages/audiosettings.h"
#include "vesk/messages/baserequestmessage.h"
#include "vesk/messages/chipsettings.h"
#include "vesk/messages/videosettings.h"

namespace vesk {
namespace ipc {
namespace messages {

class ChangeVideoSettings : public BaseRequestMessage {
 public:
  ChangeVideoSettings();  // an empty map
  ChangeVideoSettings(const vesk::variant::Variant& value);
  using BaseRequestMessage::operator=;
  ~ChangeVideoSettings() override;

  // Repairs "functionName", "responseExpected", "chip", "audio", "video" in this order, then those
  // of BaseRequestMessage.
  bool NormalizeFields() override;

  // Allowed values, in the order they are matched.
  static constexpr const char* kFunctionNameValues[] = {"ChangeVideoSettings"};

  // Get-or-insert accessors: a missing or wrongly typed value is replaced by
  // its default first. A child is returned in place, as an object of its class.
  std::string functionName();
  bool responseExpected();
  ChipSettings& chip();
  AudioSettings& audio();
  VideoSettings& video();
};

}  // namespace messages
}  // namespace ipc
}  // namespace vesk

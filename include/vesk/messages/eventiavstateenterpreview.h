// Broadcast by the video track when the IAV driver has entered the preview state.
#pragma once

#include <string>

#include "vesk/messages/baserequestmessage.h"

namespace vesk {
namespace ipc {
namespace messages {

class EventIavStateEnterPreview : public BaseRequestMessage {
 public:
  EventIavStateEnterPreview();  // an empty map
  EventIavStateEnterPreview(const vesk::variant::Variant& value);
  using BaseRequestMessage::operator=;
  ~EventIavStateEnterPreview() override;

  // Repairs "functionName", "responseExpected" in this order, then those of BaseRequestMessage.
  bool NormalizeFields() override;

  // Allowed values, in the order they are matched.
  static constexpr const char* kFunctionNameValues[] = {"EventIavStateEnterPreview"};

  // Get-or-insert accessors: a missing or wrongly typed value is replaced by
  // its default first.
  std::string functionName();
  bool responseExpected();
};

}  // namespace messages
}  // namespace ipc
}  // namespace vesk

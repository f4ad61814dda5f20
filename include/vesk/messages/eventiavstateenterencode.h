// Broadcast by the video track when the IAV driver has entered the encode state.
#pragma once

#include <string>

#include "vesk/messages/baserequestmessage.h"

namespace vesk {
namespace ipc {
namespace messages {

class EventIavStateEnterEncode : public BaseRequestMessage {
 public:
  EventIavStateEnterEncode();  // an empty map
  EventIavStateEnterEncode(const vesk::variant::Variant& value);
  using BaseRequestMessage::operator=;
  ~EventIavStateEnterEncode() override;

  // Repairs "functionName", "responseExpected" in this order, then those of BaseRequestMessage.
  bool NormalizeFields() override;

  // Allowed values, in the order they are matched.
  static constexpr const char* kFunctionNameValues[] = {"EventIavStateEnterEncode"};

  // Get-or-insert accessors: a missing or wrongly typed value is replaced by
  // its default first.
  std::string functionName();
  bool responseExpected();
};

}  // namespace messages
}  // namespace ipc
}  // namespace vesk

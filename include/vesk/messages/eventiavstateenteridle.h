// Broadcast by the video track when the IAV driver has entered the idle state.
#pragma once

#include <string>

#include "vesk/messages/baserequestmessage.h"

namespace vesk {
namespace ipc {
namespace messages {

class EventIavStateEnterIdle : public BaseRequestMessage {
 public:
  EventIavStateEnterIdle();  // an empty map
  EventIavStateEnterIdle(const vesk::variant::Variant& value);
  using BaseRequestMessage::operator=;
  ~EventIavStateEnterIdle() override;

  // Repairs "functionName", "responseExpected" in this order, then those of BaseRequestMessage.
  bool NormalizeFields() override;

  // Allowed values, in the order they are matched.
  static constexpr const char* kFunctionNameValues[] = {"EventIavStateEnterIdle"};

  // Get-or-insert accessors: a missing or wrongly typed value is replaced by
  // its default first.
  std::string functionName();
  bool responseExpected();
};

}  // namespace messages
}  // namespace ipc
}  // namespace vesk

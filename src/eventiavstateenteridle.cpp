// EventIavStateEnterIdle: defaults and rules of its keys.
#include "vesk/messages/eventiavstateenteridle.h"

#include "settingsrules.h"

namespace vesk {
namespace ipc {
namespace messages {

using namespace vesk::encoder::internal;
using vesk::variant::Variant;

EventIavStateEnterIdle::EventIavStateEnterIdle() {}

EventIavStateEnterIdle::EventIavStateEnterIdle(const Variant& value) : BaseRequestMessage(value) {}

EventIavStateEnterIdle::~EventIavStateEnterIdle() {}

bool EventIavStateEnterIdle::NormalizeFields() {
  StoreRequestHead(*this, kFunctionNameValues);
  return BaseRequestMessage::NormalizeFields();
}

std::string EventIavStateEnterIdle::functionName() {
  return ReadString(*this, "functionName", kFunctionNameValues[0]);
}
bool EventIavStateEnterIdle::responseExpected() {
  return ReadBool(*this, "responseExpected", false);
}

}  // namespace messages
}  // namespace ipc
}  // namespace vesk

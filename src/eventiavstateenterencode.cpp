// EventIavStateEnterEncode: defaults and rules of its keys.
#include "vesk/messages/eventiavstateenterencode.h"

#include "settingsrules.h"

namespace vesk {
namespace ipc {
namespace messages {

using namespace vesk::encoder::internal;
using vesk::variant::Variant;

EventIavStateEnterEncode::EventIavStateEnterEncode() {}

EventIavStateEnterEncode::EventIavStateEnterEncode(const Variant& value)
    : BaseRequestMessage(value) {}

EventIavStateEnterEncode::~EventIavStateEnterEncode() {}

bool EventIavStateEnterEncode::NormalizeFields() {
  StoreRequestHead(*this, kFunctionNameValues);
  return BaseRequestMessage::NormalizeFields();
}

std::string EventIavStateEnterEncode::functionName() {
  return ReadString(*this, "functionName", kFunctionNameValues[0]);
}
bool EventIavStateEnterEncode::responseExpected() {
  return ReadBool(*this, "responseExpected", false);
}

}  // namespace messages
}  // namespace ipc
}  // namespace vesk

// EventIavStateExitEncode: defaults and rules of its keys.
#include "vesk/messages/eventiavstateexitencode.h"

#include "settingsrules.h"

namespace vesk {
namespace ipc {
namespace messages {

using namespace vesk::encoder::internal;
using vesk::variant::Variant;

EventIavStateExitEncode::EventIavStateExitEncode() {}

EventIavStateExitEncode::EventIavStateExitEncode(const Variant& value)
    : BaseRequestMessage(value) {}

EventIavStateExitEncode::~EventIavStateExitEncode() {}

bool EventIavStateExitEncode::NormalizeFields() {
  StoreRequestHead(*this, kFunctionNameValues);
  return BaseRequestMessage::NormalizeFields();
}

std::string EventIavStateExitEncode::functionName() {
  return ReadString(*this, "functionName", kFunctionNameValues[0]);
}
bool EventIavStateExitEncode::responseExpected() {
  return ReadBool(*this, "responseExpected", false);
}

}  // namespace messages
}  // namespace ipc
}  // namespace vesk

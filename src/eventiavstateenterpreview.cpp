// EventIavStateEnterPreview: defaults and rules of its keys.
#include "vesk/messages/eventiavstateenterpreview.h"

#include "settingsrules.h"

namespace vesk {
namespace ipc {
namespace messages {

using namespace vesk::encoder::internal;
using vesk::variant::Variant;

EventIavStateEnterPreview::EventIavStateEnterPreview() {}

EventIavStateEnterPreview::EventIavStateEnterPreview(const Variant& value)
    : BaseRequestMessage(value) {}

EventIavStateEnterPreview::~EventIavStateEnterPreview() {}

bool EventIavStateEnterPreview::NormalizeFields() {
  StoreRequestHead(*this, kFunctionNameValues);
  return BaseRequestMessage::NormalizeFields();
}

std::string EventIavStateEnterPreview::functionName() {
  return ReadString(*this, "functionName", kFunctionNameValues[0]);
}
bool EventIavStateEnterPreview::responseExpected() {
  return ReadBool(*this, "responseExpected", false);
}

}  // namespace messages
}  // namespace ipc
}  // namespace vesk

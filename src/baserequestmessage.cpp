// BaseRequestMessage: defaults and rules of its keys.
#include "vesk/messages/baserequestmessage.h"

#include "settingsrules.h"

namespace vesk {
namespace ipc {
namespace messages {

using namespace vesk::encoder::internal;
using vesk::variant::Variant;

BaseRequestMessage::BaseRequestMessage() {}

BaseRequestMessage::BaseRequestMessage(const Variant& value) : BaseMessage(value) {}

BaseRequestMessage::~BaseRequestMessage() {}

bool BaseRequestMessage::NormalizeFields() {
  StoreValue(*this, "responseExpected", responseExpected());
  StoreValue(*this, "transactionId", transactionId());
  StoreValue(*this, "isBroadcast", isBroadcast());
  return BaseMessage::NormalizeFields();
}

bool BaseRequestMessage::responseExpected() { return ReadBool(*this, "responseExpected", false); }
int BaseRequestMessage::transactionId() { return ReadNumber<int>(*this, "transactionId", -1); }
bool BaseRequestMessage::isBroadcast() { return ReadBool(*this, "isBroadcast", false); }

}  // namespace messages
}  // namespace ipc
}  // namespace vesk

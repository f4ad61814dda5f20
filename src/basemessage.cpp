// BaseMessage: defaults and rules of its keys.
#include "vesk/messages/basemessage.h"

#include "settingsrules.h"

namespace vesk {
namespace ipc {
namespace messages {

using namespace vesk::encoder::internal;
using vesk::variant::Variant;

BaseMessage::BaseMessage() {}

BaseMessage::BaseMessage(const Variant& value) : BaseVariantContainer(value) {}

BaseMessage::~BaseMessage() {}

bool BaseMessage::NormalizeFields() {
  StoreValue(*this, "id", id());
  StoreValue(*this, "timeStamp", timeStamp());
  StoreValue(*this, "from", from());
  StoreValue(*this, "to", to());
  StoreValue(*this, "functionName", functionName());
  StoreValue(*this, "queueIfDestUnavailable", queueIfDestUnavailable());
  return BaseVariantContainer::NormalizeFields();
}

unsigned long long BaseMessage::id() { return ReadNumber<unsigned long long>(*this, "id", 0); }
struct timeval BaseMessage::timeStamp() {
  return ReadTime(*this, "timeStamp");
}
std::string BaseMessage::from() { return ReadString(*this, "from", ""); }
std::string BaseMessage::to() { return ReadString(*this, "to", ""); }
std::string BaseMessage::functionName() { return ReadString(*this, "functionName", ""); }
bool BaseMessage::queueIfDestUnavailable() {
  return ReadBool(*this, "queueIfDestUnavailable", true);
}

}  // namespace messages
}  // namespace ipc
}  // namespace vesk

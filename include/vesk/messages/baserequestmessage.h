// The envelope of a request.
#pragma once

#include "vesk/messages/basemessage.h"

namespace vesk {
namespace ipc {
namespace messages {

class BaseRequestMessage : public BaseMessage {
 public:
  BaseRequestMessage();  // an empty map
  BaseRequestMessage(const vesk::variant::Variant& value);
  using BaseMessage::operator=;
  ~BaseRequestMessage() override;

  // Repairs "responseExpected", "transactionId", "isBroadcast" in this order, then those of
  // BaseMessage.
  bool NormalizeFields() override;

  // Get-or-insert accessors: a missing or wrongly typed value is replaced by
  // its default first.
  bool responseExpected();
  int transactionId();
  bool isBroadcast();
};

}  // namespace messages
}  // namespace ipc
}  // namespace vesk

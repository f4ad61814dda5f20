// The envelope of every IPC request and event.
#pragma once

#include <sys/time.h>

#include <string>

#include "vesk/variant/basevariantcontainer.h"

namespace vesk {
namespace ipc {
namespace messages {

class BaseMessage : public vesk::variant::BaseVariantContainer {
 public:
  BaseMessage();  // an empty map
  BaseMessage(const vesk::variant::Variant& value);
  using vesk::variant::BaseVariantContainer::operator=;
  ~BaseMessage() override;

  // Repairs "id", "timeStamp", "from", "to", "functionName", "queueIfDestUnavailable" in this
  // order, then makes sure the value is a map.
  bool NormalizeFields() override;

  // Get-or-insert accessors: a missing or wrongly typed value is replaced by
  // its default first.
  unsigned long long id();
  struct timeval timeStamp();
  std::string from();
  std::string to();
  std::string functionName();
  bool queueIfDestUnavailable();
};

}  // namespace messages
}  // namespace ipc
}  // namespace vesk

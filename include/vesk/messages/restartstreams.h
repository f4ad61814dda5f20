// A request to rebuild the output of the streams whose key is true.
#pragma once

#include <string>

#include "vesk/messages/baserequestmessage.h"

namespace vesk {
namespace ipc {
namespace messages {

class RestartStreams : public BaseRequestMessage {
 public:
  RestartStreams();  // an empty map
  RestartStreams(const vesk::variant::Variant& value);
  using BaseRequestMessage::operator=;
  ~RestartStreams() override;

  // Repairs "functionName", "responseExpected", "video1", "video2", "video3", "mjpg", "mjpg1",
  // "mjpg2" in this order, then those of BaseRequestMessage.
  bool NormalizeFields() override;

  // Allowed values, in the order they are matched.
  static constexpr const char* kFunctionNameValues[] = {"RestartStreams"};

  // Get-or-insert accessors: a missing or wrongly typed value is replaced by
  // its default first.
  std::string functionName();
  bool responseExpected();
  bool video1();
  bool video2();
  bool video3();
  bool mjpg();
  bool mjpg1();
  bool mjpg2();
};

}  // namespace messages
}  // namespace ipc
}  // namespace vesk

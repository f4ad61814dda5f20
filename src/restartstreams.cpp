// RestartStreams: defaults and rules of its keys.
#include "vesk/messages/restartstreams.h"

#include "settingsrules.h"

namespace vesk {
namespace ipc {
namespace messages {

using namespace vesk::encoder::internal;
using vesk::variant::Variant;

RestartStreams::RestartStreams() {}

RestartStreams::RestartStreams(const Variant& value) : BaseRequestMessage(value) {}

RestartStreams::~RestartStreams() {}

bool RestartStreams::NormalizeFields() {
  StoreRequestHead(*this, kFunctionNameValues);
  StoreValue(*this, "video1", video1());
  StoreValue(*this, "video2", video2());
  StoreValue(*this, "video3", video3());
  StoreValue(*this, "mjpg", mjpg());
  StoreValue(*this, "mjpg1", mjpg1());
  StoreValue(*this, "mjpg2", mjpg2());
  return BaseRequestMessage::NormalizeFields();
}

std::string RestartStreams::functionName() {
  return ReadString(*this, "functionName", kFunctionNameValues[0]);
}
bool RestartStreams::responseExpected() { return ReadBool(*this, "responseExpected", false); }
bool RestartStreams::video1() { return ReadBool(*this, "video1", false); }
bool RestartStreams::video2() { return ReadBool(*this, "video2", false); }
bool RestartStreams::video3() { return ReadBool(*this, "video3", false); }
bool RestartStreams::mjpg() { return ReadBool(*this, "mjpg", false); }
bool RestartStreams::mjpg1() { return ReadBool(*this, "mjpg1", false); }
bool RestartStreams::mjpg2() { return ReadBool(*this, "mjpg2", false); }

}  // namespace messages
}  // namespace ipc
}  // namespace vesk

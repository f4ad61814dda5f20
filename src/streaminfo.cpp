#include "vesk/streaminfo.h"

namespace vesk {
namespace encoder {

using vesk::variant::Variant;
using vesk::variant::TypeIsBool;
using vesk::variant::TypeIsNumeric;
using vesk::variant::TypeIsString;

StreamInfo::~StreamInfo() {}

namespace {

enum class Kind { String, Bool, Number, Number8 };

struct field_t {
  const char* key;
  Kind kind;
};

// The keys of a stream description, in order.
const field_t kFields[] = {
    {"uri", Kind::String},           {"streamName", Kind::String},
    {"channelId", Kind::Number},     {"streamId", Kind::Number},
    {"hasVideo", Kind::Bool},        {"videoWidth", Kind::Number},
    {"videoHeight", Kind::Number},   {"videoFps", Kind::Number8},
    {"videoBandwidth", Kind::Number}, {"hasAudio", Kind::Bool},
    {"audioChannels", Kind::Number8}, {"audioFrequency", Kind::Number},
    {"audioBandwidth", Kind::Number},
};

bool Accepts(Kind kind, uint32_t type) {
  switch (kind) {
    case Kind::String: return TypeIsString(type);
    case Kind::Bool: return TypeIsBool(type);
    case Kind::Number:
    case Kind::Number8: return TypeIsNumeric(type);
  }
  return false;
}

}  // namespace

bool StreamInfo::NormalizeFields() {
  EnsureMap();
  for (const field_t& field : kFields) {
    if (HasKey(field.key) && Accepts(field.kind, (*this)[field.key].GetType())) continue;
    RemoveValue(field.key);
    switch (field.kind) {
      case Kind::String: (*this)[field.key] = ""; break;
      case Kind::Bool: (*this)[field.key] = false; break;
      case Kind::Number: (*this)[field.key] = (uint32_t)0; break;
      case Kind::Number8: (*this)[field.key] = (uint8_t)0; break;
    }
  }
  return BaseVariantContainer::NormalizeFields();
}

std::string StreamInfo::uri() const { return (std::string)StrictString("uri"); }
std::string StreamInfo::streamName() const { return (std::string)StrictString("streamName"); }
uint32_t StreamInfo::channelId() const { return (uint32_t)StrictNumeric("channelId"); }
uint32_t StreamInfo::streamId() const { return (uint32_t)StrictNumeric("streamId"); }
bool StreamInfo::hasVideo() const { return (bool)StrictBool("hasVideo"); }
uint32_t StreamInfo::videoWidth() const { return (uint32_t)StrictNumeric("videoWidth"); }
uint32_t StreamInfo::videoHeight() const { return (uint32_t)StrictNumeric("videoHeight"); }
uint8_t StreamInfo::videoFps() const { return (uint8_t)StrictNumeric("videoFps"); }
uint32_t StreamInfo::videoBandwidth() const { return (uint32_t)StrictNumeric("videoBandwidth"); }
bool StreamInfo::hasAudio() const { return (bool)StrictBool("hasAudio"); }
uint8_t StreamInfo::audioChannels() const { return (uint8_t)StrictNumeric("audioChannels"); }
uint32_t StreamInfo::audioFrequency() const { return (uint32_t)StrictNumeric("audioFrequency"); }
uint32_t StreamInfo::audioBandwidth() const { return (uint32_t)StrictNumeric("audioBandwidth"); }

}  // namespace encoder
}  // namespace vesk

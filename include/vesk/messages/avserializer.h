// The output of one stream: its container "type", the container's
// "parameters", and its "destinations" (URIs, as a map or a list).
#pragma once

#include <string>

#include "vesk/variant/basevariantcontainer.h"

namespace vesk {
namespace ipc {
namespace messages {

class AVSerializer : public vesk::variant::BaseVariantContainer {
 public:
  AVSerializer();  // an empty map
  AVSerializer(const vesk::variant::Variant& value);
  using vesk::variant::BaseVariantContainer::operator=;
  ~AVSerializer() override;

  // Repairs "type", "parameters", "destinations" in this order, then makes sure the value is a
  // map.
  bool NormalizeFields() override;

  // Allowed values, in the order they are matched.
  static constexpr const char* kTypeValues[] = {"unknown",     "flv",  "mjpg",       "rtmp",
                                                "extendedFlv", "vesk", "passThrough"};

  // Get-or-insert accessors: a missing or wrongly typed value is replaced by
  // its default first.
  std::string type();
  vesk::variant::Variant& parameters();
  vesk::variant::Variant& destinations();
};

}  // namespace messages
}  // namespace ipc
}  // namespace vesk

// The common tail of every audio and video encoder block.
#pragma once

#include <string>

#include "vesk/variant/basevariantcontainer.h"

namespace vesk {
namespace encoder {

class BaseEncoderSettings : public vesk::variant::BaseVariantContainer {
 public:
  BaseEncoderSettings();  // an empty map
  BaseEncoderSettings(const vesk::variant::Variant& value);
  using vesk::variant::BaseVariantContainer::operator=;
  ~BaseEncoderSettings() override;

  // Repairs "type", "description", "enabled" in this order, then makes sure the value is a map.
  bool NormalizeFields() override;

  // Allowed values, in the order they are matched.
  static constexpr const char* kTypeValues[] = {"h264", "mjpg", "aac"};

  // Get-or-insert accessors: a missing or wrongly typed value is replaced by
  // its default first.
  std::string type();
  std::string description();
  bool enabled();
};

}  // namespace encoder
}  // namespace vesk

// The camera's identity: "hwaddr" (12 upper-case hex digits) and a numeric
// "sysid". Values set with Override* win over what Init() detects, so hosts
// and tests get reproducible results.
#pragma once

#include <cstdint>
#include <string>

#include "vesk/variant/basevariantcontainer.h"

namespace vesk {
namespace variant {

class CameraInfo : public BaseVariantContainer {
 public:
  CameraInfo();
  using Variant::operator=;
  // Fills "hwaddr" from the first non-loopback interface that has a hardware
  // address (a fixed value when there is none) and "sysid". False on failure.
  bool Init();

  static void OverrideHwaddr(const std::string& hwaddr);  // "" clears the override
  static void OverrideSysid(int64_t sysid);               // < 0 clears the override
  // Makes the next Init() calls fail (for tests of the callers' failure paths).
  static void SetFailInit(bool fail);
};

}  // namespace variant
}  // namespace vesk

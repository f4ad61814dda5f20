// One stream's runtime change. The defaults mean "not requested": 0, 16383 for
// the bit rates, -1 for the adaptation floors. A requested bit rate is floored
// at 16383 and capped at 16000000, unlike the configured ones.
#pragma once

#include "vesk/messages/avserializer.h"
#include "vesk/variant/basevariantcontainer.h"

namespace vesk {
namespace ipc {
namespace messages {

class VideoSettingsElement : public vesk::variant::BaseVariantContainer {
 public:
  VideoSettingsElement();  // an empty map
  VideoSettingsElement(const vesk::variant::Variant& value);
  using vesk::variant::BaseVariantContainer::operator=;
  ~VideoSettingsElement() override;

  // Repairs "fps", "bitRateVbrMax", "bitRateCbrAvg", "minClientAdaptiveBitRate",
  // "minMotionAdaptiveBitRate", "nMultiplier", "quality", "isCbr", "avSerializer" in this order,
  // then makes sure the value is a map.
  bool NormalizeFields() override;

  // Get-or-insert accessors: a missing or wrongly typed value is replaced by
  // its default first. A child is returned in place, as an object of its class.
  unsigned char fps();
  unsigned int bitRateVbrMax();
  unsigned int bitRateCbrAvg();
  int minClientAdaptiveBitRate();
  int minMotionAdaptiveBitRate();
  unsigned int nMultiplier();
  unsigned int quality();
  bool isCbr();
  AVSerializer& avSerializer();
};

}  // namespace messages
}  // namespace ipc
}  // namespace vesk

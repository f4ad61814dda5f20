// What every video channel has: size, frame rate, bit rates, adaptation floors
// and its output streams. All bits set in "width"/"height" and 255 in "fps" mean
// "not given". The bit rates have a floor and no ceiling; the video track works
// with the values it receives.
#pragma once

#include <string>

#include "vesk/messages/avserializer.h"
#include "vesk/settings/baseencodersettings.h"

namespace vesk {
namespace encoder {

class BaseVideoEncoderSettings : public BaseEncoderSettings {
 public:
  BaseVideoEncoderSettings();  // an empty map
  BaseVideoEncoderSettings(const vesk::variant::Variant& value);
  using BaseEncoderSettings::operator=;
  ~BaseVideoEncoderSettings() override;

  // Repairs "type", "width", "height", "fps", "bitRateVbrMax", "bitRateCbrAvg",
  // "validBitrateRangeMin", "validBitrateRangeMax", "minClientAdaptiveBitRate",
  // "minMotionAdaptiveBitRate", "isCbr", "avSerializer" in this order, then those of
  // BaseEncoderSettings.
  bool NormalizeFields() override;

  // Allowed values, in the order they are matched.
  static constexpr const char* kTypeValues[] = {"h264", "mjpg"};

  // Get-or-insert accessors: a missing or wrongly typed value is replaced by
  // its default first. A child is returned in place, as an object of its class.
  std::string type();
  unsigned int width();
  unsigned int height();
  unsigned char fps();
  unsigned int bitRateVbrMax();
  unsigned int bitRateCbrAvg();
  unsigned int validBitrateRangeMin();
  unsigned int validBitrateRangeMax();
  int minClientAdaptiveBitRate();
  int minMotionAdaptiveBitRate();
  bool isCbr();
  vesk::ipc::messages::AVSerializer& avSerializer();
};

}  // namespace encoder
}  // namespace vesk

// BaseVideoEncoderSettings: defaults and rules of its keys.
#include "vesk/settings/basevideoencodersettings.h"

#include "settingsrules.h"

namespace vesk {
namespace encoder {

using namespace internal;
using vesk::variant::Variant;

BaseVideoEncoderSettings::BaseVideoEncoderSettings() {}

BaseVideoEncoderSettings::BaseVideoEncoderSettings(const Variant& value)
    : BaseEncoderSettings(value) {}

BaseVideoEncoderSettings::~BaseVideoEncoderSettings() {}

bool BaseVideoEncoderSettings::NormalizeFields() {
  StoreOneOf(*this, "type", type(), kTypeValues);
  StoreValue(*this, "width", width());
  StoreValue(*this, "height", height());
  StoreValue(*this, "fps", fps());
  StoreAtLeast(*this, "bitRateVbrMax", bitRateVbrMax(), 16384);
  StoreAtLeast(*this, "bitRateCbrAvg", bitRateCbrAvg(), 16384);
  StoreAtLeast(*this, "validBitrateRangeMin", validBitrateRangeMin(), 16384);
  StoreAtLeast(*this, "validBitrateRangeMax", validBitrateRangeMax(), 16384);
  StoreNegativeReplaced(*this, "minClientAdaptiveBitRate", minClientAdaptiveBitRate(), 0);
  StoreNegativeReplaced(*this, "minMotionAdaptiveBitRate", minMotionAdaptiveBitRate(), 0);
  StoreValue(*this, "isCbr", isCbr());
  avSerializer().NormalizeFields();
  return BaseEncoderSettings::NormalizeFields();
}

std::string BaseVideoEncoderSettings::type() { return ReadString(*this, "type", kTypeValues[0]); }
unsigned int BaseVideoEncoderSettings::width() {
  return ReadNumber<unsigned int>(*this, "width", 4294967295u);
}
unsigned int BaseVideoEncoderSettings::height() {
  return ReadNumber<unsigned int>(*this, "height", 4294967295u);
}
unsigned char BaseVideoEncoderSettings::fps() {
  return ReadNumber<unsigned char>(*this, "fps", 255);
}
unsigned int BaseVideoEncoderSettings::bitRateVbrMax() {
  return ReadNumber<unsigned int>(*this, "bitRateVbrMax", 500000);
}
unsigned int BaseVideoEncoderSettings::bitRateCbrAvg() {
  return ReadNumber<unsigned int>(*this, "bitRateCbrAvg", 500000);
}
unsigned int BaseVideoEncoderSettings::validBitrateRangeMin() {
  return ReadNumber<unsigned int>(*this, "validBitrateRangeMin", 32000);
}
unsigned int BaseVideoEncoderSettings::validBitrateRangeMax() {
  return ReadNumber<unsigned int>(*this, "validBitrateRangeMax", 6000000);
}
int BaseVideoEncoderSettings::minClientAdaptiveBitRate() {
  return ReadNumber<int>(*this, "minClientAdaptiveBitRate", 0);
}
int BaseVideoEncoderSettings::minMotionAdaptiveBitRate() {
  return ReadNumber<int>(*this, "minMotionAdaptiveBitRate", 0);
}
bool BaseVideoEncoderSettings::isCbr() { return ReadBool(*this, "isCbr", false); }
vesk::ipc::messages::AVSerializer& BaseVideoEncoderSettings::avSerializer() {
  return ReadChild<vesk::ipc::messages::AVSerializer>(*this, "avSerializer");
}

}  // namespace encoder
}  // namespace vesk

// VideoSettingsElement: defaults and rules of its keys.
#include "vesk/messages/videosettingselement.h"

#include "settingsrules.h"

namespace vesk {
namespace ipc {
namespace messages {

using namespace vesk::encoder::internal;
using vesk::variant::Variant;

VideoSettingsElement::VideoSettingsElement() {}

VideoSettingsElement::VideoSettingsElement(const Variant& value) : BaseVariantContainer(value) {}

VideoSettingsElement::~VideoSettingsElement() {}

bool VideoSettingsElement::NormalizeFields() {
  StoreAtMost(*this, "fps", fps(), 30);
  StoreClamped(*this, "bitRateVbrMax", bitRateVbrMax(), 16383, 16000000);
  StoreClamped(*this, "bitRateCbrAvg", bitRateCbrAvg(), 16383, 16000000);
  StoreNegativeReplaced(*this, "minClientAdaptiveBitRate", minClientAdaptiveBitRate(), -1);
  StoreNegativeReplaced(*this, "minMotionAdaptiveBitRate", minMotionAdaptiveBitRate(), -1);
  StoreAtMost(*this, "nMultiplier", nMultiplier(), 10);
  StoreAtMost(*this, "quality", quality(), 100);
  StoreValue(*this, "isCbr", isCbr());
  avSerializer().NormalizeFields();
  return BaseVariantContainer::NormalizeFields();
}

unsigned char VideoSettingsElement::fps() { return ReadNumber<unsigned char>(*this, "fps", 0); }
unsigned int VideoSettingsElement::bitRateVbrMax() {
  return ReadNumber<unsigned int>(*this, "bitRateVbrMax", 16383);
}
unsigned int VideoSettingsElement::bitRateCbrAvg() {
  return ReadNumber<unsigned int>(*this, "bitRateCbrAvg", 16383);
}
int VideoSettingsElement::minClientAdaptiveBitRate() {
  return ReadNumber<int>(*this, "minClientAdaptiveBitRate", -1);
}
int VideoSettingsElement::minMotionAdaptiveBitRate() {
  return ReadNumber<int>(*this, "minMotionAdaptiveBitRate", -1);
}
unsigned int VideoSettingsElement::nMultiplier() {
  return ReadNumber<unsigned int>(*this, "nMultiplier", 0);
}
unsigned int VideoSettingsElement::quality() {
  return ReadNumber<unsigned int>(*this, "quality", 0);
}
bool VideoSettingsElement::isCbr() { return ReadBool(*this, "isCbr", false); }
AVSerializer& VideoSettingsElement::avSerializer() {
  return ReadChild<AVSerializer>(*this, "avSerializer");
}

}  // namespace messages
}  // namespace ipc
}  // namespace vesk

// H264VideoEncoderSettings: defaults and rules of its keys.
#include "vesk/settings/h264videoencodersettings.h"

#include "settingsrules.h"

namespace vesk {
namespace encoder {

using namespace internal;
using vesk::variant::Variant;

H264VideoEncoderSettings::H264VideoEncoderSettings() {}

H264VideoEncoderSettings::H264VideoEncoderSettings(const Variant& value)
    : BaseVideoEncoderSettings(value) {}

H264VideoEncoderSettings::~H264VideoEncoderSettings() {}

bool H264VideoEncoderSettings::NormalizeFields() {
  StoreOneOf(*this, "type", type(), kTypeValues);
  StoreValue(*this, "verticalFlip", verticalFlip());
  StoreValue(*this, "horizontalFlip", horizontalFlip());
  StoreZeroReplaced(*this, "M", M(), 1, 3);
  StoreZeroReplaced(*this, "N", N(), 1);
  StoreZeroReplaced(*this, "nMultiplier", nMultiplier(), 1, 10);
  StoreLargestNotAbove(*this, "gopModel", gopModel(), kGopModelValues);
  return BaseVideoEncoderSettings::NormalizeFields();
}

std::string H264VideoEncoderSettings::type() { return ReadString(*this, "type", kTypeValues[0]); }
bool H264VideoEncoderSettings::verticalFlip() { return ReadBool(*this, "verticalFlip", false); }
bool H264VideoEncoderSettings::horizontalFlip() { return ReadBool(*this, "horizontalFlip", false); }
unsigned int H264VideoEncoderSettings::M() { return ReadNumber<unsigned int>(*this, "M", 2); }
unsigned int H264VideoEncoderSettings::N() { return ReadNumber<unsigned int>(*this, "N", 30); }
unsigned int H264VideoEncoderSettings::nMultiplier() {
  return ReadNumber<unsigned int>(*this, "nMultiplier", 1);
}
unsigned int H264VideoEncoderSettings::gopModel() {
  return ReadNumber<unsigned int>(*this, "gopModel", 0);
}

}  // namespace encoder
}  // namespace vesk

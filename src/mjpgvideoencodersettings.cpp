// MJPGVideoEncoderSettings: defaults and rules of its keys.
#include "vesk/settings/mjpgvideoencodersettings.h"

#include "settingsrules.h"

namespace vesk {
namespace encoder {

using namespace internal;
using vesk::variant::Variant;

MJPGVideoEncoderSettings::MJPGVideoEncoderSettings() {}

MJPGVideoEncoderSettings::MJPGVideoEncoderSettings(const Variant& value)
    : BaseVideoEncoderSettings(value) {}

MJPGVideoEncoderSettings::~MJPGVideoEncoderSettings() {}

bool MJPGVideoEncoderSettings::NormalizeFields() {
  StoreOneOf(*this, "type", type(), kTypeValues);
  StoreAtMost(*this, "quality", quality(), 100);
  return BaseVideoEncoderSettings::NormalizeFields();
}

std::string MJPGVideoEncoderSettings::type() { return ReadString(*this, "type", kTypeValues[0]); }
unsigned char MJPGVideoEncoderSettings::quality() {
  return ReadNumber<unsigned char>(*this, "quality", 0);
}

}  // namespace encoder
}  // namespace vesk

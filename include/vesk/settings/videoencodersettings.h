// The video encoders, stored under "video": three H.264 channels and three
// MJPEG channels, with the settings they share.
#pragma once

#include "vesk/settings/h264videoencodersettings.h"
#include "vesk/settings/mjpgvideoencodersettings.h"
#include "vesk/variant/basevariantcontainer.h"

namespace vesk {
namespace encoder {

class VideoEncoderSettings : public vesk::variant::BaseVariantContainer {
 public:
  VideoEncoderSettings();  // an empty map
  VideoEncoderSettings(const vesk::variant::Variant& value);
  using vesk::variant::BaseVariantContainer::operator=;
  ~VideoEncoderSettings() override;

  // Repairs "enableHrd", "lowDelay", "hdrMode", "vinFps", "video1", "video2", "video3", "mjpg",
  // "mjpg1", "mjpg2" in this order, then makes sure the value is a map.
  bool NormalizeFields() override;

  // Get-or-insert accessors: a missing or wrongly typed value is replaced by
  // its default first. A child is returned in place, as an object of its class.
  bool enableHrd();
  bool lowDelay();
  unsigned char hdrMode();
  unsigned short vinFps();
  H264VideoEncoderSettings& video1();
  H264VideoEncoderSettings& video2();
  H264VideoEncoderSettings& video3();
  MJPGVideoEncoderSettings& mjpg();
  MJPGVideoEncoderSettings& mjpg1();
  MJPGVideoEncoderSettings& mjpg2();
};

}  // namespace encoder
}  // namespace vesk

// The video part of a runtime change: the HDR mode (-1 meaning "leave it") and
// one element per stream.
#pragma once

#include "vesk/messages/videosettingselement.h"
#include "vesk/variant/basevariantcontainer.h"

namespace vesk {
namespace ipc {
namespace messages {

class VideoSettings : public vesk::variant::BaseVariantContainer {
 public:
  VideoSettings();  // an empty map
  VideoSettings(const vesk::variant::Variant& value);
  using vesk::variant::BaseVariantContainer::operator=;
  ~VideoSettings() override;

  // Repairs "hdrMode", "video1", "video2", "video3", "mjpg", "mjpg1", "mjpg2" in this order, then
  // makes sure the value is a map.
  bool NormalizeFields() override;

  // Get-or-insert accessors: a missing or wrongly typed value is replaced by
  // its default first. A child is returned in place, as an object of its class.
  signed char hdrMode();
  VideoSettingsElement& video1();
  VideoSettingsElement& video2();
  VideoSettingsElement& video3();
  VideoSettingsElement& mjpg();
  VideoSettingsElement& mjpg1();
  VideoSettingsElement& mjpg2();
};

}  // namespace messages
}  // namespace ipc
}  // namespace vesk

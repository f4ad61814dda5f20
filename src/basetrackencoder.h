// The base of the encoder's tracks (video and audio): it holds the settings
// the track was built on.
#pragma once

#include "vesk/messages/changevideosettings.h"
#include "vesk/settings/encodersettings.h"

namespace vesk {
namespace encoder {
namespace internal {

class BaseTrackEncoder {
 public:
  explicit BaseTrackEncoder(EncoderSettings& settings) : settings_(settings) {}
  virtual ~BaseTrackEncoder();
  BaseTrackEncoder(const BaseTrackEncoder&) = delete;
  BaseTrackEncoder& operator=(const BaseTrackEncoder&) = delete;

  virtual bool Initialize() = 0;
  virtual bool StartEncoding() = 0;
  virtual bool StopEncoding() = 0;
  virtual bool UpdateSettings(vesk::ipc::messages::ChangeVideoSettings& request) = 0;

 protected:
  EncoderSettings& settings_;
};

}  // namespace internal
}  // namespace encoder
}  // namespace vesk

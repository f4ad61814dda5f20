// The real video track against the virtual camera on its manual clock, with
// the log lines and the IPC events it produced.
#pragma once

#include <gtest/gtest.h>

#include <string>
#include <vector>

#include "camera_fixture.h"
#include "log_capture.h"
#include "trackencodervideos2l.h"
#include "vesk/ipc/ipc.h"
#include "vesk/settings/encodersettings.h"
#include "vesk/variant/camerainfo.h"

namespace vesk {
namespace test {

using encoder::EncoderSettings;
using encoder::internal::TrackEncoderVideoS2L;
using variant::Variant;

struct stream_spec_t {
  const char* key;  // "video1", ..., "mjpg2"
  unsigned int width, height, fps, sourceId;
  unsigned int bitrate;  // "bitRateVbrMax" (H.264) or quality (MJPEG)
};

class VideoTrackTest : public CameraTest {
 protected:
  void SetUp() override {
    CameraTest::SetUp();
    variant::CameraInfo::OverrideSysid(0x1234);
    listener_ = ipc::Ipc::GetInstance().AddListener(
        [this](const Variant& message) { events_.push_back((std::string)message["functionName"]); });
    ResetSettings();
  }

  void ResetSettings() {
    settings_ = EncoderSettings();
    settings_["firmwarePath"] = "/lib/firmware/";
    settings_.video()["vinFps"] = (unsigned short)30;
  }

  void TearDown() override {
    delete track_;
    track_ = nullptr;
    ipc::Ipc::GetInstance().RemoveListener(listener_);
    variant::CameraInfo::OverrideSysid(-1);
    CameraTest::TearDown();
  }

  // Enables one stream with M 1, one IDR per second and the given size.
  void AddStream(const stream_spec_t& s) {
    Variant& e = settings_.video()[s.key];
    e["enabled"] = true;
    e["width"] = s.width;
    e["height"] = s.height;
    e["fps"] = (unsigned char)s.fps;
    e["sourceId"] = s.sourceId;
    if (s.key[0] == 'm') {
      e["quality"] = (unsigned char)s.bitrate;
      return;
    }
    e["M"] = 1u;
    e["N"] = 10u;
    e["nMultiplier"] = 1u;
    e["bitRateVbrMax"] = s.bitrate;
  }

  // Normalises the settings as the Encoder does and builds the track.
  TrackEncoderVideoS2L& MakeTrack() {
    settings_.NormalizeFields();
    delete track_;
    track_ = new TrackEncoderVideoS2L(settings_);
    return *track_;
  }

  // A new track initialized with the captured lines and events cleared.
  bool Reinitialize() {
    log_.Clear();
    events_.clear();
    return MakeTrack().Initialize();
  }

  bool InitializeAndStart() { return MakeTrack().Initialize() && track_->StartEncoding(); }

  Variant& Stream(const char* key) { return settings_.video()[key]; }

  EncoderSettings settings_;
  TrackEncoderVideoS2L* track_ = nullptr;
  LogCapture log_;
  std::vector<std::string> events_;
  int listener_ = 0;
};

}  // namespace test
}  // namespace vesk

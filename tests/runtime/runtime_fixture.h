// The Encoder on the virtual camera's manual clock, for runtime changes:
// settings with H.264 streams recorded or sent over TCP, change requests,
// and the output read back with ffprobe.
#pragma once

#include <gtest/gtest.h>
#include <unistd.h>

#include <cstdio>
#include <string>
#include <vector>

#include "audio_test_util.h"
#include "log_capture.h"
#include "vesk/encoder.h"
#include "vesk/virtualcam/virtualcam.h"

namespace vesk {
namespace test {

using encoder::Encoder;
using encoder::EncoderSettings;
using ipc::messages::ChangeVideoSettings;
using variant::Variant;

// One packet of an FLV file as ffprobe reads it.
struct flv_packet_t {
  double time;  // seconds
  bool key;
  long size;    // bytes
};

class RuntimeTest : public ::testing::Test {
 protected:
  void SetUp() override {
    vcam_reset();
    vcam_set_clock_mode(VCAM_CLOCK_MANUAL);
    UseVirtualSoundCard("free=0");
  }
  void TearDown() override { vcam_reset(); }

  // One 320x180 source buffer, no audio, VIN at 30 frames per second.
  static EncoderSettings Base() {
    std::string text = R"({
      "chip": {"vin0": {"enabled": true},
               "chan0": {"enabled": true,
                         "buffer0": {"enabled": true,
                                     "max_output": {"width": 320, "height": 180},
                                     "output": {"width": 320, "height": 180}}}},
      "audio": {"enabled": false, "mode": 0, "sampleRate": 16000, "channels": 1,
                "bitRate": 32000},
      "video": {"vinFps": 30}
    })";
    Variant v;
    std::string error;
    EXPECT_TRUE(Variant::FromJson(text, v, error)) << error;
    return EncoderSettings(v);
  }

  // An FLV output to uri (no destination when uri is empty).
  static Variant Output(const std::string& uri) {
    Variant output;
    output["type"] = "flv";
    output["destinations"].IsArray(true);
    if (!uri.empty()) output["destinations"].PushToArray(Variant(uri));
    return output;
  }

  // An H.264 stream of 320x180 on the first buffer, M 1, IDR pictures only
  // (one per second at nMultiplier 1), 400 kbit/s.
  static void AddH264(EncoderSettings& settings, const char* key, const std::string& uri,
                      unsigned fps = 30) {
    Variant& e = settings["video"][key];
    e["enabled"] = true;
    e["sourceId"] = 0u;
    e["width"] = 320u;
    e["height"] = 180u;
    e["fps"] = (unsigned char)fps;
    e["M"] = 1u;
    e["N"] = 1000u;
    e["nMultiplier"] = 1u;
    e["bitRateVbrMax"] = 400000u;
    e["avSerializer"] = Output(uri);
  }

  static std::string FileUri(const std::string& path) { return "file://" + path + "?continuous"; }

  // Pumps while the camera's clock advances by ms, one frame period at a
  // time; realTime also lets the sound card's real clock run along.
  static int Pump(Encoder& encoder, unsigned ms, bool realTime = false) {
    int moved = 0;
    for (unsigned t = 0; t < ms; t += 33) {
      vcam_advance_ms(33);
      if (realTime) usleep(33000);
      for (int i = 0; i < 8; i++) {
        int n = encoder.EncodeFrames();
        if (n <= 0) break;
        moved += n;
      }
    }
    return moved;
  }

  static ChangeVideoSettings Request(const std::string& json) {
    Variant v;
    std::string error;
    EXPECT_TRUE(Variant::FromJson(json, v, error)) << error;
    return ChangeVideoSettings(v);
  }

  static vcam_stream_status_t StreamStatus(uint32_t id) {
    vcam_stream_status_t status;
    vcam_get_stream_status(id, &status);
    return status;
  }

  // The video packets of an FLV file, in file order.
  static std::vector<flv_packet_t> VideoPackets(const std::string& path) {
    std::vector<flv_packet_t> packets;
    std::string text = RunCommand("ffprobe -v error -select_streams v -show_entries "
                                  "packet=pts_time,flags,size -of csv=p=0 " + path + " 2>/dev/null");
    size_t start = 0;
    while (start < text.size()) {
      size_t end = text.find('\n', start);
      if (end == std::string::npos) end = text.size();
      std::string line = text.substr(start, end - start);
      start = end + 1;
      double time = 0;
      long size = 0;
      char flags[16] = {0};
      if (sscanf(line.c_str(), "%lf,%ld,%15s", &time, &size, flags) == 3)
        packets.push_back({time, flags[0] == 'K', size});
    }
    return packets;
  }

  LogCapture log_;
};

}  // namespace test
}  // namespace vesk

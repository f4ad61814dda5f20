// vesk-camera run --camera: the virtual camera set up from a file.
#include <gtest/gtest.h>

#include <cstdlib>

#include "e2e_util.h"

namespace vesk {
namespace e2e {
namespace {

// A 720p25 sensor and microcode that the encoder must load from its firmware
// path, video only: the encoder follows the sensor, not the settings' 30 fps.
TEST(E2eCamera, SensorModesAndMicrocodeComeFromTheCameraFile) {
  ScratchDir dir;
  json camera = {{"microcodeLoaded", false},
                 {"firmwareDirectory", dir / "firmware"},
                 {"scene", "busy"},
                 {"sensorModes", {{{"mode", 7}, {"width", 1280}, {"height", 720}, {"fps", 25}}}}};
  WriteFile(dir / "camera.json", camera.dump());
  json settings = {{"firmwarePath", dir / "firmware/"},
                   {"video",
                    {{"video1", H264Stream(0, 1280, 720, 30,
                                           Serializer("flv", {"file://" + (dir / "rec.flv") + "?continuous"}))}}}};
  run_result_t run =
      RunCamera({"run", WriteSettings(dir, settings), "--seconds", "2", "--camera", dir / "camera.json"}, 20000);
  ASSERT_EQ(run.exitCode, 0) << run.out << run.err;
  EXPECT_NE(run.err.find("Loading DSP ucode " + (dir / "firmware/")), std::string::npos) << run.err;
  EXPECT_NE(run.err.find("Sensor[0] setup at 1280x720@25"), std::string::npos) << run.err;
  // Video only at 25 fps: eight pictures of 40 ms.
  EXPECT_NE(run.err.find("drift allowed on channel video1: 320 ms"), std::string::npos) << run.err;

  probe_t probe;
  ASSERT_TRUE(Probe(dir / "rec.flv", probe));
  const auto* video = probe.Stream("video");
  ASSERT_NE(video, nullptr);
  double pictures = atof(video->at("nb_read_frames").c_str());
  double duration = atof(probe.format.at("duration").c_str());
  ASSERT_GT(duration, 1.0);
  EXPECT_NEAR(pictures / duration, 25.0, 2.5);
  EXPECT_EQ(probe.Stream("audio"), nullptr);
}

}  // namespace
}  // namespace e2e
}  // namespace vesk

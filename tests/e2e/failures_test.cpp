// A run that cannot be what the settings ask (audio that cannot start) on the
// camera of a --camera file; unusable input and --help. (Kinds of broken
// JSON and unknown commands: the settings command's tests.)
#include <gtest/gtest.h>

#include "e2e_util.h"

namespace vesk {
namespace e2e {
namespace {

// The S2L_22M chip, a 720p25 sensor and microcode that the encoder must load
// from its firmware path; the virtual microphone refuses to open: a
// video-only run that follows the sensor, not the settings' 30 fps. (A
// budget beyond the chip and a failing video setup: the video track's and
// the settings check's tests.)
TEST(E2eFailures, AudioThatCannotStartLeavesAVideoOnlyRunOnTheConfiguredCamera) {
  ScratchDir dir;
  WriteFile(dir / "no-microphone", "");
  json camera = {{"chipId", 0},
                 {"microcodeLoaded", false},
                 {"firmwareDirectory", dir / "firmware"},
                 {"scene", "busy"},
                 {"sensorModes", {{{"mode", 7}, {"width", 1280}, {"height", 720}, {"fps", 25}}}}};
  WriteFile(dir / "camera.json", camera.dump());
  json settings = {{"firmwarePath", dir / "firmware/"},
                   {"audio", AudioBlock(16000, 1, 32000)},
                   {"video",
                    {{"vinFps", 30},
                     {"video1", H264Stream(0, 1280, 720, 30,
                                           Serializer("flv", {"file://" + (dir / "rec.flv") + "?continuous"}))}}}};
  run_result_t run = RunCamera({"run", WriteSettings(dir, settings), "--seconds", "2", "--camera", dir / "camera.json"},
                               20000, {"VESK_VSND_PCM=fail_open_file=" + (dir / "no-microphone")});
  ASSERT_EQ(run.exitCode, 0) << run.out << run.err;
  EXPECT_NE(run.err.find("S2L_22M chip detected capable of 216000Mbps"), std::string::npos) << run.err;
  EXPECT_NE(run.err.find("Loading DSP ucode " + (dir / "firmware/")), std::string::npos) << run.err;
  EXPECT_NE(run.err.find("Sensor[0] setup at 1280x720@25"), std::string::npos) << run.err;
  EXPECT_NE(run.err.find("Audio setup failed. Permanently closing the audio track"), std::string::npos) << run.err;
  EXPECT_GT(NumberAfter(run.out, "pictures ", "total stream 0:"), 30) << run.out;
  EXPECT_EQ(NumberAfter(run.out, "audio frames ", "total stream 0:"), 0) << run.out;
  probe_t probe = Probe(dir / "rec.flv");
  ASSERT_EQ(probe.errors, "");
  EXPECT_TRUE(probe.Stream("audio").empty());
  EXPECT_EQ(probe.Tag("hasAudio"), "false");
  double duration = atof(probe.format.value("duration", "0").c_str());
  ASSERT_GT(duration, 1.0);
  EXPECT_NEAR(atof(Fields(probe.Stream("video"), {"nb_read_frames"}).c_str()) / duration, 25.0, 2.5);
}

TEST(E2eFailures, UnusableInputIsRefusedAndHelpDocumentsEverything) {
  ScratchDir dir;
  WriteFile(dir / "camera.json", R"({"chip": 1})");
  WriteFile(dir / "settings.json", "{}");
  const std::vector<std::pair<std::vector<std::string>, std::string>> refused = {
      {{"run", dir / "missing.json"}, "cannot read"},
      {{"run", dir / "settings.json", "--camera", dir / "camera.json"}, "unknown key \"chip\""},
      {{"run", dir / "settings.json", "--seconds", "soon"}, ""},
      {{"run", dir / "settings.json", "--log-level", "loud"}, ""},
      {{"run"}, ""}};
  for (const auto& item : refused) {
    run_result_t run = RunCamera(item.first, 10000);
    EXPECT_EQ(run.exitCode, 2) << item.first.back();
    EXPECT_NE(run.err.find(item.second), std::string::npos) << run.err;
  }

  const std::vector<std::pair<std::vector<std::string>, std::vector<std::string>>> help = {
      {{"--help"}, {"run", "settings", "receive", "ctl"}},
      {{"run", "--help"},
       {"--seconds", "--camera", "--log-level", "ALSA_CONFIG_PATH", "\"chipId\"", "\"sensorModes\"", "\"scene\"",
        "\"microcodeLoaded\"", "Exit status", "--control", "--stats", "\"ChangeVideoSettings\"",
        "\"RestartStreams\"", "\"ForceIDR\"", "\"OSDStats\"", "\"Settings\""}},
      {{"ctl", "--help"}, {"Exit status"}},
      {{"settings", "--help"}, {"--check"}}};
  for (const auto& item : help) {
    run_result_t run = RunCamera(item.first, 10000);
    EXPECT_EQ(run.exitCode, 0) << item.first[0];
    for (const std::string& word : item.second) EXPECT_NE(run.out.find(word), std::string::npos) << word;
  }
}

}  // namespace
}  // namespace e2e
}  // namespace vesk

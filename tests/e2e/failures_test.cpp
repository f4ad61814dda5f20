// Runs that cannot be what the settings ask: the chip's capacity exceeded,
// audio that cannot start, unusable input files.
#include <gtest/gtest.h>

#include "e2e_util.h"

namespace vesk {
namespace e2e {
namespace {

TEST(E2eFailures, BudgetBeyondTheChipFailsConfigureAndExitsNonZero) {
  ScratchDir dir;
  // S2L_22M encodes 216000 macroblocks per second; 1080p30 needs 244800.
  WriteFile(dir / "camera.json", R"({"chipId": 0})");
  json settings = {{"video",
                    {{"vinFps", 30},
                     {"video1", H264Stream(0, 1920, 1080, 30,
                                           Serializer("flv", {"file://" + (dir / "rec.flv") + "?continuous"}))}}}};
  run_result_t run = RunCamera({"run", WriteSettings(dir, settings), "--camera", dir / "camera.json"}, 20000);
  EXPECT_EQ(run.exitCode, 1) << run.out << run.err;
  EXPECT_NE(run.err.find("S2L_22M chip detected capable of 216000Mbps"), std::string::npos) << run.err;
  EXPECT_NE(run.err.find("Mbps exceeded: wanted: 244800; max: 216000"), std::string::npos) << run.err;
  EXPECT_NE(run.err.find("Video setup failed."), std::string::npos) << run.err;
  EXPECT_EQ(run.out.find("configured in"), std::string::npos) << run.out;
}

TEST(E2eFailures, AudioThatCannotStartLeavesAWorkingVideoOnlyRun) {
  ScratchDir dir;
  // The virtual microphone refuses to open while this file exists.
  WriteFile(dir / "no-microphone", "");
  json settings = {
      {"audio", AudioBlock(16000, 1, 32000)},
      {"video",
       {{"vinFps", 30},
        {"video1", H264Stream(0, 640, 360, 30,
                              Serializer("flv", {"file://" + (dir / "rec.flv") + "?continuous"}))}}}};
  run_result_t run = RunCamera({"run", WriteSettings(dir, settings), "--seconds", "2"}, 20000,
                               {"VESK_VSND_PCM=fail_open_file=" + (dir / "no-microphone")});
  ASSERT_EQ(run.exitCode, 0) << run.out << run.err;
  EXPECT_NE(run.err.find("Audio setup failed. Permanently closing the audio track"), std::string::npos) << run.err;
  EXPECT_GT(NumberAfter(run.out, "pictures ", "total stream 0:"), 30) << run.out;
  EXPECT_EQ(NumberAfter(run.out, "audio frames ", "total stream 0:"), 0) << run.out;
  std::string errors;
  EXPECT_TRUE(DecodesCleanly(dir / "rec.flv", errors)) << errors;
  probe_t probe;
  ASSERT_TRUE(Probe(dir / "rec.flv", probe));
  EXPECT_NE(probe.Stream("video"), nullptr);
  EXPECT_EQ(probe.Stream("audio"), nullptr);
  EXPECT_EQ(probe.format["TAG:hasAudio"], "false");
}

TEST(E2eFailures, UnusableInputIsRefusedBeforeTheEncoderStarts) {
  ScratchDir dir;
  WriteFile(dir / "broken.json", "{\"video\": ");
  WriteFile(dir / "camera.json", R"({"chip": 1})");
  WriteFile(dir / "settings.json", "{}");

  run_result_t run = RunCamera({"run", dir / "broken.json"}, 10000);
  EXPECT_EQ(run.exitCode, 2);
  EXPECT_NE(run.err.find("broken.json"), std::string::npos) << run.err;

  run = RunCamera({"run", dir / "missing.json"}, 10000);
  EXPECT_EQ(run.exitCode, 2);
  EXPECT_NE(run.err.find("cannot read"), std::string::npos) << run.err;

  run = RunCamera({"run", dir / "settings.json", "--camera", dir / "camera.json"}, 10000);
  EXPECT_EQ(run.exitCode, 2);
  EXPECT_NE(run.err.find("unknown key \"chip\""), std::string::npos) << run.err;

  run = RunCamera({"run", dir / "settings.json", "--seconds", "soon"}, 10000);
  EXPECT_EQ(run.exitCode, 2);
  run = RunCamera({"run", dir / "settings.json", "--log-level", "loud"}, 10000);
  EXPECT_EQ(run.exitCode, 2);
  run = RunCamera({"run"}, 10000);
  EXPECT_EQ(run.exitCode, 2);
  run = RunCamera({"fly"}, 10000);
  EXPECT_EQ(run.exitCode, 2);
}

TEST(E2eFailures, HelpDocumentsEveryCommandAndOption) {
  run_result_t run = RunCamera({"--help"}, 10000);
  EXPECT_EQ(run.exitCode, 0);
  for (const char* command : {"run", "settings", "receive", "ctl"}) EXPECT_NE(run.out.find(command), std::string::npos);
  run = RunCamera({"run", "--help"}, 10000);
  EXPECT_EQ(run.exitCode, 0);
  for (const char* option : {"--seconds", "--camera", "--log-level", "ALSA_CONFIG_PATH", "\"chipId\"",
                             "\"sensorModes\"", "\"scene\"", "\"microcodeLoaded\"", "Exit status",
                             "--control", "--stats", "\"ChangeVideoSettings\"", "\"RestartStreams\"",
                             "\"ForceIDR\"", "\"OSDStats\"", "\"Settings\""})
    EXPECT_NE(run.out.find(option), std::string::npos) << option;
  run = RunCamera({"ctl", "--help"}, 10000);
  EXPECT_EQ(run.exitCode, 0);
  EXPECT_NE(run.out.find("Exit status"), std::string::npos);
  run = RunCamera({"settings", "--help"}, 10000);
  EXPECT_NE(run.out.find("--check"), std::string::npos);
}

}  // namespace
}  // namespace e2e
}  // namespace vesk

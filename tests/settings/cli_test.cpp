// The real vesk-camera program: "settings" prints the normalised tree, and a
// missing file or invalid JSON gives one line on stderr and exit status 2.
#include <gtest/gtest.h>
#include <unistd.h>

#include <algorithm>
#include <string>

#include "settings_test_util.h"
#include "shell_util.h"
#include "vesk/messages.h"
#include "vesk/settings.h"

namespace vesk {
namespace test {
namespace {

struct run_t {
  int status = -1;
  std::string out, err;
  int errLines() const { return (int)std::count(err.begin(), err.end(), '\n'); }
};

class CameraCli : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/vesk_settings_cli_XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    dir_ = pattern;
  }
  void TearDown() override { RunCommand("rm -rf '" + dir_ + "'"); }

  std::string WriteFile(const char* name, const std::string& text) {
    std::string path = dir_ + "/" + name;
    FILE* f = fopen(path.c_str(), "w");
    fputs(text.c_str(), f);
    fclose(f);
    return path;
  }

  run_t Run(const std::string& args) {
    run_t r;
    r.out = RunCommand(std::string(VESK_CAMERA_PROGRAM) + " " + args + " 2>" + dir_ + "/err", &r.status);
    r.err = ReadFile(dir_ + "/err");
    return r;
  }

  std::string dir_;
};

TEST_F(CameraCli, PrintsTheNormalisedTree) {
  const char* input = R"({"video": {"video1": {"M": 0, "gopModel": 5, "sourceId": 1}},
                          "audio": {"sampleRate": 44099}})";
  run_t run = Run("settings " + WriteFile("in.json", input));
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.err, "");
  Variant printed = Json(run.out);
  EXPECT_TRUE(printed == Normalized<vesk::encoder::EncoderSettings>(input)) << run.out;
  EXPECT_EQ((int)printed["video"]["video1"]["M"], 1);
  EXPECT_EQ((int)printed["video"]["video1"]["sourceId"], 1);
  EXPECT_EQ((int)printed["audio"]["sampleRate"], 32000);
}

TEST_F(CameraCli, NormalisesAsTheClassGiven) {
  std::string path = WriteFile("in.json", R"({"volume": 120, "channels": 0})");
  run_t run = Run("settings --as AudioEncoderSettings " + path);
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_TRUE(Json(run.out) ==
              Normalized<vesk::encoder::AudioEncoderSettings>(R"({"volume": 120, "channels": 0})"));
  run = Run("settings --as AudioSettings " + path);
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_TRUE(Json(run.out) == Json(R"({"volume": 100, "bitRate": 7999, "channels": 0})"));

  run = Run("settings --as RestartStreams " + WriteFile("request.json", R"({"video3": true})"));
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(Json(run.out)["functionName"], "RestartStreams");
  EXPECT_TRUE(Json(run.out)["video3"] == Variant(true));

  path = WriteFile("chip.json", R"({"vin0": {"hdrMode": -4}})");
  run = Run("settings --as vesk::ipc::messages::ChipSettings " + path);
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_TRUE(Json(run.out) == Json(R"({"vin0": {"hdrMode": -1}, "vin1": {"hdrMode": -1}})"));
  run = Run("settings --as ChipSettings " + path);
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_TRUE(Json(run.out).HasKey("canvas4"));  // the encoder's chip block

  run = Run("settings --as NoSuchClass " + path);
  EXPECT_EQ(run.status, 2);
  EXPECT_EQ(run.out, "");
}

TEST_F(CameraCli, BadFilesAndUsageExitWithStatusTwoAndHelpExplains) {
  run_t run = Run("settings " + dir_ + "/missing.json");
  EXPECT_EQ(run.status, 2);
  EXPECT_EQ(run.out, "");
  EXPECT_EQ(run.errLines(), 1) << run.err;
  EXPECT_NE(run.err.find("missing.json"), std::string::npos) << run.err;

  run = Run("settings " + WriteFile("bad.json", "{\n  \"audio\": {\n    \"volume\": 50,,\n  }\n}\n"));
  EXPECT_EQ(run.status, 2);
  EXPECT_EQ(run.out, "");
  EXPECT_EQ(run.errLines(), 1) << run.err;
  EXPECT_NE(run.err.find("line 3"), std::string::npos) << run.err;
  EXPECT_NE(run.err.find("column"), std::string::npos) << run.err;

  run = Run("settings " + WriteFile("empty.json", ""));
  EXPECT_EQ(run.status, 2);
  EXPECT_EQ(run.errLines(), 1) << run.err;
  EXPECT_EQ(Run("settings").status, 2);
  EXPECT_EQ(Run("frobnicate").status, 2);

  run = Run("--help");
  EXPECT_EQ(run.status, 0);
  EXPECT_NE(run.out.find("settings"), std::string::npos) << run.out;
  run = Run("settings --help");
  EXPECT_EQ(run.status, 0);
  EXPECT_NE(run.out.find("--as CLASS"), std::string::npos) << run.out;
  EXPECT_NE(run.out.find("VideoSettingsElement"), std::string::npos) << run.out;
}

TEST_F(CameraCli, ExampleSettingsFileIsKeptAsWritten) {
  // The example states its values explicitly: normalisation only adds keys.
  std::string path = std::string(VESK_EXAMPLES_DIR) + "/settings-minimal.json";
  Variant written = Json(ReadFile(path));
  run_t run = Run("settings " + path);
  ASSERT_EQ(run.status, 0) << run.err;
  Variant printed = Json(run.out);
  for (const char* key : {"M", "N", "width", "height", "fps", "sourceId", "bitRateVbrMax", "avSerializer"}) {
    EXPECT_TRUE(printed["video"]["video1"][key] == written["video"]["video1"][key]) << key;
  }
  EXPECT_TRUE(printed["video"]["video1"]["avSerializer"]["destinations"].IsArray());
  EXPECT_NE((int)printed["video"]["video1"]["sourceId"], (int)printed["video"]["mjpg"]["sourceId"]);
  for (const char* key : {"enabled", "channels", "sampleRate", "bitRate", "volume"}) {
    EXPECT_TRUE(printed["audio"][key] == written["audio"][key]) << key;
  }

  run = Run("settings --as ChangeVideoSettings " + std::string(VESK_EXAMPLES_DIR) + "/change-video-settings.json");
  ASSERT_EQ(run.status, 0) << run.err;
  Variant request = Json(run.out);
  EXPECT_EQ((int)request["video"]["video1"]["fps"], 15);
  EXPECT_EQ((int)request["video"]["video2"]["bitRateVbrMax"], 16383);  // not requested
  EXPECT_EQ((int)request["audio"]["volume"], 80);
}

}  // namespace
}  // namespace test
}  // namespace vesk

// The real vesk-camera program: "settings" prints the normalised tree, and a
// missing file or invalid JSON gives one line on stderr and exit status 2.
#include <gtest/gtest.h>

#include <algorithm>
#include <fstream>
#include <string>
#include <utility>

#include "settings_test_util.h"
#include "stream_test_util.h"
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
  std::string WriteFile(const char* name, const std::string& text) {
    std::ofstream(dir_.File(name)) << text;
    return dir_.File(name);
  }

  run_t Run(const std::string& args) {
    run_t r;
    r.out = RunCommand(std::string(VESK_CAMERA_PROGRAM) + " " + args + " 2>" + dir_.File("err"), &r.status);
    r.err = ReadFile(dir_.File("err"));
    return r;
  }

  // Runs "settings ARGS", which must succeed quietly, and returns the printed tree.
  Variant Printed(const std::string& args) {
    run_t run = Run("settings " + args);
    EXPECT_EQ(run.status, 0) << args << ": " << run.err;
    EXPECT_EQ(run.err, "");
    return Json(run.out);
  }

  TempDir dir_;
};

TEST_F(CameraCli, PrintsTheTreeNormalisedAsTheClassGiven) {
  const char* input = R"({"video": {"video1": {"M": 0, "gopModel": 5, "sourceId": 1}},
                          "audio": {"sampleRate": 44099}})";
  EXPECT_TRUE(Printed(WriteFile("in.json", input)) == Normalized<vesk::encoder::EncoderSettings>(input));

  std::string path = WriteFile("audio.json", R"({"volume": 120, "channels": 0})");
  EXPECT_TRUE(Printed("--as AudioSettings " + path) == Json(R"({"volume": 100, "bitRate": 7999, "channels": 0})"));

  Variant restart = Printed("--as RestartStreams " + WriteFile("request.json", R"({"video3": true})"));
  EXPECT_EQ(restart["functionName"], "RestartStreams");
  EXPECT_TRUE(restart["video3"] == Variant(true));

  path = WriteFile("chip.json", R"({"vin0": {"hdrMode": -4}})");
  EXPECT_TRUE(Printed("--as vesk::ipc::messages::ChipSettings " + path) ==
              Json(R"({"vin0": {"hdrMode": -1}, "vin1": {"hdrMode": -1}})"));
  EXPECT_TRUE(Printed("--as ChipSettings " + path).HasKey("canvas4"));  // the encoder's chip block

  // The example request.
  Variant request = Printed("--as ChangeVideoSettings " + std::string(VESK_EXAMPLES_DIR) + "/change-video-settings.json");
  EXPECT_EQ((int)request["video"]["video1"]["fps"], 15);
  EXPECT_EQ((int)request["video"]["video2"]["bitRateVbrMax"], 16383);  // not requested
  EXPECT_EQ((int)request["audio"]["volume"], 80);

  run_t run = Run("settings --as NoSuchClass " + path);
  EXPECT_EQ(run.status, 2);
  EXPECT_EQ(run.out, "");
}

TEST_F(CameraCli, BadFilesAndUsageExitWithStatusTwoAndHelpListsTheClasses) {
  // A missing file, invalid JSON named by its line and column (the JSON tests
  // of the variant library go through the syntax errors).
  const std::pair<std::string, const char*> bad[] = {
      {dir_.File("missing.json"), "missing.json"},
      {WriteFile("bad.json", "{\n  \"audio\": {\n    \"volume\": 50,,\n  }\n}\n"), "line 3, column"}};
  for (const auto& b : bad) {
    run_t run = Run("settings " + b.first);
    EXPECT_EQ(run.status, 2);
    EXPECT_EQ(run.out, "");
    EXPECT_EQ(run.errLines(), 1) << run.err;
    EXPECT_NE(run.err.find(b.second), std::string::npos) << run.err;
  }
  EXPECT_EQ(Run("settings").status, 2);

  run_t run = Run("settings --help");
  EXPECT_EQ(run.status, 0);
  EXPECT_NE(run.out.find("--as CLASS"), std::string::npos) << run.out;
  EXPECT_NE(run.out.find("VideoSettingsElement"), std::string::npos) << run.out;
}

}  // namespace
}  // namespace test
}  // namespace vesk

// The real vesk-camera program: "settings" prints the normalised tree, and a
// missing file or invalid JSON gives one line on stderr and exit status 2.
#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>
#include <vector>

#include "settings_test_util.h"
#include "vesk/messages.h"
#include "vesk/settings.h"

namespace vesk {
namespace test {
namespace {

struct run_t {
  int status = -1;
  std::string out;
  std::string err;
};

std::string ReadAll(const std::string& path) {
  std::ifstream file(path);
  std::stringstream text;
  text << file.rdbuf();
  return text.str();
}

class CameraCli : public ::testing::Test {
 protected:
  void SetUp() override {
    char pattern[] = "/tmp/vesk_settings_cli_XXXXXX";
    ASSERT_NE(mkdtemp(pattern), nullptr);
    dir_ = pattern;
  }

  void TearDown() override {
    for (const std::string& path : created_) unlink(path.c_str());
    unlink((dir_ + "/out").c_str());
    unlink((dir_ + "/err").c_str());
    rmdir(dir_.c_str());
  }

  std::string WriteFile(const char* name, const std::string& text) {
    std::string path = dir_ + "/" + name;
    std::ofstream(path) << text;
    created_.push_back(path);
    return path;
  }

  // Runs the program with stdout and stderr in files; returns its exit status.
  run_t Run(const std::vector<std::string>& args) {
    std::string outPath = dir_ + "/out";
    std::string errPath = dir_ + "/err";
    run_t result;
    pid_t pid = fork();
    if (pid == 0) {
      int out = open(outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
      int err = open(errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0600);
      if (out < 0 || err < 0 || dup2(out, 1) < 0 || dup2(err, 2) < 0) _exit(127);
      std::vector<char*> argv;
      argv.push_back(const_cast<char*>(VESK_CAMERA_PROGRAM));
      for (const std::string& arg : args) argv.push_back(const_cast<char*>(arg.c_str()));
      argv.push_back(nullptr);
      execv(VESK_CAMERA_PROGRAM, argv.data());
      _exit(127);
    }
    int status = 0;
    if (pid > 0 && waitpid(pid, &status, 0) == pid && WIFEXITED(status)) {
      result.status = WEXITSTATUS(status);
    }
    result.out = ReadAll(outPath);
    result.err = ReadAll(errPath);
    return result;
  }

  std::string dir_;
  std::vector<std::string> created_;
};

int LineCount(const std::string& text) {
  int lines = 0;
  for (char c : text) lines += c == '\n';
  return lines;
}

TEST_F(CameraCli, PrintsTheNormalisedTree) {
  const char* input = R"({"video": {"video1": {"M": 0, "gopModel": 5, "sourceId": 1}},
                          "audio": {"sampleRate": 44099}})";
  std::string path = WriteFile("in.json", input);
  run_t run = Run({"settings", path});
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_EQ(run.err, "");
  Variant printed = Json(run.out);
  vesk::encoder::EncoderSettings expected = Normalized<vesk::encoder::EncoderSettings>(input);
  EXPECT_TRUE(printed == expected) << run.out;
  EXPECT_EQ((int)printed["video"]["video1"]["M"], 1);
  EXPECT_EQ((int)printed["video"]["video1"]["sourceId"], 1);
  EXPECT_EQ((int)printed["audio"]["sampleRate"], 32000);
}

TEST_F(CameraCli, NormalisesAsTheClassGiven) {
  std::string path = WriteFile("in.json", R"({"volume": 120, "channels": 0})");
  run_t run = Run({"settings", "--as", "AudioEncoderSettings", path});
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_TRUE(Json(run.out) ==
              Normalized<vesk::encoder::AudioEncoderSettings>(R"({"volume": 120, "channels": 0})"));

  run = Run({"settings", "--as", "AudioSettings", path});
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_EQ((int)Json(run.out)["volume"], 100);
  EXPECT_FALSE(Json(run.out).HasKey("sampleRate"));

  path = WriteFile("request.json", R"({"video3": true})");
  run = Run({"settings", "--as", "RestartStreams", path});
  ASSERT_EQ(run.status, 0) << run.err;
  Variant request = Json(run.out);
  EXPECT_EQ(request["functionName"], "RestartStreams");
  EXPECT_TRUE(request["video3"] == Variant(true));
  EXPECT_TRUE(request["video1"] == Variant(false));

  path = WriteFile("chip.json", R"({"vin0": {"hdrMode": -4}})");
  run = Run({"settings", "--as", "vesk::ipc::messages::ChipSettings", path});
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_TRUE(Json(run.out) == Json(R"({"vin0": {"hdrMode": -1}, "vin1": {"hdrMode": -1}})"));
  run = Run({"settings", "--as", "ChipSettings", path});
  ASSERT_EQ(run.status, 0) << run.err;
  EXPECT_TRUE(Json(run.out).HasKey("canvas4"));  // the encoder's chip block

  run = Run({"settings", "--as", "NoSuchClass", path});
  EXPECT_EQ(run.status, 2);
  EXPECT_EQ(run.out, "");
}

TEST_F(CameraCli, BadFilesExitWithStatusTwo) {
  run_t run = Run({"settings", dir_ + "/missing.json"});
  EXPECT_EQ(run.status, 2);
  EXPECT_EQ(run.out, "");
  EXPECT_EQ(LineCount(run.err), 1) << run.err;
  EXPECT_NE(run.err.find("missing.json"), std::string::npos) << run.err;

  std::string path = WriteFile("bad.json", "{\n  \"audio\": {\n    \"volume\": 50,,\n  }\n}\n");
  run = Run({"settings", path});
  EXPECT_EQ(run.status, 2);
  EXPECT_EQ(run.out, "");
  EXPECT_EQ(LineCount(run.err), 1) << run.err;
  EXPECT_NE(run.err.find("line 3"), std::string::npos) << run.err;
  EXPECT_NE(run.err.find("column"), std::string::npos) << run.err;

  run = Run({"settings", WriteFile("empty.json", "")});
  EXPECT_EQ(run.status, 2);
  EXPECT_EQ(LineCount(run.err), 1) << run.err;

  run = Run({"settings"});
  EXPECT_EQ(run.status, 2);
  run = Run({"frobnicate"});
  EXPECT_EQ(run.status, 2);
}

TEST_F(CameraCli, HelpOnBothLevels) {
  run_t run = Run({"--help"});
  EXPECT_EQ(run.status, 0);
  EXPECT_NE(run.out.find("settings"), std::string::npos) << run.out;
  run = Run({"settings", "--help"});
  EXPECT_EQ(run.status, 0);
  EXPECT_NE(run.out.find("--as CLASS"), std::string::npos) << run.out;
  EXPECT_NE(run.out.find("VideoSettingsElement"), std::string::npos) << run.out;
}

TEST_F(CameraCli, ExampleSettingsFileIsKeptAsWritten) {
  // The example states its values explicitly: normalisation only adds keys.
  std::string path = std::string(VESK_EXAMPLES_DIR) + "/settings-minimal.json";
  Variant written = Json(ReadAll(path));
  run_t run = Run({"settings", path});
  ASSERT_EQ(run.status, 0) << run.err;
  Variant printed = Json(run.out);
  const char* video1Keys[] = {"M", "N", "width", "height", "fps", "sourceId", "bitRateVbrMax"};
  for (const char* key : video1Keys) {
    EXPECT_TRUE(printed["video"]["video1"][key] == written["video"]["video1"][key]) << key;
  }
  EXPECT_TRUE(printed["video"]["video1"]["avSerializer"] ==
              written["video"]["video1"]["avSerializer"]);
  EXPECT_TRUE(printed["video"]["video1"]["avSerializer"]["destinations"].IsArray());
  EXPECT_NE((int)printed["video"]["video1"]["sourceId"], (int)printed["video"]["mjpg"]["sourceId"]);
  const char* audioKeys[] = {"enabled", "channels", "sampleRate", "bitRate", "volume"};
  for (const char* key : audioKeys) {
    EXPECT_TRUE(printed["audio"][key] == written["audio"][key]) << key;
  }

  path = std::string(VESK_EXAMPLES_DIR) + "/change-video-settings.json";
  run = Run({"settings", "--as", "ChangeVideoSettings", path});
  ASSERT_EQ(run.status, 0) << run.err;
  Variant request = Json(run.out);
  EXPECT_EQ((int)request["video"]["video1"]["fps"], 15);
  EXPECT_EQ((int)request["video"]["video2"]["bitRateVbrMax"], 16383);  // not requested
  EXPECT_EQ((int)request["audio"]["volume"], 80);
}

}  // namespace
}  // namespace test
}  // namespace vesk

// vesk-camera settings --check, and the same warnings at the start of a run.
#include <gtest/gtest.h>

#include <dirent.h>

#include "e2e_util.h"

namespace vesk {
namespace e2e {
namespace {

TEST(E2eSettingsCheck, NamesEachSettingThatWillHurt) {
  ScratchDir dir;
  json video1 = H264Stream(0, 1280, 720, 30, Serializer("flv", {"file:///tmp/a.flv"}));  // not continuous
  video1["M"] = 2;
  json video2 = H264Stream(0, 640, 360, 30, Serializer("flv", {"file:///tmp/b.flv?continuous"}));
  video2.erase("M");  // defaults to 2
  json settings = {{"audio", {{"enabled", true}, {"mode", 1}, {"sampleRate", 16000}, {"bitRate", 32000}}},
                   {"video",
                    {{"video1", video1},
                     {"video2", video2},
                     {"video3", H264Stream(3, 320, 180, 15, Serializer("vesk", {"udp://127.0.0.1:5600"}))},
                     {"mjpg1", {{"enabled", "yes"}}},
                     {"mjpg2", MjpgStream(4, 320, 180, 5, Serializer("passThrough", {"file:///tmp/c.jpg"}))}}}};
  std::string path = WriteSettings(dir, settings);
  run_result_t check = RunCamera({"settings", "--check", path}, 10000);
  EXPECT_EQ(check.exitCode, 1) << check.out << check.err;
  const char* expected[] = {
      "audio: mode 1 at 16000 Hz and 32000 bit/s is not a combination the AAC encoder supports",
      "mjpg1: \"enabled\" is \"yes\", not true or false",
      "video1: \"M\" is 2: pictures with B frames cannot be time-stamped and the process will stop",
      "video2: \"M\" is 2 (the default, as it is not set)",
      "video1 (1280x720) and video2 (640x360) both read source buffer 0",
      "mjpg2 reads source buffer 4, which no stream sets up",
      "video1: FLV file destination \"file:///tmp/a.flv\" has no \"continuous\" parameter",
      "mjpg2: snapshot file \"file:///tmp/c.jpg\" also receives every audio frame",
  };
  for (const char* warning : expected) EXPECT_NE(check.out.find(warning), std::string::npos) << warning << check.out;
  // Nothing is wrong with video3.
  EXPECT_TRUE(check.out.find("video3:") == std::string::npos && check.out.find("video3 (") == std::string::npos);

  // A run prints the same warnings, then fails to configure as warned: video1
  // does not fit source buffer 0 that video2 sized.
  run_result_t run = RunCamera({"run", path, "--seconds", "0"});
  EXPECT_EQ(run.exitCode, 1);
  EXPECT_NE(run.err.find("Video setup failed."), std::string::npos) << run.err;
  for (const char* warning : expected)
    EXPECT_NE(run.err.find(std::string("vesk-camera: warning: ") + warning), std::string::npos) << warning;
}

TEST(E2eSettingsCheck, FixedSettingsAndEveryExampleHaveNoWarning) {
  ScratchDir dir;
  json settings = {
      {"audio", AudioBlock(44100, 2, 64000)},
      {"video",
       {{"video1", H264Stream(0, 1280, 720, 30, Serializer("flv", {"file:///tmp/a.flv?continuous"}))},
        {"mjpg", MjpgStream(1, 320, 180, 5, Serializer("passThrough", {"file:///tmp/c.jpg"}, {{"suppressAudio", true}}))},
        {"mjpg2", MjpgStream(1, 320, 180, 5, Serializer("mjpg", {"udp://127.0.0.1:5600"}))}}}};
  run_result_t check = RunCamera({"settings", "--check", WriteSettings(dir, settings)}, 10000);
  EXPECT_EQ(check.exitCode, 0) << check.out;
  EXPECT_NE(check.out.find("no warnings"), std::string::npos) << check.out;

  DIR* examples = opendir(VESK_E2E_EXAMPLES);
  ASSERT_NE(examples, nullptr);
  int checked = 0;
  while (dirent* entry = readdir(examples)) {
    std::string path = std::string(VESK_E2E_EXAMPLES "/") + entry->d_name;
    std::string text = ReadFile(path);
    // Settings trees only, not request messages.
    if (path.size() < 5 || path.compare(path.size() - 5, 5, ".json") != 0 || text.find("\"video\"") == std::string::npos ||
        text.find("\"functionName\"") != std::string::npos)
      continue;
    run_result_t result = RunCamera({"settings", "--check", path}, 10000);
    EXPECT_EQ(result.exitCode, 0) << path << ":\n" << result.out;
    checked++;
  }
  closedir(examples);
  EXPECT_GE(checked, 7);
}

}  // namespace
}  // namespace e2e
}  // namespace vesk

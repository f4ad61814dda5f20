// vesk-camera settings --check, and the same warnings at the start of a run.
#include <gtest/gtest.h>

#include <dirent.h>

#include "e2e_util.h"

namespace vesk {
namespace e2e {
namespace {

json FileSerializer(const std::string& type, const std::string& uri, const json& parameters = json::object()) {
  return Serializer(type, {uri}, parameters);
}

TEST(E2eSettingsCheck, NamesEachSettingThatWillHurt) {
  ScratchDir dir;
  json video1 = H264Stream(0, 1280, 720, 30, FileSerializer("flv", "file:///tmp/a.flv"));  // not continuous
  video1["M"] = 2;
  json video2 = H264Stream(0, 640, 360, 30, FileSerializer("flv", "file:///tmp/b.flv?continuous"));
  video2.erase("M");  // defaults to 2
  json video3 = H264Stream(3, 320, 180, 15, FileSerializer("vesk", "udp://127.0.0.1:5600"));
  json mjpg2 = MjpgStream(4, 320, 180, 5, FileSerializer("passThrough", "file:///tmp/c.jpg"));
  json settings = {{"audio", {{"enabled", true}, {"mode", 1}, {"sampleRate", 16000}, {"bitRate", 32000}}},
                   {"video",
                    {{"video1", video1},
                     {"video2", video2},
                     {"video3", video3},
                     {"mjpg1", {{"enabled", "yes"}}},
                     {"mjpg2", mjpg2}}}};
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
  for (const char* warning : expected) EXPECT_NE(check.out.find(warning), std::string::npos) << warning << "\n" << check.out;
  // Nothing is wrong with video3.
  EXPECT_EQ(check.out.find("video3:"), std::string::npos) << check.out;
  EXPECT_EQ(check.out.find("video3 ("), std::string::npos) << check.out;

  // A run prints the same warnings before it configures; this one then fails
  // to configure, as warned: video1 does not fit source buffer 0 that video2 sized.
  run_result_t run = RunCamera({"run", path, "--seconds", "0"}, 20000);
  EXPECT_EQ(run.exitCode, 1);
  EXPECT_NE(run.err.find("Video setup failed."), std::string::npos) << run.err;
  for (const char* warning : expected)
    EXPECT_NE(run.err.find(std::string("vesk-camera: warning: ") + warning), std::string::npos) << warning;
}

TEST(E2eSettingsCheck, FixedSettingsAndEveryExampleHaveNoWarning) {
  ScratchDir dir;
  json settings = {{"audio", AudioBlock(44100, 2, 64000)},
                   {"video",
                    {{"video1", H264Stream(0, 1280, 720, 30, FileSerializer("flv", "file:///tmp/a.flv?continuous"))},
                     {"mjpg", MjpgStream(1, 320, 180, 5,
                                         FileSerializer("passThrough", "file:///tmp/c.jpg", {{"suppressAudio", true}}))},
                     {"mjpg2", MjpgStream(1, 320, 180, 5, FileSerializer("mjpg", "udp://127.0.0.1:5600"))}}}};
  run_result_t check = RunCamera({"settings", "--check", WriteSettings(dir, settings)}, 10000);
  EXPECT_EQ(check.exitCode, 0) << check.out;
  EXPECT_NE(check.out.find("no warnings"), std::string::npos) << check.out;

  DIR* examples = opendir(ExamplesDir().c_str());
  ASSERT_NE(examples, nullptr);
  int checked = 0;
  while (dirent* entry = readdir(examples)) {
    std::string name = entry->d_name;
    if (name.size() < 5 || name.compare(name.size() - 5, 5, ".json") != 0) continue;
    std::string path = ExamplesDir() + "/" + name;
    if (ReadFile(path).find("\"video\"") == std::string::npos) continue;  // not a settings tree
    if (ReadFile(path).find("\"functionName\"") != std::string::npos) continue;  // a request message
    run_result_t result = RunCamera({"settings", "--check", path}, 10000);
    EXPECT_EQ(result.exitCode, 0) << name << ":\n" << result.out;
    checked++;
  }
  closedir(examples);
  EXPECT_GE(checked, 7);
}

}  // namespace
}  // namespace e2e
}  // namespace vesk

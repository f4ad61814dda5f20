// Helpers of the end-to-end tests: a scratch directory, vesk-camera as a child
// process, ffprobe's view of a file, settings trees built in JSON.
#pragma once

#include <fcntl.h>
#include <signal.h>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include <cstdlib>
#include <fstream>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

#include "shell_util.h"
#include "tcp_peer_util.h"

namespace vesk {
namespace e2e {

using json = nlohmann::json;
using test::FreePort;
using test::ReadFile;

inline std::string CameraPath() { return VESK_E2E_CAMERA; }

// A fresh directory under /tmp, removed with everything in it.
class ScratchDir {
 public:
  ScratchDir() {
    char pattern[] = "/tmp/vesk-e2e-XXXXXX";
    path_ = mkdtemp(pattern) != nullptr ? pattern : "";
  }
  ~ScratchDir() {
    if (!path_.empty()) test::RunCommand("rm -rf '" + path_ + "'");
  }
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

// A program run with stdin empty and stdout and stderr in files; killed if
// still running when destroyed.
class Child {
 public:
  Child(const std::vector<std::string>& argv, const std::string& outPath, const std::string& errPath) {
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
    posix_spawn_file_actions_addopen(&actions, 1, outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    posix_spawn_file_actions_addopen(&actions, 2, errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
    std::vector<char*> args;
    for (const std::string& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
    args.push_back(nullptr);
    if (posix_spawnp(&pid_, args[0], &actions, nullptr, args.data(), environ) != 0) pid_ = -1;
    posix_spawn_file_actions_destroy(&actions);
  }
  ~Child() { Wait(0); }
  void Signal(int signal) {
    if (pid_ > 0 && status_ < 0) kill(pid_, signal);
  }
  bool Running() {
    int status;
    if (pid_ <= 0 || status_ >= 0) return false;
    if (waitpid(pid_, &status, WNOHANG) != pid_) return true;
    status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return false;
  }
  // The exit code; -1 when it did not exit within timeoutMs (it is then killed).
  int Wait(int timeoutMs) {
    if (test::WaitUntil([&] { return !Running(); }, timeoutMs, 5)) return status_;
    Signal(SIGKILL);
    waitpid(pid_, nullptr, 0);
    pid_ = -1;
    return -1;
  }

 private:
  pid_t pid_ = -1;
  int status_ = -1;
};

struct run_result_t {
  int exitCode;
  std::string out;
  std::string err;
};

// vesk-camera ARGS... with extra NAME=value variables, waited for up to timeoutMs.
inline run_result_t RunCamera(const std::vector<std::string>& args, int timeoutMs = 20000,
                              const std::vector<std::string>& env = {}) {
  ScratchDir logs;
  std::vector<std::string> argv = {"env"};
  argv.insert(argv.end(), env.begin(), env.end());
  argv.push_back(CameraPath());
  argv.insert(argv.end(), args.begin(), args.end());
  Child child(argv, logs / "out", logs / "err");
  int code = child.Wait(timeoutMs);
  return {code, ReadFile(logs / "out"), ReadFile(logs / "err")};
}

// A shell command's exit code; output gets its stdout and stderr together.
inline int Shell(const std::string& command, std::string& output) {
  int status = -1;
  output = test::RunCommand(command + " 2>&1", &status);
  return status;
}

inline void WriteFile(const std::string& path, const std::string& text) {
  std::ofstream(path, std::ios::binary) << text;
}

inline bool WaitForText(const std::string& path, const std::string& text, int timeoutMs) {
  return test::WaitUntil([&] { return ReadFile(path).find(text) != std::string::npos; }, timeoutMs, 20);
}

// ffprobe's view of a file (its streams with their frames counted, its format
// with the FLV metadata as tags), and what went wrong: ffmpeg not decoding the
// whole file without a word, or ffprobe failing. Empty errors: all was well.
struct probe_t {
  json streams = json::array();
  json format = json::object();
  std::string errors;
  json Stream(const std::string& codecType) const {
    for (const json& stream : streams)
      if (stream.value("codec_type", "") == codecType) return stream;
    return json::object();
  }
  std::string Tag(const std::string& name) const { return format.value("tags", json::object()).value(name, ""); }
};

// Named fields of one of ffprobe's streams as text, space-separated ("h264 640 360").
inline std::string Fields(const json& stream, std::initializer_list<const char*> names) {
  std::string text;
  for (const char* name : names) {
    json value = stream.value(name, json("-"));
    text += (text.empty() ? "" : " ") + (value.is_string() ? value.get<std::string>() : value.dump());
  }
  return text;
}

inline probe_t Probe(const std::string& path, const std::string& inputFormat = "") {
  std::string format = inputFormat.empty() ? "" : "-f " + inputFormat + " ";
  probe_t probe;
  std::string output;
  if (Shell("ffmpeg -nostdin -v error " + format + "-i '" + path + "' -f null -", output) != 0 || !output.empty())
    probe.errors = "ffmpeg: " + output;
  int code = -1;
  json all = json::parse(test::RunCommand("ffprobe -v error -count_frames -show_streams -show_format -of json " +
                                              format + "'" + path + "' 2>/dev/null", &code),
                         nullptr, false);
  if (code == 0 && all.is_object() && !all["streams"].empty()) {
    probe.streams = all["streams"];
    probe.format = all["format"];
  } else {
    probe.errors += "ffprobe cannot read " + path;
  }
  return probe;
}

inline json AudioBlock(unsigned sampleRate, unsigned channels, unsigned bitRate) {
  return {{"enabled", true},          {"type", "aac"},       {"mode", 0},     {"channels", channels},
          {"sampleRate", sampleRate}, {"bitRate", bitRate}, {"volume", 70}};
}

inline json H264Stream(unsigned sourceId, unsigned width, unsigned height, unsigned fps, const json& avSerializer) {
  return {{"enabled", true}, {"sourceId", sourceId}, {"width", width}, {"height", height},
          {"fps", fps},      {"M", 1},               {"N", fps},      {"nMultiplier", 1},
          {"gopModel", 0},   {"bitRateVbrMax", 800000}, {"bitRateCbrAvg", 800000},
          {"avSerializer", avSerializer}};
}

inline json MjpgStream(unsigned sourceId, unsigned width, unsigned height, unsigned fps, const json& avSerializer) {
  return {{"enabled", true}, {"sourceId", sourceId}, {"width", width}, {"height", height},
          {"fps", fps},      {"quality", 80},        {"avSerializer", avSerializer}};
}

inline json Serializer(const std::string& type, const std::vector<std::string>& destinations,
                       const json& parameters = json::object()) {
  return {{"type", type}, {"parameters", parameters}, {"destinations", destinations}};
}

inline std::string WriteSettings(const ScratchDir& dir, const json& settings,
                                 const std::string& name = "settings.json") {
  WriteFile(dir / name, settings.dump(2));
  return dir / name;
}

// The number after the first `key` that follows `after` in text; -1 when absent.
inline long long NumberAfter(const std::string& text, const std::string& key, const std::string& after = "") {
  size_t at = text.find(key, after.empty() ? 0 : text.find(after));
  return at == std::string::npos ? -1 : strtoll(text.c_str() + at + key.size(), nullptr, 10);
}

}  // namespace e2e
}  // namespace vesk

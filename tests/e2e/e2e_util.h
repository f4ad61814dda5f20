// Helpers of the end-to-end tests: a scratch directory, vesk-camera and the
// ffmpeg tools run as child processes, settings trees built in JSON.
#pragma once

#include <sys/types.h>

#include <cstdint>
#include <map>
#include <string>
#include <vector>

#include <nlohmann/json.hpp>

namespace vesk {
namespace e2e {

using json = nlohmann::json;

// A fresh directory under /tmp, removed with everything in it.
class ScratchDir {
 public:
  ScratchDir();
  ~ScratchDir();
  const std::string& path() const { return path_; }
  std::string operator/(const std::string& name) const { return path_ + "/" + name; }

 private:
  std::string path_;
};

// A child process with its stdout and stderr in files.
class Child {
 public:
  // env: extra variables (NAME=value) on top of this process's. stdin is
  // empty, or with openStdin a pipe that stays open until the child ends
  // (for peers such as openssl s_server that hang up when their input ends).
  Child(const std::vector<std::string>& argv, const std::string& outPath, const std::string& errPath,
        const std::vector<std::string>& env = {}, bool openStdin = false);
  ~Child();  // kills a child still running
  bool Started() const { return pid_ > 0; }
  void Signal(int signal);
  // The exit code, or -1 when it did not exit within timeoutMs (it is then
  // killed), or 128 + signal when a signal ended it.
  int Wait(int timeoutMs);
  bool Running();

 private:
  pid_t pid_ = -1;
  int status_ = -1;
  int stdinWriter_ = -1;
};

struct run_result_t {
  int exitCode;
  std::string out;
  std::string err;
};

std::string CameraPath();
std::string ExamplesDir();

// vesk-camera ARGS..., waited for up to timeoutMs.
run_result_t RunCamera(const std::vector<std::string>& args, int timeoutMs,
                       const std::vector<std::string>& env = {});

// A shell command's exit code and its stdout and stderr together.
int Shell(const std::string& command, std::string& output);

std::string ReadFile(const std::string& path);
bool WriteFile(const std::string& path, const std::string& text);
// Waits up to timeoutMs for the file to hold text.
bool WaitForText(const std::string& path, const std::string& text, int timeoutMs);

// Ports on the loopback that were free a moment ago.
uint16_t FreeUdpPort();
uint16_t FreeTcpPort();

// ffprobe's view of a file: one map of fields per stream, in stream order,
// and the format's fields (tags as "TAG:name").
struct probe_t {
  std::vector<std::map<std::string, std::string>> streams;
  std::map<std::string, std::string> format;
  const std::map<std::string, std::string>* Stream(const std::string& codecType) const;
};
bool Probe(const std::string& path, probe_t& probe, const std::string& inputFormat = "");
// ffmpeg's decode of the whole file: true when it exits 0 and prints nothing.
bool DecodesCleanly(const std::string& path, std::string& errors, const std::string& inputFormat = "");

// Building blocks of settings trees.
json AudioBlock(unsigned sampleRate, unsigned channels, unsigned bitRate);
json H264Stream(unsigned sourceId, unsigned width, unsigned height, unsigned fps, const json& avSerializer);
json MjpgStream(unsigned sourceId, unsigned width, unsigned height, unsigned fps, const json& avSerializer);
json Serializer(const std::string& type, const std::vector<std::string>& destinations,
                const json& parameters = json::object());
std::string WriteSettings(const ScratchDir& dir, const json& settings, const std::string& name = "settings.json");

// A number out of "key N" in text (the first occurrence after `after`); -1 when absent.
long long NumberAfter(const std::string& text, const std::string& key, const std::string& after = "");

}  // namespace e2e
}  // namespace vesk

#include "e2e_util.h"

#include <arpa/inet.h>
#include <fcntl.h>
#include <ftw.h>
#include <netinet/in.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fstream>
#include <sstream>
#include <thread>

extern char** environ;

namespace vesk {
namespace e2e {

namespace {

int RemoveEntry(const char* path, const struct stat*, int, struct FTW*) { return remove(path); }

uint16_t FreePort(int type) {
  int fd = socket(AF_INET, type, 0);
  sockaddr_in address;
  memset(&address, 0, sizeof(address));
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  bind(fd, (sockaddr*)&address, sizeof(address));
  socklen_t length = sizeof(address);
  getsockname(fd, (sockaddr*)&address, &length);
  close(fd);
  return ntohs(address.sin_port);
}

// Splits ffprobe's default output ([STREAM] key=value ... [/STREAM]).
void ParseSections(const std::string& text, probe_t& probe) {
  std::istringstream lines(text);
  std::string line;
  std::map<std::string, std::string>* current = nullptr;
  while (std::getline(lines, line)) {
    if (line == "[STREAM]") {
      probe.streams.emplace_back();
      current = &probe.streams.back();
    } else if (line == "[FORMAT]") {
      current = &probe.format;
    } else if (line.size() > 2 && line[0] == '[' && line[1] == '/') {
      current = nullptr;
    } else if (current != nullptr) {
      size_t eq = line.find('=');
      if (eq != std::string::npos) (*current)[line.substr(0, eq)] = line.substr(eq + 1);
    }
  }
}

}  // namespace

ScratchDir::ScratchDir() {
  char pattern[] = "/tmp/vesk-e2e-XXXXXX";
  char* made = mkdtemp(pattern);
  path_ = made != nullptr ? made : "/tmp";
}

ScratchDir::~ScratchDir() {
  if (path_ != "/tmp") nftw(path_.c_str(), RemoveEntry, 16, FTW_DEPTH | FTW_PHYS);
}

Child::Child(const std::vector<std::string>& argv, const std::string& outPath, const std::string& errPath,
             const std::vector<std::string>& env, bool openStdin) {
  posix_spawn_file_actions_t actions;
  posix_spawn_file_actions_init(&actions);
  int input[2] = {-1, -1};
  if (openStdin && pipe2(input, O_CLOEXEC) == 0) {
    posix_spawn_file_actions_adddup2(&actions, input[0], 0);
    stdinWriter_ = input[1];
  } else {
    posix_spawn_file_actions_addopen(&actions, 0, "/dev/null", O_RDONLY, 0);
  }
  posix_spawn_file_actions_addopen(&actions, 1, outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  posix_spawn_file_actions_addopen(&actions, 2, errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC, 0644);
  std::vector<char*> args;
  for (const std::string& arg : argv) args.push_back(const_cast<char*>(arg.c_str()));
  args.push_back(nullptr);
  std::vector<std::string> environment;
  for (char** entry = environ; *entry != nullptr; entry++) environment.push_back(*entry);
  for (const std::string& extra : env) environment.push_back(extra);
  std::vector<char*> envp;
  for (const std::string& entry : environment) envp.push_back(const_cast<char*>(entry.c_str()));
  envp.push_back(nullptr);
  pid_t pid;
  if (posix_spawnp(&pid, args[0], &actions, nullptr, args.data(), envp.data()) == 0) pid_ = pid;
  posix_spawn_file_actions_destroy(&actions);
  if (input[0] >= 0) close(input[0]);
}

Child::~Child() {
  if (Running()) {
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
  }
  if (stdinWriter_ >= 0) close(stdinWriter_);
}

void Child::Signal(int signal) {
  if (pid_ > 0 && status_ < 0) kill(pid_, signal);
}

bool Child::Running() {
  if (pid_ <= 0 || status_ >= 0) return false;
  int status;
  if (waitpid(pid_, &status, WNOHANG) == pid_) {
    status_ = WIFEXITED(status) ? WEXITSTATUS(status) : 128 + WTERMSIG(status);
    return false;
  }
  return true;
}

int Child::Wait(int timeoutMs) {
  auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  while (Running()) {
    if (std::chrono::steady_clock::now() >= deadline) {
      kill(pid_, SIGKILL);
      waitpid(pid_, nullptr, 0);
      status_ = -1;
      pid_ = -1;
      return -1;
    }
    std::this_thread::sleep_for(std::chrono::milliseconds(5));
  }
  return status_;
}

std::string CameraPath() { return VESK_E2E_CAMERA; }
std::string ExamplesDir() { return VESK_E2E_EXAMPLES; }

run_result_t RunCamera(const std::vector<std::string>& args, int timeoutMs, const std::vector<std::string>& env) {
  ScratchDir logs;
  std::vector<std::string> argv = {CameraPath()};
  argv.insert(argv.end(), args.begin(), args.end());
  Child child(argv, logs / "out", logs / "err", env);
  run_result_t result;
  result.exitCode = child.Wait(timeoutMs);
  result.out = ReadFile(logs / "out");
  result.err = ReadFile(logs / "err");
  return result;
}

int Shell(const std::string& command, std::string& output) {
  output.clear();
  FILE* pipe = popen((command + " 2>&1").c_str(), "r");
  if (pipe == nullptr) return -1;
  char chunk[4096];
  size_t count;
  while ((count = fread(chunk, 1, sizeof(chunk), pipe)) > 0) output.append(chunk, count);
  int status = pclose(pipe);
  return WIFEXITED(status) ? WEXITSTATUS(status) : -1;
}

std::string ReadFile(const std::string& path) {
  std::ifstream file(path, std::ios::binary);
  std::stringstream text;
  text << file.rdbuf();
  return text.str();
}

bool WriteFile(const std::string& path, const std::string& text) {
  std::ofstream file(path, std::ios::binary | std::ios::trunc);
  file << text;
  return (bool)file;
}

bool WaitForText(const std::string& path, const std::string& text, int timeoutMs) {
  auto deadline = std::chrono::steady_clock::now() + std::chrono::milliseconds(timeoutMs);
  while (std::chrono::steady_clock::now() < deadline) {
    if (ReadFile(path).find(text) != std::string::npos) return true;
    std::this_thread::sleep_for(std::chrono::milliseconds(20));
  }
  return false;
}

uint16_t FreeUdpPort() { return FreePort(SOCK_DGRAM); }
uint16_t FreeTcpPort() { return FreePort(SOCK_STREAM); }

const std::map<std::string, std::string>* probe_t::Stream(const std::string& codecType) const {
  for (const auto& stream : streams) {
    auto it = stream.find("codec_type");
    if (it != stream.end() && it->second == codecType) return &stream;
  }
  return nullptr;
}

bool Probe(const std::string& path, probe_t& probe, const std::string& inputFormat) {
  std::string output;
  std::string format = inputFormat.empty() ? "" : "-f " + inputFormat + " ";
  int code = Shell("ffprobe -v error -count_frames -show_streams -show_format " + format + "'" + path + "'", output);
  probe = probe_t();
  ParseSections(output, probe);
  return code == 0 && !probe.streams.empty();
}

bool DecodesCleanly(const std::string& path, std::string& errors, const std::string& inputFormat) {
  std::string format = inputFormat.empty() ? "" : "-f " + inputFormat + " ";
  int code = Shell("ffmpeg -nostdin -v error " + format + "-i '" + path + "' -f null -", errors);
  return code == 0 && errors.empty();
}

json AudioBlock(unsigned sampleRate, unsigned channels, unsigned bitRate) {
  return {{"enabled", true}, {"type", "aac"},        {"mode", 0},         {"channels", channels},
          {"sampleRate", sampleRate}, {"bitRate", bitRate}, {"volume", 70}};
}

json H264Stream(unsigned sourceId, unsigned width, unsigned height, unsigned fps, const json& avSerializer) {
  return {{"enabled", true}, {"sourceId", sourceId}, {"width", width}, {"height", height},
          {"fps", fps},      {"M", 1},               {"N", fps},      {"nMultiplier", 1},
          {"gopModel", 0},   {"bitRateVbrMax", 800000}, {"bitRateCbrAvg", 800000},
          {"avSerializer", avSerializer}};
}

json MjpgStream(unsigned sourceId, unsigned width, unsigned height, unsigned fps, const json& avSerializer) {
  return {{"enabled", true}, {"sourceId", sourceId}, {"width", width}, {"height", height},
          {"fps", fps},      {"quality", 80},        {"avSerializer", avSerializer}};
}

json Serializer(const std::string& type, const std::vector<std::string>& destinations, const json& parameters) {
  return {{"type", type}, {"parameters", parameters}, {"destinations", destinations}};
}

std::string WriteSettings(const ScratchDir& dir, const json& settings, const std::string& name) {
  std::string path = dir / name;
  WriteFile(path, settings.dump(2));
  return path;
}

long long NumberAfter(const std::string& text, const std::string& key, const std::string& after) {
  size_t start = after.empty() ? 0 : text.find(after);
  if (start == std::string::npos) return -1;
  size_t at = text.find(key, start);
  if (at == std::string::npos) return -1;
  return strtoll(text.c_str() + at + key.size(), nullptr, 10);
}

}  // namespace e2e
}  // namespace vesk

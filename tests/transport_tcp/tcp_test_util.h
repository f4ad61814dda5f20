// Helpers of the TCP transport tests: loopback listeners, child processes
// (ffmpeg, openssl) run as peers, and a media pump that feeds real H.264 and
// AAC into an output stream the way the encoder's pump does.
#pragma once

#include <arpa/inet.h>
#include <fcntl.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <spawn.h>
#include <sys/socket.h>
#include <sys/wait.h>
#include <unistd.h>

#include <chrono>
#include <cstdint>
#include <cstring>
#include <functional>
#include <string>
#include <thread>
#include <vector>

#include "outstream.h"
#include "stream_test_util.h"

extern char** environ;

namespace vesk {
namespace test {

inline uint64_t MsSince(std::chrono::steady_clock::time_point start) {
  return (uint64_t)std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::steady_clock::now() - start)
      .count();
}

// A loopback port that was free a moment ago.
inline uint16_t FreePort() {
  int fd = socket(AF_INET, SOCK_STREAM, 0);
  struct sockaddr_in address;
  memset(&address, 0, sizeof(address));
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  bind(fd, (struct sockaddr*)&address, sizeof(address));
  socklen_t length = sizeof(address);
  getsockname(fd, (struct sockaddr*)&address, &length);
  close(fd);
  return ntohs(address.sin_port);
}

// A listening loopback socket on a port of the system's choice.
class Listener {
 public:
  // port 0: a port of the system's choice.
  explicit Listener(int backlog = 8, uint16_t port = 0) {
    fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    int one = 1;
    setsockopt(fd_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
    struct sockaddr_in address;
    memset(&address, 0, sizeof(address));
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    address.sin_port = htons(port);
    bind(fd_, (struct sockaddr*)&address, sizeof(address));
    listen(fd_, backlog);
    socklen_t length = sizeof(address);
    getsockname(fd_, (struct sockaddr*)&address, &length);
    port_ = ntohs(address.sin_port);
  }
  ~Listener() { close(fd_); }
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;

  uint16_t port() const { return port_; }
  int fd() const { return fd_; }
  std::string Uri(const std::string& query = "") const {
    return "tcp://127.0.0.1:" + std::to_string(port_) + (query.empty() ? "" : "?" + query);
  }
  // The next connection, or -1 after timeoutMs.
  int Accept(int timeoutMs) {
    struct pollfd p = {fd_, POLLIN, 0};
    if (poll(&p, 1, timeoutMs) <= 0) return -1;
    return accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC);
  }

 private:
  int fd_;
  uint16_t port_;
};

// Reads from fd until count bytes arrived, the peer closed or timeoutMs passed.
inline std::vector<uint8_t> ReadBytes(int fd, size_t count, int timeoutMs) {
  std::vector<uint8_t> bytes;
  auto start = std::chrono::steady_clock::now();
  uint8_t chunk[65536];
  while (bytes.size() < count) {
    int left = timeoutMs - (int)MsSince(start);
    if (left <= 0) break;
    struct pollfd p = {fd, POLLIN, 0};
    if (poll(&p, 1, left) <= 0) break;
    size_t want = count - bytes.size();
    ssize_t n = recv(fd, chunk, want < sizeof(chunk) ? want : sizeof(chunk), 0);
    if (n <= 0) break;
    bytes.insert(bytes.end(), chunk, chunk + n);
  }
  return bytes;
}

// True when the peer of fd closed (or reset) the connection within timeoutMs;
// whatever else arrives is read and dropped.
inline bool WaitForClose(int fd, int timeoutMs) {
  auto start = std::chrono::steady_clock::now();
  uint8_t chunk[65536];
  for (;;) {
    int left = timeoutMs - (int)MsSince(start);
    if (left <= 0) return false;
    struct pollfd p = {fd, POLLIN, 0};
    if (poll(&p, 1, left) <= 0) return false;
    if (recv(fd, chunk, sizeof(chunk), 0) <= 0) return true;
  }
}

inline bool SendAll(int fd, const std::vector<uint8_t>& bytes) {
  return send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) == (ssize_t)bytes.size();
}

// A program run through the shell, with its standard output and error in
// files and its standard input on a pipe the test holds open.
class ChildProcess {
 public:
  ChildProcess(const std::string& command, const std::string& outPath,
               const std::string& errPath) {
    int pipeFds[2];
    if (pipe2(pipeFds, O_CLOEXEC) != 0) return;
    stdinWrite_ = pipeFds[1];
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, pipeFds[0], 0);
    posix_spawn_file_actions_addopen(&actions, 1, outPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                     0644);
    posix_spawn_file_actions_addopen(&actions, 2, errPath.c_str(), O_WRONLY | O_CREAT | O_TRUNC,
                                     0644);
    // Nothing of the test (listeners, connections) leaks into the child.
    posix_spawn_file_actions_addclosefrom_np(&actions, 3);
    std::string shellCommand = "exec " + command;
    const char* argv[] = {"/bin/sh", "-c", shellCommand.c_str(), nullptr};
    if (posix_spawn(&pid_, "/bin/sh", &actions, nullptr, (char* const*)argv, environ) != 0) {
      pid_ = -1;
    }
    posix_spawn_file_actions_destroy(&actions);
    close(pipeFds[0]);
  }
  ~ChildProcess() {
    Kill();
    if (stdinWrite_ >= 0) close(stdinWrite_);
  }
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  bool Started() const { return pid_ > 0; }
  // The exit status once the process ended within timeoutMs; -1 otherwise
  // (or when it was ended by a signal).
  int WaitExit(int timeoutMs) {
    auto start = std::chrono::steady_clock::now();
    while (pid_ > 0) {
      int status = 0;
      pid_t done = waitpid(pid_, &status, WNOHANG);
      if (done == pid_) {
        pid_ = -1;
        exitStatus_ = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
        return exitStatus_;
      }
      if ((int)MsSince(start) >= timeoutMs) return -1;
      std::this_thread::sleep_for(std::chrono::milliseconds(20));
    }
    return exitStatus_;
  }
  void Kill() {
    if (pid_ <= 0) return;
    kill(pid_, SIGKILL);
    waitpid(pid_, nullptr, 0);
    pid_ = -1;
  }

 private:
  pid_t pid_ = -1;
  int stdinWrite_ = -1;
  int exitStatus_ = -1;
};

// True when something accepts connections on the loopback port.
inline bool PortAccepts(uint16_t port) {
  int fd = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
  struct sockaddr_in address;
  memset(&address, 0, sizeof(address));
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(port);
  bool ok = connect(fd, (struct sockaddr*)&address, sizeof(address)) == 0;
  close(fd);
  return ok;
}

// Real H.264 (25 fps, a key picture every 25) and AAC (16 kHz mono) made once
// per test program, looped with ever-growing timestamps.
struct test_media_t {
  std::vector<h264_picture_t> pictures;
  std::vector<std::vector<uint8_t>> aac;
};

inline const test_media_t& SharedMedia() {
  static test_media_t media;
  static bool made = false;
  if (!made) {
    made = true;
    TempDir dir;
    media.pictures = MakeH264(dir, 320, 240, 50, 25);
    media.aac = MakeAac(dir, 16000, 2.0);
  }
  return media;
}

// Feeds the media into a stream in presentation order, one frame per Step.
class MediaPump {
 public:
  explicit MediaPump(vesk::encoder::internal::OutStream& stream)
      : stream_(stream), media_(SharedMedia()), ring_(1 << 20), video_(0), audio_(0) {
    aac_ = media_.aac;
  }

  bool Ready() const { return !media_.pictures.empty() && !aac_.empty(); }

  // One frame: the track whose next frame is earlier (audio time in ms
  // against video time in ms). Returns the stream's result.
  bool Step() {
    int64_t videoMs = (int64_t)video_ * 40;
    int64_t audioMs = (int64_t)audio_ * 64;
    if (audioMs < videoMs) {
      std::vector<uint8_t>& payload = aac_[audio_ % aac_.size()];
      audio_frame_t frame = MakeAudioFrame(payload, (int64_t)audio_ * 1024, 16000);
      audio_++;
      return stream_.FeedAudioFrame(&frame);
    }
    video_frame_t frame;
    ring_.Place(media_.pictures[video_ % media_.pictures.size()], (int64_t)video_ * 3600,
                frame);
    video_++;
    return stream_.FeedVideoFrame(&frame);
  }

  // Steps every stepMs until done() holds or timeoutMs passed.
  bool RunUntil(const std::function<bool()>& done, int timeoutMs, int stepMs = 5) {
    auto start = std::chrono::steady_clock::now();
    while (!done()) {
      if ((int)MsSince(start) >= timeoutMs) return false;
      Step();
      std::this_thread::sleep_for(std::chrono::milliseconds(stepMs));
    }
    return true;
  }

  uint32_t videoFrames() const { return video_; }
  uint32_t audioFrames() const { return audio_; }

 private:
  vesk::encoder::internal::OutStream& stream_;
  const test_media_t& media_;
  std::vector<std::vector<uint8_t>> aac_;
  TestRing ring_;
  uint32_t video_;
  uint32_t audio_;
};

// An FLV stream configuration with the given destinations.
inline vesk::variant::Variant FlvConfig(const std::vector<std::string>& destinations) {
  vesk::variant::Variant config;
  config["type"] = "flv";
  for (size_t i = 0; i < destinations.size(); i++) {
    config["destinations"][(uint32_t)i] = destinations[i];
  }
  return config;
}

}  // namespace test
}  // namespace vesk

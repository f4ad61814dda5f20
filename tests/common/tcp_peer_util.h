// Loopback TCP peers and child processes (ffmpeg, openssl) for the tests
// that talk to a transport over real sockets.
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

#include <algorithm>
#include <chrono>
#include <cstdint>
#include <string>
#include <thread>
#include <vector>

extern char** environ;

namespace vesk::test {

inline uint64_t MsSince(std::chrono::steady_clock::time_point start) {
  return (uint64_t)std::chrono::duration_cast<std::chrono::milliseconds>(
             std::chrono::steady_clock::now() - start)
      .count();
}

// Polls done every stepMs for up to timeoutMs.
template <typename Done>
bool WaitUntil(Done done, int timeoutMs, int stepMs = 10) {
  auto start = std::chrono::steady_clock::now();
  while (!done()) {
    if ((int)MsSince(start) >= timeoutMs) return false;
    std::this_thread::sleep_for(std::chrono::milliseconds(stepMs));
  }
  return true;
}

inline sockaddr_in Loopback(uint16_t port) {
  sockaddr_in address = {};
  address.sin_family = AF_INET;
  address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
  address.sin_port = htons(port);
  return address;
}

// A listening loopback socket; port 0: a port of the system's choice.
class Listener {
 public:
  explicit Listener(int backlog = 8, uint16_t port = 0) {
    fd_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    int one = 1;
    setsockopt(fd_, SOL_SOCKET, SO_REUSEADDR, &one, sizeof(one));
    sockaddr_in address = Loopback(port);
    bind(fd_, (sockaddr*)&address, sizeof(address));
    listen(fd_, backlog);
    socklen_t length = sizeof(address);
    getsockname(fd_, (sockaddr*)&address, &length);
    port_ = ntohs(address.sin_port);
  }
  ~Listener() { close(fd_); }
  Listener(const Listener&) = delete;
  Listener& operator=(const Listener&) = delete;

  uint16_t port() const { return port_; }
  std::string Uri(const std::string& query = "") const {
    return "tcp://127.0.0.1:" + std::to_string(port_) + (query.empty() ? "" : "?" + query);
  }
  // The next connection, or -1 after timeoutMs.
  int Accept(int timeoutMs) {
    pollfd p = {fd_, POLLIN, 0};
    if (poll(&p, 1, timeoutMs) <= 0) return -1;
    return accept4(fd_, nullptr, nullptr, SOCK_CLOEXEC);
  }

 private:
  int fd_;
  uint16_t port_;
};

// A loopback port that was free a moment ago.
inline uint16_t FreePort() {
  Listener listener(0);
  return listener.port();
}

// Reads from fd until count bytes arrived, the peer closed or timeoutMs passed.
inline std::vector<uint8_t> ReadBytes(int fd, size_t count, int timeoutMs) {
  std::vector<uint8_t> bytes;
  auto start = std::chrono::steady_clock::now();
  uint8_t chunk[65536];
  while (bytes.size() < count) {
    pollfd p = {fd, POLLIN, 0};
    int left = timeoutMs - (int)MsSince(start);
    if (left <= 0 || poll(&p, 1, left) <= 0) break;
    ssize_t n = recv(fd, chunk, std::min(sizeof(chunk), count - bytes.size()), 0);
    if (n <= 0) break;
    bytes.insert(bytes.end(), chunk, chunk + n);
  }
  return bytes;
}

// True when the peer of fd closed the connection within timeoutMs; whatever
// else arrives is dropped.
inline bool WaitForClose(int fd, int timeoutMs) {
  auto start = std::chrono::steady_clock::now();
  uint8_t chunk[65536];
  for (;;) {
    pollfd p = {fd, POLLIN, 0};
    int left = timeoutMs - (int)MsSince(start);
    if (left <= 0 || poll(&p, 1, left) <= 0) return false;
    if (recv(fd, chunk, sizeof(chunk), 0) <= 0) return true;
  }
}

inline bool SendAll(int fd, const std::vector<uint8_t>& bytes) {
  return send(fd, bytes.data(), bytes.size(), MSG_NOSIGNAL) == (ssize_t)bytes.size();
}

// A shell command run in the background with its output and errors in files
// and its standard input on a pipe held open (openssl s_server reads it).
class ChildProcess {
 public:
  ChildProcess(const std::string& command, const std::string& outPath,
               const std::string& errPath) {
    int fds[2];
    if (pipe2(fds, O_CLOEXEC) != 0) return;
    stdin_ = fds[1];
    posix_spawn_file_actions_t actions;
    posix_spawn_file_actions_init(&actions);
    posix_spawn_file_actions_adddup2(&actions, fds[0], 0);
    posix_spawn_file_actions_addclosefrom_np(&actions, 3);  // no test socket leaks into it
    std::string line = "exec " + command + " >'" + outPath + "' 2>'" + errPath + "'";
    const char* argv[] = {"/bin/sh", "-c", line.c_str(), nullptr};
    if (posix_spawn(&pid_, "/bin/sh", &actions, nullptr, (char* const*)argv, environ) != 0) pid_ = -1;
    posix_spawn_file_actions_destroy(&actions);
    close(fds[0]);
  }
  ~ChildProcess() {
    if (pid_ > 0) kill(pid_, SIGKILL);
    WaitExit(5000);
    if (stdin_ >= 0) close(stdin_);
  }
  ChildProcess(const ChildProcess&) = delete;
  ChildProcess& operator=(const ChildProcess&) = delete;

  bool Started() const { return pid_ > 0; }
  // The exit status once the process ended within timeoutMs; -1 otherwise.
  int WaitExit(int timeoutMs) {
    int status = 0;
    bool ended = pid_ <= 0 || WaitUntil([&] { return waitpid(pid_, &status, WNOHANG) == pid_; },
                                        timeoutMs, 20);
    if (ended && pid_ > 0) {
      pid_ = -1;
      exit_ = WIFEXITED(status) ? WEXITSTATUS(status) : -1;
    }
    return ended ? exit_ : -1;
  }

 private:
  pid_t pid_ = -1;
  int stdin_ = -1;
  int exit_ = -1;
};

}  // namespace vesk::test

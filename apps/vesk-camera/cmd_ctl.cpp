// vesk-camera ctl: sends one request to a running host's control socket and
// prints the answer line.
#include <poll.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>

#include "commands.h"
#include "vesk/host/log.h"
#include "vesk/variant/variant.h"

namespace vesk {
namespace camera {

namespace {

using vesk::variant::Variant;

constexpr uint64_t kConnectRetryMs = 5000;  // while the socket is not there yet
constexpr int kConnectPauseMs = 50;
constexpr uint64_t kAnswerWaitMs = 30000;   // the host may still be configuring
constexpr size_t kMaxAnswerBytes = 64 * 1024 * 1024;

void PrintUsage(FILE* out) {
  fprintf(out,
          "Usage: vesk-camera ctl PATH 'JSON'\n"
          "       vesk-camera ctl PATH -        (the request read from stdin; it may\n"
          "                                     span lines, as a JSON file does)\n"
          "\n"
          "Sends one request line to the control socket PATH of 'vesk-camera run\n"
          "--control PATH' and prints the answer line. While the socket is not there\n"
          "yet (the host is starting) the connection is retried for up to 5 seconds.\n"
          "See 'vesk-camera run --help' for the requests, for example:\n"
          "  vesk-camera ctl /tmp/cam.sock '{\"ChangeVideoSettings\": {\"video\": {\"video1\": {\"fps\": 15}}}}'\n"
          "  vesk-camera ctl /tmp/cam.sock '{\"OSDStats\": 2}'\n"
          "\n"
          "Exit status: 0 the answer says \"ok\": true; 1 it does not, or no answer\n"
          "came; 2 bad usage.\n");
}

int UsageError(const std::string& text) {
  fprintf(stderr, "vesk-camera ctl: %s (see vesk-camera ctl --help)\n", text.c_str());
  return kExitUsage;
}

bool ReadStdin(std::string& text) {
  char chunk[65536];
  size_t count;
  while ((count = fread(chunk, 1, sizeof(chunk), stdin)) > 0) text.append(chunk, count);
  return ferror(stdin) == 0;
}

// Connects, retrying while nobody listens at path yet; the socket or -1.
int Connect(const std::string& path, std::string& error) {
  sockaddr_un address;
  memset(&address, 0, sizeof(address));
  address.sun_family = AF_UNIX;
  memcpy(address.sun_path, path.c_str(), path.size());
  uint64_t giveUp = nowMs() + kConnectRetryMs;
  while (true) {
    int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
      error = std::string("socket: ") + strerror(errno);
      return -1;
    }
    if (connect(fd, (const sockaddr*)&address, sizeof(address)) == 0) return fd;
    int err = errno;
    close(fd);
    bool notYet = err == ENOENT || err == ECONNREFUSED;
    if (!notYet || nowMs() >= giveUp) {
      error = path + ": " + strerror(err);
      return -1;
    }
    usleep(kConnectPauseMs * 1000);
  }
}

bool SendAll(int fd, const std::string& bytes, std::string& error) {
  size_t done = 0;
  while (done < bytes.size()) {
    ssize_t sent = send(fd, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
    if (sent < 0) {
      if (errno == EINTR) continue;
      error = std::string("sending the request: ") + strerror(errno);
      return false;
    }
    done += (size_t)sent;
  }
  return true;
}

// Reads up to the first newline (not included).
bool ReadAnswer(int fd, std::string& answer, std::string& error) {
  uint64_t giveUp = nowMs() + kAnswerWaitMs;
  char chunk[65536];
  while (true) {
    uint64_t now = nowMs();
    if (now >= giveUp) {
      error = "no answer within " + std::to_string(kAnswerWaitMs / 1000) + " s";
      return false;
    }
    pollfd wait = {fd, POLLIN, 0};
    if (poll(&wait, 1, (int)(giveUp - now)) < 0 && errno != EINTR) {
      error = std::string("poll: ") + strerror(errno);
      return false;
    }
    if (wait.revents == 0) continue;
    ssize_t count = recv(fd, chunk, sizeof(chunk), 0);
    if (count < 0 && errno == EINTR) continue;
    if (count <= 0) {
      error = count == 0 ? "the host closed the connection without an answer"
                         : std::string("reading the answer: ") + strerror(errno);
      return false;
    }
    const char* newline = (const char*)memchr(chunk, '\n', (size_t)count);
    answer.append(chunk, newline != nullptr ? (size_t)(newline - chunk) : (size_t)count);
    if (newline != nullptr) return true;
    if (answer.size() > kMaxAnswerBytes) {
      error = "the answer is longer than " + std::to_string(kMaxAnswerBytes) + " bytes";
      return false;
    }
  }
}

}  // namespace

int CmdCtl(int argc, char** argv) {
  for (int i = 1; i < argc; i++) {
    if (strcmp(argv[i], "--help") == 0 || strcmp(argv[i], "-h") == 0) {
      PrintUsage(stdout);
      return kExitOk;
    }
  }
  if (argc != 3) return UsageError("needs a socket path and one request");
  std::string path = argv[1];
  if (path.empty() || path.size() >= sizeof(sockaddr_un::sun_path))
    return UsageError("the socket path needs 1 to " + std::to_string(sizeof(sockaddr_un::sun_path) - 1) + " bytes");
  std::string request;
  if (strcmp(argv[2], "-") == 0) {
    if (!ReadStdin(request)) return UsageError("cannot read the request from stdin");
    while (!request.empty() && (request.back() == '\n' || request.back() == '\r')) request.pop_back();
  } else {
    request = argv[2];
  }
  // A JSON text keeps no line break inside its strings, so a pretty-printed
  // request becomes one line by turning its line breaks into blanks.
  for (char& c : request)
    if (c == '\n' || c == '\r') c = ' ';
  if (request.find_first_not_of(" \t") == std::string::npos) return UsageError("the request is empty");

  std::string error;
  int fd = Connect(path, error);
  if (fd < 0) {
    fprintf(stderr, "vesk-camera ctl: %s\n", error.c_str());
    return kExitFailure;
  }
  std::string answer;
  bool answered = SendAll(fd, request + "\n", error) && ReadAnswer(fd, answer, error);
  close(fd);
  if (!answered) {
    fprintf(stderr, "vesk-camera ctl: %s\n", error.c_str());
    return kExitFailure;
  }
  printf("%s\n", answer.c_str());
  Variant parsed;
  std::string reason;
  bool ok = Variant::FromJson(answer, parsed, reason) && parsed.IsMap() && parsed["ok"].IsBool() && (bool)parsed["ok"];
  return ok ? kExitOk : kExitFailure;
}

}  // namespace camera
}  // namespace vesk

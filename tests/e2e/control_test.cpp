// vesk-camera run --control: one host on the virtual camera, reached through
// a stale socket file, fed garbage, overlong lines, half lines and too many
// clients, and asked for runtime changes.
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <cstring>
#include <memory>
#include <thread>

#include "e2e_util.h"

namespace vesk {
namespace e2e {
namespace {

bool Exists(const std::string& path) {
  struct stat info;
  return lstat(path.c_str(), &info) == 0;
}

sockaddr_un UnixAddress(const std::string& path) {
  sockaddr_un address = {};
  address.sun_family = AF_UNIX;
  strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
  return address;
}

// A raw client of the control socket.
class RawClient {
 public:
  explicit RawClient(const std::string& path) {
    sockaddr_un address = UnixAddress(path);
    fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (connect(fd_, (const sockaddr*)&address, sizeof(address)) != 0) close(fd_), fd_ = -1;
  }
  ~RawClient() {
    if (fd_ >= 0) close(fd_);
  }
  bool Connected() const { return fd_ >= 0; }
  bool Send(const std::string& bytes) {
    return send(fd_, bytes.data(), bytes.size(), MSG_NOSIGNAL) == (ssize_t)bytes.size();
  }
  // The next answer line, parsed; a discarded value when the host closed the
  // connection or 10 s passed. closed: the host closed it with nothing more.
  json ReadLine(bool* closed = nullptr) {
    char chunk[65536];
    while (buffer_.find('\n') == std::string::npos) {
      pollfd wait = {fd_, POLLIN, 0};
      ssize_t count = poll(&wait, 1, 10000) > 0 ? recv(fd_, chunk, sizeof(chunk), 0) : -1;
      if (closed != nullptr) *closed = count == 0;
      if (count <= 0) return json::value_t::discarded;
      buffer_.append(chunk, (size_t)count);
    }
    std::string line = buffer_.substr(0, buffer_.find('\n'));
    buffer_.erase(0, line.size() + 1);
    return json::parse(line, nullptr, false);
  }

 private:
  int fd_ = -1;
  std::string buffer_;
};

// vesk-camera ctl PATH REQUEST ("-": the request from stdinFile).
run_result_t Ctl(const std::string& socketPath, const std::string& request, const std::string& stdinFile = "") {
  if (stdinFile.empty()) return RunCamera({"ctl", socketPath, request}, 40000);
  std::string output;
  int code = Shell("'" + CameraPath() + "' ctl '" + socketPath + "' - < '" + stdinFile + "'", output);
  return {code, output, output};
}

json Answer(const run_result_t& result) { return json::parse(result.out.substr(0, result.out.find('\n')), nullptr, false); }

bool AnswerLogs(const run_result_t& result, const std::string& line) {
  json log = Answer(result)["log"];
  return log.is_array() && std::find(log.begin(), log.end(), line) != log.end();
}

TEST(E2eControl, OneHostSurvivesBadClientsAndAppliesAFrameRateChange) {
  ScratchDir dir;
  std::string socketPath = dir / "control.sock";
  {
    // A socket file whose process is gone.
    int stale = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address = UnixAddress(socketPath);
    ASSERT_EQ(bind(stale, (const sockaddr*)&address, sizeof(address)), 0);
    close(stale);
  }
  // ctl waits for the host that replaces the stale socket.
  Child ctl({CameraPath(), "ctl", socketPath, R"({"Settings": true})"}, dir / "ctl.out", dir / "ctl.err");
  std::this_thread::sleep_for(std::chrono::milliseconds(700));
  json settings = {{"video",
                    {{"vinFps", 30},
                     {"video1", H264Stream(0, 640, 360, 30,
                                           Serializer("flv", {"file://" + (dir / "rec.flv") + "?continuous"},
                                                      {{"streamName", "rec"}}))}}}};
  std::string settingsPath = WriteSettings(dir, settings);
  Child host({CameraPath(), "run", settingsPath, "--control", socketPath, "--stats"}, dir / "host.out",
             dir / "host.err");
  ASSERT_EQ(ctl.Wait(20000), 0) << ReadFile(dir / "ctl.err") << ReadFile(dir / "host.err");
  EXPECT_EQ(json::parse(ReadFile(dir / "ctl.out"), nullptr, false)["settings"]["video"]["video1"]["fps"], 30);

  // Malformed, unknown and ill-formed requests are answered with an error
  // (two requests in one argument are one malformed line).
  const std::vector<std::pair<std::string, std::string>> wrong = {
      {"this is not JSON", "malformed JSON"}, {R"({"Reboot": true})", "unknown request \"Reboot\""},
      {"[1, 2]", ""}, {R"({"ForceIDR": true, "Settings": true})", ""}, {R"({"OSDStats": "two"})", ""},
      {R"({"ChangeVideoSettings": 15})", ""}, {R"({"Settings": false})", ""},
      {"{\"ForceIDR\": true}\n{\"ForceIDR\": true}", ""}};
  run_result_t result;
  for (const auto& request : wrong) {
    result = Ctl(socketPath, request.first);
    EXPECT_EQ(result.exitCode, 1) << request.first;
    EXPECT_EQ(Answer(result)["ok"], false) << request.first << ": " << result.out;
    EXPECT_EQ(Answer(result).value("error", "").rfind(request.second, 0), 0u) << result.out;
  }
  {
    // A client that leaves in the middle of a line (a whole request, but its
    // newline never comes): nothing of it is applied.
    RawClient leaver(socketPath);
    ASSERT_TRUE(leaver.Connected());
    EXPECT_TRUE(leaver.Send(R"({"ChangeVideoSettings": {"video": {"video1": {"fps": 10}}}})"));
  }
  {
    // One connection: garbage, then a request, with CRLF line ends; then an
    // overlong line and a request behind it; the connection stays up.
    RawClient client(socketPath);
    ASSERT_TRUE(client.Connected());
    ASSERT_TRUE(client.Send("garbage\r\n{\"Settings\": true}\r\n\n"));
    EXPECT_EQ(client.ReadLine()["ok"], false);
    EXPECT_EQ(client.ReadLine()["settings"]["video"]["video1"]["fps"], 30) << "the half line was applied";
    ASSERT_TRUE(client.Send(std::string(1536 * 1024, ' ') + "\n{\"ForceIDR\": true}\n"));
    EXPECT_EQ(client.ReadLine()["error"], "request line longer than 1048576 bytes; discarded");
    EXPECT_EQ(client.ReadLine()["ok"], true);
  }
  {
    // Eight clients at once are served; a ninth is told so and disconnected.
    std::vector<std::unique_ptr<RawClient>> clients;
    for (int i = 0; i < 8; i++) {
      clients.emplace_back(new RawClient(socketPath));
      ASSERT_TRUE(clients.back()->Send("{\"OSDStats\": 1}\n"));
      EXPECT_EQ(clients.back()->ReadLine()["ok"], true) << "client " << i;
    }
    RawClient ninth(socketPath);
    EXPECT_EQ(ninth.ReadLine()["error"], "too many control clients (at most 8)");
    bool closed = false;
    ninth.ReadLine(&closed);
    EXPECT_TRUE(closed);
  }

  {
    // A client flooding blank lines and one that keeps sending requests (never
    // reading the answers) hold up a third client's request for a few passes
    // only; served always in the same order it would wait as long as the
    // flood lasts (about 8 s here).
    int busy = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);  // connected first: served first
    sockaddr_un address = UnixAddress(socketPath);
    ASSERT_EQ(connect(busy, (const sockaddr*)&address, sizeof(address)), 0);
    RawClient blank(socketPath), other(socketPath);
    timeval timeout = {0, 200000};
    setsockopt(busy, SOL_SOCKET, SO_SNDTIMEO, &timeout, sizeof(timeout));
    std::atomic<bool> stop{false};
    std::thread flood([&] {
      std::string requests;
      for (int i = 0; i < 1024; i++) requests += "{\"OSDStats\": 1}\n";
      auto began = std::chrono::steady_clock::now();
      while (!stop && test::MsSince(began) < 8000)
        if (send(busy, requests.data(), requests.size(), MSG_NOSIGNAL) < 0 && errno != EAGAIN) break;
    });
    ASSERT_TRUE(blank.Send(std::string(96 * 1024, '\n')));
    std::this_thread::sleep_for(std::chrono::milliseconds(300));  // the flood is under way
    auto sent = std::chrono::steady_clock::now();
    ASSERT_TRUE(other.Send("{\"ForceIDR\": true}\n"));
    EXPECT_EQ(other.ReadLine()["ok"], true);
    EXPECT_LT(test::MsSince(sent), 3000u);
    stop = true;
    flood.join();
    close(busy);
  }

  // A second host may take over neither a live socket nor a plain file.
  run_result_t second = RunCamera({"run", settingsPath, "--control", socketPath});
  EXPECT_EQ(second.exitCode, 2);
  EXPECT_NE(second.err.find("another process listens on this socket"), std::string::npos) << second.err;
  WriteFile(dir / "plain", "keep me");
  second = RunCamera({"run", settingsPath, "--control", dir / "plain"});
  EXPECT_EQ(second.exitCode, 2);
  EXPECT_NE(second.err.find("exists and is not a socket"), std::string::npos) << second.err;
  EXPECT_EQ(ReadFile(dir / "plain"), "keep me");

  // The runtime change, answered with its log line and kept in the settings.
  result = Ctl(socketPath, R"({"ChangeVideoSettings": {"video": {"video1": {"fps": 15}}}})");
  EXPECT_EQ(result.exitCode, 0) << result.out << result.err;
  EXPECT_TRUE(AnswerLogs(result, "Changed fps on channel video1: 30 -> 15")) << result.out;
  EXPECT_EQ(Answer(Ctl(socketPath, R"({"Settings": true})"))["settings"]["video"]["video1"]["fps"], 15);
  // A request spread over lines, as a JSON file is, is sent as one.
  WriteFile(dir / "request.json", "{\n  \"ChangeVideoSettings\": {\n    \"video\": {\"video1\": {\"nMultiplier\": 2}}\n  }\n}\n");
  result = Ctl(socketPath, "-", dir / "request.json");
  EXPECT_EQ(result.exitCode, 0) << result.out;
  EXPECT_TRUE(AnswerLogs(result, "Changed nMultiplier on channel video1: 1 -> 2")) << result.out;
  EXPECT_EQ(Ctl(socketPath, R"({"ForceIDR": true})").out, "{\"ok\":true}\n");

  std::this_thread::sleep_for(std::chrono::milliseconds(1000));
  EXPECT_TRUE(host.Running());
  host.Signal(SIGTERM);
  ASSERT_EQ(host.Wait(20000), 0) << ReadFile(dir / "host.err");
  EXPECT_FALSE(Exists(socketPath)) << "the socket file outlived the host";
  std::string err = ReadFile(dir / "host.err");
  std::string out = ReadFile(dir / "host.out");
  const std::string applied = "Changed fps on channel video1: 30 -> 15";
  EXPECT_TRUE(err.find(applied) != std::string::npos && err.find(applied) == err.rfind(applied)) << err;
  EXPECT_NE(out.find("vesk-camera: stats video1: CS: ["), std::string::npos) << out;
  EXPECT_NE(out.find("vesk-camera: stats video2: (not enabled)"), std::string::npos) << out;

  // The change itself reaching the pictures: the runtime tests.
  EXPECT_EQ(Probe(dir / "rec.flv").errors, "");

  // Usage errors.
  for (const std::vector<std::string>& args : std::vector<std::vector<std::string>>{
           {"ctl", socketPath}, {"ctl", socketPath, " \n "}, {"run", settingsPath, "--control"}})
    EXPECT_EQ(RunCamera(args, 5000).exitCode, 2) << args.back();
}

}  // namespace
}  // namespace e2e
}  // namespace vesk

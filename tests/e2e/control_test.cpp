// vesk-camera run --control: runtime requests through the control socket,
// sent with vesk-camera ctl and with raw Unix-socket clients, against the
// running host on the virtual camera.
#include <gtest/gtest.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <sys/un.h>
#include <arpa/inet.h>
#include <netinet/in.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <mutex>
#include <chrono>
#include <cstdlib>
#include <cstring>
#include <memory>
#include <sstream>
#include <thread>

#include "e2e_util.h"

namespace vesk {
namespace e2e {
namespace {

void SleepMs(int ms) { std::this_thread::sleep_for(std::chrono::milliseconds(ms)); }

bool Exists(const std::string& path) {
  struct stat info;
  return lstat(path.c_str(), &info) == 0;
}

sockaddr_un Address(const std::string& path) {
  sockaddr_un address;
  memset(&address, 0, sizeof(address));
  address.sun_family = AF_UNIX;
  strncpy(address.sun_path, path.c_str(), sizeof(address.sun_path) - 1);
  return address;
}

// A raw client of the control socket.
class RawClient {
 public:
  explicit RawClient(const std::string& path) {
    fd_ = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    sockaddr_un address = Address(path);
    if (connect(fd_, (const sockaddr*)&address, sizeof(address)) != 0) {
      close(fd_);
      fd_ = -1;
    }
  }
  ~RawClient() { Close(); }
  bool Connected() const { return fd_ >= 0; }
  void Close() {
    if (fd_ >= 0) close(fd_);
    fd_ = -1;
  }
  bool Send(const std::string& bytes) {
    size_t done = 0;
    while (done < bytes.size()) {
      ssize_t sent = send(fd_, bytes.data() + done, bytes.size() - done, MSG_NOSIGNAL);
      if (sent <= 0) return false;
      done += (size_t)sent;
    }
    return true;
  }
  // The next answer line; "" when the host closed the connection or 10 s passed.
  std::string ReadLine() {
    for (int waited = 0; waited < 10000;) {
      size_t newline = buffer_.find('\n');
      if (newline != std::string::npos) {
        std::string line = buffer_.substr(0, newline);
        buffer_.erase(0, newline + 1);
        return line;
      }
      pollfd wait = {fd_, POLLIN, 0};
      if (poll(&wait, 1, 100) == 0) {
        waited += 100;
        continue;
      }
      char chunk[65536];
      ssize_t count = recv(fd_, chunk, sizeof(chunk), 0);
      if (count <= 0) return std::string();
      buffer_.append(chunk, (size_t)count);
    }
    return std::string();
  }
  // True when the host closed the connection (and sent nothing more).
  bool ClosedByHost() {
    pollfd wait = {fd_, POLLIN, 0};
    if (poll(&wait, 1, 10000) <= 0) return false;
    char byte;
    return recv(fd_, &byte, 1, 0) == 0;
  }

 private:
  int fd_ = -1;
  std::string buffer_;
};

// A TCP peer on the loopback that takes any number of connections and keeps
// what each one sent.
class TcpPeer {
 public:
  // Closed descriptors stay in fds_ as -1, so that indexes match connections_.
  struct connection_t {
    std::string head;  // the first bytes
    size_t bytes = 0;
    bool closed = false;
  };

  TcpPeer() {
    listener_ = socket(AF_INET, SOCK_STREAM | SOCK_CLOEXEC, 0);
    int on = 1;
    setsockopt(listener_, SOL_SOCKET, SO_REUSEADDR, &on, sizeof(on));
    sockaddr_in address;
    memset(&address, 0, sizeof(address));
    address.sin_family = AF_INET;
    address.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t length = sizeof(address);
    if (bind(listener_, (const sockaddr*)&address, sizeof(address)) == 0 && listen(listener_, 4) == 0 &&
        getsockname(listener_, (sockaddr*)&address, &length) == 0)
      port_ = ntohs(address.sin_port);
    thread_ = std::thread([this] { Run(); });
  }
  ~TcpPeer() {
    stop_ = true;
    thread_.join();
    for (int fd : fds_) close(fd);
    close(listener_);
  }
  std::string Uri() const { return "tcp://127.0.0.1:" + std::to_string(port_) + "?retryInterval=1"; }
  std::vector<connection_t> Connections() {
    std::lock_guard<std::mutex> lock(mutex_);
    return connections_;
  }
  // Waits up to 10 s until connection `index` is closed by the other side.
  bool WaitClosed(size_t index) {
    for (int waited = 0; waited < 10000; waited += 20) {
      std::vector<connection_t> now = Connections();
      if (index < now.size() && now[index].closed) return true;
      SleepMs(20);
    }
    return false;
  }
  // Waits up to 10 s until `count` connections have sent at least `bytes` each.
  bool WaitFor(size_t count, size_t bytes) {
    for (int waited = 0; waited < 10000; waited += 20) {
      std::vector<connection_t> now = Connections();
      size_t ready = 0;
      for (const connection_t& c : now) ready += c.bytes >= bytes ? 1 : 0;
      if (ready >= count) return true;
      SleepMs(20);
    }
    return false;
  }

 private:
  void Run() {
    while (!stop_) {
      std::vector<pollfd> polls = {{listener_, POLLIN, 0}};
      for (int fd : fds_) polls.push_back({fd, POLLIN, 0});
      if (poll(polls.data(), polls.size(), 20) <= 0) continue;
      if ((polls[0].revents & POLLIN) != 0) {
        int fd = accept4(listener_, nullptr, nullptr, SOCK_CLOEXEC);
        if (fd >= 0) {
          std::lock_guard<std::mutex> lock(mutex_);
          fds_.push_back(fd);
          connections_.emplace_back();
        }
      }
      for (size_t i = 1; i < polls.size(); i++) {
        if (polls[i].revents == 0 || polls[i].fd < 0) continue;
        char chunk[65536];
        ssize_t count = recv(polls[i].fd, chunk, sizeof(chunk), 0);
        std::lock_guard<std::mutex> lock(mutex_);
        connection_t& c = connections_[i - 1];
        if (count <= 0) {
          c.closed = true;
          close(fds_[i - 1]);
          fds_[i - 1] = -1;
          continue;
        }
        if (c.head.size() < 16) c.head.append(chunk, std::min<size_t>((size_t)count, 16 - c.head.size()));
        c.bytes += (size_t)count;
      }
    }
  }

  int listener_ = -1;
  uint16_t port_ = 0;
  std::atomic<bool> stop_{false};
  std::thread thread_;
  std::mutex mutex_;
  std::vector<int> fds_;
  std::vector<connection_t> connections_;
};

json ParseAnswer(const std::string& line) { return json::parse(line, nullptr, false); }

// One line of stdout, parsed; a discarded value when there is none.
json CtlAnswer(const run_result_t& result) {
  std::string line = result.out.substr(0, result.out.find('\n'));
  return ParseAnswer(line);
}

run_result_t Ctl(const std::string& socketPath, const std::string& request) {
  return RunCamera({"ctl", socketPath, request}, 40000);
}

// A host recording video1 (H.264, 30 fps) into dir/rec.flv, with its control socket.
class Host {
 public:
  Host(const ScratchDir& dir, const std::string& socketPath, const std::vector<std::string>& extra = {})
      : dir_(dir) {
    json settings = {{"video",
                      {{"vinFps", 30},
                       {"video1", H264Stream(0, 640, 360, 30,
                                             Serializer("flv", {"file://" + (dir / "rec.flv") + "?continuous"},
                                                        {{"streamName", "rec"}}))}}}};
    std::vector<std::string> argv = {CameraPath(), "run", WriteSettings(dir, settings), "--control", socketPath};
    argv.insert(argv.end(), extra.begin(), extra.end());
    child_.reset(new Child(argv, dir / "host.out", dir / "host.err"));
  }
  bool WaitConfigured() { return WaitForText(dir_ / "host.out", "configured in", 15000); }
  bool Running() { return child_->Running(); }
  // SIGTERM; the exit code.
  int Stop() {
    child_->Signal(SIGTERM);
    return child_->Wait(20000);
  }
  std::string Out() const { return ReadFile(dir_ / "host.out"); }
  std::string Err() const { return ReadFile(dir_ / "host.err"); }

 private:
  const ScratchDir& dir_;
  std::unique_ptr<Child> child_;
};

// The presentation times of the video packets of an FLV file, in seconds.
std::vector<double> VideoTimes(const std::string& path) {
  std::string output;
  Shell("ffprobe -v error -select_streams v -show_entries packet=pts_time -of csv=p=0 '" + path + "'", output);
  std::vector<double> times;
  std::istringstream lines(output);
  std::string line;
  while (std::getline(lines, line))
    if (!line.empty()) times.push_back(atof(line.c_str()));
  return times;
}

// The median gap between consecutive times within [from, to], in ms.
double MedianGapMs(const std::vector<double>& times, double from, double to) {
  std::vector<double> gaps;
  for (size_t i = 1; i < times.size(); i++)
    if (times[i - 1] >= from && times[i] <= to) gaps.push_back((times[i] - times[i - 1]) * 1000.0);
  if (gaps.empty()) return -1;
  std::sort(gaps.begin(), gaps.end());
  return gaps[gaps.size() / 2];
}

size_t Count(const std::string& text, const std::string& what) {
  size_t count = 0;
  for (size_t at = text.find(what); at != std::string::npos; at = text.find(what, at + 1)) count++;
  return count;
}

TEST(E2eControl, LowersTheFrameRateOfARunningRecording) {
  ScratchDir dir;
  std::string socketPath = dir / "control.sock";
  Host host(dir, socketPath, {"--stats"});
  ASSERT_TRUE(host.WaitConfigured()) << host.Err();
  SleepMs(1500);

  run_result_t change = Ctl(socketPath, R"({"ChangeVideoSettings": {"video": {"video1": {"fps": 15}}}})");
  EXPECT_EQ(change.exitCode, 0) << change.out << change.err;
  json answer = CtlAnswer(change);
  EXPECT_EQ(answer["ok"], true) << change.out;
  ASSERT_TRUE(answer["log"].is_array()) << change.out;
  EXPECT_NE(std::find(answer["log"].begin(), answer["log"].end(), "Changed fps on channel video1: 30 -> 15"),
            answer["log"].end())
      << change.out;

  // The settings in force hold the applied value.
  run_result_t current = Ctl(socketPath, R"({"Settings": true})");
  EXPECT_EQ(current.exitCode, 0) << current.err;
  answer = CtlAnswer(current);
  EXPECT_EQ(answer["ok"], true);
  EXPECT_EQ(answer["settings"]["video"]["video1"]["fps"], 15) << current.out;
  EXPECT_EQ(answer["settings"]["video"]["video1"]["width"], 640);

  // Three statistics lines: video1's, and empty ones for the disabled streams.
  run_result_t stats = Ctl(socketPath, R"({"OSDStats": 2})");
  EXPECT_EQ(stats.exitCode, 0) << stats.err;
  answer = CtlAnswer(stats);
  ASSERT_TRUE(answer["lines"].is_array()) << stats.out;
  ASSERT_EQ(answer["lines"].size(), 3u) << stats.out;
  EXPECT_EQ(answer["lines"][0].get<std::string>().rfind("CS: [", 0), 0u) << stats.out;
  EXPECT_NE(answer["lines"][0].get<std::string>().find("; T: "), std::string::npos) << stats.out;
  EXPECT_EQ(answer["lines"][1], "");
  EXPECT_EQ(answer["lines"][2], "");

  SleepMs(2500);
  ASSERT_EQ(host.Stop(), 0) << host.Err();
  EXPECT_FALSE(Exists(socketPath)) << "the socket file outlived the host";
  std::string err = host.Err();
  std::string out = host.Out();
  EXPECT_EQ(Count(err, "Changed fps on channel video1: 30 -> 15"), 1u) << err;
  EXPECT_NE(out.find("vesk-camera: stats video1: CS: ["), std::string::npos) << out;
  EXPECT_NE(out.find("vesk-camera: stats video2: (not enabled)"), std::string::npos) << out;

  // 30 pictures per second at the start; 15 after the change, to the end.
  std::vector<double> times = VideoTimes(dir / "rec.flv");
  ASSERT_GT(times.size(), 60u);
  EXPECT_NEAR(MedianGapMs(times, times.front(), times.front() + 1.0), 33.3, 2.0);
  EXPECT_NEAR(MedianGapMs(times, times.back() - 1.5, times.back()), 66.7, 2.0);
  size_t change_at = 0;
  for (size_t i = 1; i < times.size() && change_at == 0; i++)
    if (times[i] - times[i - 1] > 0.050) change_at = i;
  ASSERT_GT(change_at, 0u);
  for (size_t i = change_at + 1; i < times.size(); i++)
    EXPECT_GT(times[i] - times[i - 1], 0.050) << "a picture at the old rate after the change, at " << times[i];
  std::string errors;
  EXPECT_TRUE(DecodesCleanly(dir / "rec.flv", errors)) << errors;
}

TEST(E2eControl, SurvivesGarbageOverlongLinesAndClientsThatLeave) {
  ScratchDir dir;
  std::string socketPath = dir / "control.sock";
  Host host(dir, socketPath, {"--quiet"});
  ASSERT_TRUE(host.WaitConfigured()) << host.Err();

  run_result_t result = Ctl(socketPath, "this is not JSON");
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_EQ(CtlAnswer(result)["ok"], false) << result.out;
  EXPECT_EQ(CtlAnswer(result)["error"].get<std::string>().rfind("malformed JSON", 0), 0u) << result.out;

  result = Ctl(socketPath, R"({"Reboot": true})");
  EXPECT_EQ(result.exitCode, 1);
  EXPECT_EQ(CtlAnswer(result)["error"].get<std::string>().rfind("unknown request \"Reboot\"", 0), 0u) << result.out;
  for (const char* wrong : {"[1, 2]", R"({"ForceIDR": true, "Settings": true})", R"({"OSDStats": "two"})",
                            R"({"ChangeVideoSettings": 15})", R"({"Settings": false})"}) {
    result = Ctl(socketPath, wrong);
    EXPECT_EQ(result.exitCode, 1) << wrong;
    EXPECT_EQ(CtlAnswer(result)["ok"], false) << wrong << ": " << result.out;
  }

  // A 2 MiB line through ctl's stdin: refused, the host reads past it.
  std::string huge = R"({"ChangeVideoSettings": {"pad": ")" + std::string(2 << 20, 'a') + "\"}}";
  ASSERT_TRUE(WriteFile(dir / "huge.json", huge));
  std::string output;
  int code = Shell("'" + CameraPath() + "' ctl '" + socketPath + "' - < '" + (dir / "huge.json") + "'", output);
  EXPECT_EQ(code, 1) << output.substr(0, 300);
  EXPECT_NE(output.find("request line longer than 1048576 bytes"), std::string::npos) << output.substr(0, 300);

  {
    // A client that leaves in the middle of a line: nothing of it is applied.
    RawClient leaver(socketPath);
    ASSERT_TRUE(leaver.Connected());
    // (a whole request, but its newline never comes)
    EXPECT_TRUE(leaver.Send(R"({"ChangeVideoSettings": {"video": {"video1": {"fps": 10}}}})"));
  }
  {
    // One connection: garbage, then a request, with CRLF line ends; then an
    // overlong line and a request behind it; the connection stays up.
    RawClient client(socketPath);
    ASSERT_TRUE(client.Connected());
    ASSERT_TRUE(client.Send("garbage\r\n{\"Settings\": true}\r\n\n"));
    EXPECT_EQ(ParseAnswer(client.ReadLine())["ok"], false);
    json settings = ParseAnswer(client.ReadLine());
    EXPECT_EQ(settings["ok"], true);
    EXPECT_EQ(settings["settings"]["video"]["video1"]["fps"], 30) << "the half line changed the frame rate";
    ASSERT_TRUE(client.Send(std::string(1536 * 1024, ' ') + "\n{\"ForceIDR\": true}\n"));
    json refused = ParseAnswer(client.ReadLine());
    EXPECT_EQ(refused["ok"], false);
    EXPECT_NE(refused["error"].get<std::string>().find("longer than"), std::string::npos);
    EXPECT_EQ(ParseAnswer(client.ReadLine())["ok"], true);
  }

  // Eight clients at once are served; a ninth is told so and disconnected.
  std::vector<std::unique_ptr<RawClient>> clients;
  for (int i = 0; i < 8; i++) {
    clients.emplace_back(new RawClient(socketPath));
    ASSERT_TRUE(clients.back()->Connected());
    ASSERT_TRUE(clients.back()->Send("{\"OSDStats\": 1}\n"));
    EXPECT_EQ(ParseAnswer(clients.back()->ReadLine())["ok"], true) << "client " << i;
  }
  RawClient ninth(socketPath);
  ASSERT_TRUE(ninth.Connected());
  json tooMany = ParseAnswer(ninth.ReadLine());
  EXPECT_EQ(tooMany["ok"], false);
  EXPECT_EQ(tooMany["error"], "too many control clients (at most 8)");
  EXPECT_TRUE(ninth.ClosedByHost());
  clients.clear();

  result = Ctl(socketPath, R"({"ForceIDR": true})");
  EXPECT_EQ(result.exitCode, 0) << result.out << result.err;
  EXPECT_EQ(result.out, "{\"ok\":true}\n");
  EXPECT_TRUE(host.Running());
  EXPECT_EQ(host.Stop(), 0) << host.Err();
  EXPECT_EQ(host.Err().find("Changed fps"), std::string::npos);
}

bool LogHas(const json& answer, const std::string& line) {
  if (!answer.contains("log") || !answer["log"].is_array()) return false;
  return std::find(answer["log"].begin(), answer["log"].end(), line) != answer["log"].end();
}

TEST(E2eControl, RestartsOneStreamAndRefusesTheVolumeWhileMuted) {
  ScratchDir dir;
  TcpPeer peer1;
  TcpPeer peer2;
  std::string socketPath = dir / "control.sock";
  json settings = {{"audio", AudioBlock(16000, 1, 32000)},
                   {"video",
                    {{"vinFps", 30},
                     {"video1", H264Stream(0, 640, 360, 30, Serializer("flv", {peer1.Uri()}, {{"streamName", "one"}}))},
                     {"video2", H264Stream(1, 320, 180, 15, Serializer("flv", {peer2.Uri()}, {{"streamName", "two"}}))}}}};
  Child host({CameraPath(), "run", WriteSettings(dir, settings), "--control", socketPath, "--quiet"}, dir / "host.out",
             dir / "host.err");
  ASSERT_TRUE(peer1.WaitFor(1, 4096)) << ReadFile(dir / "host.err");
  ASSERT_TRUE(peer2.WaitFor(1, 4096)) << ReadFile(dir / "host.err");

  // Only video2 is rebuilt: its peer sees the old connection end and a new
  // one begin with an FLV header; video1's connection goes on.
  run_result_t restart = Ctl(socketPath, R"({"RestartStreams": {"video2": true}})");
  EXPECT_EQ(restart.exitCode, 0) << restart.out << restart.err;
  ASSERT_TRUE(peer2.WaitFor(2, 13)) << ReadFile(dir / "host.err");
  size_t before = peer1.Connections()[0].bytes;
  ASSERT_TRUE(peer1.WaitFor(1, before + 4096));
  std::vector<TcpPeer::connection_t> second = peer2.Connections();
  ASSERT_EQ(second.size(), 2u) << "video2 reconnected more than once";
  EXPECT_TRUE(peer2.WaitClosed(0));
  EXPECT_EQ(second[1].head.substr(0, 3), "FLV");
  std::vector<TcpPeer::connection_t> first = peer1.Connections();
  ASSERT_EQ(first.size(), 1u);
  EXPECT_FALSE(first[0].closed);

  // Muted, the volume stays at 0.
  run_result_t mute = Ctl(socketPath, R"({"ChangeVideoSettings": {"audio": {"volume": 0}}})");
  EXPECT_EQ(mute.exitCode, 0) << mute.out;
  run_result_t louder = Ctl(socketPath, R"({"ChangeVideoSettings": {"audio": {"volume": 50}}})");
  EXPECT_TRUE(LogHas(CtlAnswer(louder), "Camera is currently muted. Attempt to set the volume to 50 is not allowed"))
      << louder.out;
  json current = CtlAnswer(Ctl(socketPath, R"({"Settings": true})"));
  EXPECT_EQ(current["settings"]["audio"]["volume"], 0) << current.dump();

  // A slower video1 widens the drift allowance, and the answer says so.
  run_result_t slower = Ctl(socketPath, R"({"ChangeVideoSettings": {"video": {"video1": {"fps": 15}}}})");
  EXPECT_TRUE(LogHas(CtlAnswer(slower), "Changed fps on channel video1: 30 -> 15")) << slower.out;
  bool driftLogged = false;
  json slowerAnswer = CtlAnswer(slower);
  for (const auto& line : slowerAnswer["log"])
    driftLogged = driftLogged || line.get<std::string>().rfind("drift allowed on channel video1: ", 0) == 0;
  EXPECT_TRUE(driftLogged) << slower.out;

  host.Signal(SIGTERM);
  EXPECT_EQ(host.Wait(20000), 0) << ReadFile(dir / "host.err");
}

TEST(E2eControl, CtlWaitsForTheHostThatReplacesAStaleSocket) {
  ScratchDir dir;
  std::string socketPath = dir / "control.sock";
  // A socket file whose process is gone.
  {
    int stale = socket(AF_UNIX, SOCK_STREAM, 0);
    sockaddr_un address = Address(socketPath);
    ASSERT_EQ(bind(stale, (const sockaddr*)&address, sizeof(address)), 0);
    close(stale);
  }
  ASSERT_TRUE(Exists(socketPath));
  Child ctl({CameraPath(), "ctl", socketPath, R"({"Settings": true})"}, dir / "ctl.out", dir / "ctl.err");
  SleepMs(700);
  Host host(dir, socketPath, {"--quiet"});
  EXPECT_EQ(ctl.Wait(20000), 0) << ReadFile(dir / "ctl.err") << host.Err();
  json answer = ParseAnswer(ReadFile(dir / "ctl.out"));
  EXPECT_EQ(answer["ok"], true);
  EXPECT_EQ(answer["settings"]["video"]["video1"]["enabled"], true);

  // A second host is not allowed to take over a live socket, nor a plain file.
  json settings = {{"video", {{"video1", H264Stream(0, 320, 180, 30, Serializer("flv", {"file:///dev/null"}))}}}};
  std::string other = WriteSettings(dir, settings, "other.json");
  run_result_t second = RunCamera({"run", other, "--control", socketPath}, 20000);
  EXPECT_EQ(second.exitCode, 2);
  EXPECT_NE(second.err.find("another process listens on this socket"), std::string::npos) << second.err;
  ASSERT_TRUE(WriteFile(dir / "plain", "keep me"));
  second = RunCamera({"run", other, "--control", dir / "plain"}, 20000);
  EXPECT_EQ(second.exitCode, 2);
  EXPECT_NE(second.err.find("exists and is not a socket"), std::string::npos) << second.err;
  EXPECT_EQ(ReadFile(dir / "plain"), "keep me");

  // A request spread over lines, as a JSON file is, is sent as one; two
  // requests in one argument are one malformed line, not two requests.
  ASSERT_TRUE(WriteFile(dir / "request.json", "{\n  \"ChangeVideoSettings\": {\n    \"video\": {\"video1\": "
                                               "{\"nMultiplier\": 2}}\n  }\n}\n"));
  std::string output;
  EXPECT_EQ(Shell("'" + CameraPath() + "' ctl '" + socketPath + "' - < '" + (dir / "request.json") + "'", output), 0)
      << output;
  EXPECT_NE(output.find("Changed nMultiplier on channel video1: 1 -> 2"), std::string::npos) << output;
  run_result_t two = Ctl(socketPath, "{\"ForceIDR\": true}\n{\"ForceIDR\": true}");
  EXPECT_EQ(two.exitCode, 1);
  EXPECT_EQ(two.out.find("\"ok\":true"), std::string::npos) << two.out;
  EXPECT_EQ(Ctl(socketPath, R"({"ForceIDR": true})").exitCode, 0);
  EXPECT_EQ(host.Stop(), 0) << host.Err();
  EXPECT_FALSE(Exists(socketPath));

  // Usage errors.
  EXPECT_EQ(RunCamera({"ctl", socketPath}, 5000).exitCode, 2);
  EXPECT_EQ(RunCamera({"ctl", socketPath, " \n "}, 5000).exitCode, 2);
  EXPECT_EQ(RunCamera({"run", other, "--control"}, 5000).exitCode, 2);
}

}  // namespace
}  // namespace e2e
}  // namespace vesk

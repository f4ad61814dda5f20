// vesk-camera receive: a small peer for vesk streams over UDP. It puts the
// packets back together and writes what it received: the video channel's
// H.264 elementary stream (or its latest JPEG picture) and the audio
// channel's ADTS frames.
#include <arpa/inet.h>
#include <netinet/in.h>
#include <poll.h>
#include <signal.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "commands.h"
#include "jsonfile.h"
#include "vesk/host/log.h"
#include "vesk/variant/uri.h"
#include "vesk_reassembler.h"

namespace vesk {
namespace camera {

namespace {

volatile sig_atomic_t gStop = 0;
void OnStopSignal(int) { gStop = 1; }

void PrintUsage(FILE* out) {
  fprintf(out,
          "Usage: vesk-camera receive udp://IP:PORT OUTDIR [--seconds N]\n"
          "\n"
          "Listens for a vesk stream on IP:PORT (UDP), puts its packets back together\n"
          "into frames and writes into OUTDIR (created if missing):\n"
          "  video.h264   the H.264 pictures of the video channel, one after the other\n"
          "  picture.jpg  the latest JPEG picture, when the video channel carries JPEG\n"
          "  audio.aac    the audio channel's AAC frames with their ADTS headers\n"
          "It stops on SIGINT or SIGTERM, or after N seconds, and prints per channel\n"
          "the frames received, the packets lost (sequence gaps) and the frames left\n"
          "incomplete. A channel is audio when its packets say so (flag 0x1000).\n"
          "\n"
          "Exit status: 0 stopped normally; 1 the socket or a file failed; 2 bad usage.\n");
}

int UsageError(const std::string& text) {
  fprintf(stderr, "vesk-camera receive: %s (see vesk-camera receive --help)\n", text.c_str());
  return kExitUsage;
}

class FrameWriter {
 public:
  explicit FrameWriter(const std::string& directory) : directory_(directory) {}
  ~FrameWriter() {
    if (video_ != nullptr) fclose(video_);
    if (audio_ != nullptr) fclose(audio_);
  }

  bool Write(const vesk_frame_t& frame) {
    const std::vector<uint8_t>& bytes = *frame.bytes;
    if (frame.audio) return Append(audio_, "audio.aac", bytes);
    if (bytes.size() >= 2 && bytes[0] == 0xFF && bytes[1] == 0xD8) return ReplacePicture(bytes);
    return Append(video_, "video.h264", bytes);
  }

 private:
  bool Append(FILE*& file, const char* name, const std::vector<uint8_t>& bytes) {
    if (file == nullptr) {
      std::string path = directory_ + "/" + name;
      file = fopen(path.c_str(), "wb");
      if (file == nullptr) {
        fprintf(stderr, "vesk-camera receive: cannot create %s: %s\n", path.c_str(), strerror(errno));
        return false;
      }
    }
    return fwrite(bytes.data(), 1, bytes.size(), file) == bytes.size();
  }

  // Written beside the target, then moved over it: readers see whole pictures.
  bool ReplacePicture(const std::vector<uint8_t>& bytes) {
    std::string path = directory_ + "/picture.jpg";
    std::string tmp = path + ".tmp";
    FILE* file = fopen(tmp.c_str(), "wb");
    if (file == nullptr) return false;
    bool ok = fwrite(bytes.data(), 1, bytes.size(), file) == bytes.size();
    ok = fclose(file) == 0 && ok;
    return ok && rename(tmp.c_str(), path.c_str()) == 0;
  }

  std::string directory_;
  FILE* video_ = nullptr;
  FILE* audio_ = nullptr;
};

int OpenSocket(const std::string& ip, uint16_t port) {
  int fd = socket(AF_INET, SOCK_DGRAM, 0);
  if (fd < 0) return -1;
  int size = 8 << 20;  // a few seconds of video: the sender never waits for us
  setsockopt(fd, SOL_SOCKET, SO_RCVBUF, &size, sizeof(size));
  sockaddr_in address;
  memset(&address, 0, sizeof(address));
  address.sin_family = AF_INET;
  address.sin_port = htons(port);
  address.sin_addr.s_addr = inet_addr(ip.c_str());
  if (bind(fd, (sockaddr*)&address, sizeof(address)) != 0) {
    int err = errno;
    close(fd);
    errno = err;
    return -1;
  }
  return fd;
}

}  // namespace

int CmdReceive(int argc, char** argv) {
  const char* uriText = nullptr;
  const char* directory = nullptr;
  long long seconds = -1;
  for (int i = 1; i < argc; i++) {
    const char* arg = argv[i];
    if (strcmp(arg, "--help") == 0 || strcmp(arg, "-h") == 0) {
      PrintUsage(stdout);
      return kExitOk;
    }
    if (strcmp(arg, "--seconds") == 0) {
      if (!ParseNumber(i + 1 < argc ? argv[i + 1] : nullptr, 0, 100000000, seconds))
        return UsageError("--seconds needs a whole number of seconds");
      i++;
    } else if (arg[0] == '-' && arg[1] != '\0') {
      return UsageError(std::string("unknown option ") + arg);
    } else if (uriText == nullptr) {
      uriText = arg;
    } else if (directory == nullptr) {
      directory = arg;
    } else {
      return UsageError(std::string("unexpected argument ") + arg);
    }
  }
  if (uriText == nullptr || directory == nullptr) return UsageError("needs a udp:// URI and a directory");
  vesk::variant::URI uri;
  if (!vesk::variant::URI::FromString(uriText, true, uri) || uri.schema() != "udp" || uri.port() == 0)
    return UsageError(std::string("not a udp://IP:PORT URI: ") + uriText);
  if (mkdir(directory, 0777) != 0 && errno != EEXIST) {
    fprintf(stderr, "vesk-camera receive: cannot create %s: %s\n", directory, strerror(errno));
    return kExitFailure;
  }

  int fd = OpenSocket(uri.ip(), uri.port());
  if (fd < 0) {
    fprintf(stderr, "vesk-camera receive: cannot listen on %s: %s\n", uriText, strerror(errno));
    return kExitFailure;
  }
  struct sigaction action;
  memset(&action, 0, sizeof(action));
  action.sa_handler = OnStopSignal;
  sigaction(SIGINT, &action, nullptr);
  sigaction(SIGTERM, &action, nullptr);
  printf("vesk-camera receive: listening on udp://%s:%u\n", uri.ip().c_str(), (unsigned)uri.port());
  fflush(stdout);

  FrameWriter writer(directory);
  bool writeFailed = false;
  VeskReassembler reassembler([&](const vesk_frame_t& frame) {
    if (!writer.Write(frame)) writeFailed = true;
  });
  std::vector<uint8_t> datagram(65536);
  uint64_t deadline = seconds < 0 ? 0 : nowMs() + (uint64_t)seconds * 1000u;
  uint64_t datagrams = 0;
  while (!gStop && !writeFailed && (deadline == 0 || nowMs() < deadline)) {
    pollfd entry = {fd, POLLIN, 0};
    if (poll(&entry, 1, 100) <= 0) continue;
    ssize_t length = recv(fd, datagram.data(), datagram.size(), 0);
    if (length < 0) continue;
    datagrams++;
    reassembler.Feed(datagram.data(), (size_t)length);
  }
  // What the kernel already holds was sent before the stop: take it too.
  ssize_t length;
  while (!writeFailed && (length = recv(fd, datagram.data(), datagram.size(), MSG_DONTWAIT)) >= 0) {
    datagrams++;
    reassembler.Feed(datagram.data(), (size_t)length);
  }
  close(fd);

  printf("vesk-camera receive: %llu datagrams, %llu malformed, %llu milestones (%llu with a wrong count)\n",
         (unsigned long long)datagrams, (unsigned long long)reassembler.Malformed(),
         (unsigned long long)reassembler.Milestones(), (unsigned long long)reassembler.MilestoneMismatches());
  for (const auto& entry : reassembler.Channels()) {
    const vesk_channel_stats_t& stats = entry.second;
    printf("vesk-camera receive: channel %u %s: frames %llu (key %llu), packets %llu, lost %llu, "
           "incomplete %llu\n",
           (unsigned)entry.first, stats.audio ? "audio" : "video", (unsigned long long)stats.frames,
           (unsigned long long)stats.keyFrames, (unsigned long long)stats.packets,
           (unsigned long long)stats.lostPackets, (unsigned long long)stats.incompleteFrames);
  }
  fflush(stdout);
  return writeFailed ? kExitFailure : kExitOk;
}

}  // namespace camera
}  // namespace vesk

// The host's pump under load: three H.264 streams (1080p30, 720p30, 360p30)
// replayed by the virtual camera plus 48 kHz stereo AAC, each stream written
// to an FLV file and pushed to a loopback TCP sink. Prints the library's CPU
// time per delivered picture and per megabyte delivered.
//   vesk_pump_bench [SECONDS]
#include <dirent.h>
#include <netinet/in.h>
#include <sys/prctl.h>
#include <sys/socket.h>
#include <sys/stat.h>
#include <unistd.h>

#include <atomic>
#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>
#include <thread>
#include <vector>

#include "vesk/encoder.h"
#include "vesk/virtualcam/virtualcam.h"

namespace {

// Accepts one connection and reads everything, counting the bytes.
struct sink_t {
  int listener = -1;
  uint16_t port = 0;
  std::atomic<uint64_t> bytes{0};
  std::atomic<bool> stop{false};
  std::thread thread;

  bool Open() {
    listener = socket(AF_INET, SOCK_STREAM, 0);
    sockaddr_in a{};
    a.sin_family = AF_INET;
    a.sin_addr.s_addr = htonl(INADDR_LOOPBACK);
    socklen_t n = sizeof(a);
    if (bind(listener, (sockaddr*)&a, n) != 0 || listen(listener, 1) != 0) return false;
    getsockname(listener, (sockaddr*)&a, &n);
    port = ntohs(a.sin_port);
    thread = std::thread([this] {
      prctl(PR_SET_NAME, "bench_sink");
      int fd = accept(listener, nullptr, nullptr);
      std::vector<char> buf(1 << 16);
      while (fd >= 0 && !stop.load()) {
        ssize_t got = recv(fd, buf.data(), buf.size(), 0);
        if (got <= 0) break;
        bytes += (uint64_t)got;
      }
      if (fd >= 0) close(fd);
    });
    return true;
  }
  void Close() {
    stop = true;
    shutdown(listener, SHUT_RDWR);
    close(listener);
    if (thread.joinable()) thread.join();
  }
};

// CPU seconds of this process's threads that belong to the library; the audio
// thread's share (capture and AAC encoding) is also returned on its own.
double LibraryCpuSeconds(double* audio = nullptr) {
  double total = 0;
  if (audio != nullptr) *audio = 0;
  DIR* dir = opendir("/proc/self/task");
  if (dir == nullptr) return 0;
  long ticks = sysconf(_SC_CLK_TCK);
  for (dirent* e = readdir(dir); e != nullptr; e = readdir(dir)) {
    if (e->d_name[0] == '.') continue;
    std::string path = std::string("/proc/self/task/") + e->d_name + "/stat";
    FILE* f = fopen(path.c_str(), "r");
    if (f == nullptr) continue;
    char line[1024];
    size_t n = fread(line, 1, sizeof(line) - 1, f);
    fclose(f);
    line[n] = '\0';
    char* open = strchr(line, '(');
    char* shut = strrchr(line, ')');
    if (open == nullptr || shut == nullptr) continue;
    std::string name(open + 1, shut);
    // The pump is the main thread; the library's workers name themselves
    // (the virtual camera's threads and the sinks are not counted).
    bool library = atol(e->d_name) == (long)getpid() || name == "tcp_transport" ||
                   name == "file_transport" || name == "audio_encoder" || name == "motion_detect";
    if (!library) continue;
    unsigned long utime = 0, stime = 0;
    // Fields after the name: state is field 3; utime and stime are 14 and 15.
    if (sscanf(shut + 2, "%*c %*d %*d %*d %*d %*d %*u %*u %*u %*u %*u %lu %lu", &utime, &stime) == 2) {
      double seconds = (double)(utime + stime) / (double)ticks;
      total += seconds;
      if (audio != nullptr && name == "audio_encoder") *audio += seconds;
    }
  }
  closedir(dir);
  return total;
}

std::string Stream(const char* key, int id, int source, int w, int h, int rate, uint16_t port) {
  char text[1024];
  snprintf(text, sizeof(text),
           R"("%s": {"enabled": true, "streamId": %d, "sourceId": %d, "width": %d, "height": %d,
                "fps": 30, "M": 1, "N": 30, "bitRateVbrMax": %d,
                "avSerializer": {"type": "flv", "destinations":
                  ["file:///tmp/vesk_bench_%s.flv?continuous", "tcp://127.0.0.1:%u"]}})",
           key, id, source, w, h, rate, key, port);
  return text;
}

std::string Buffer(const char* key, int w, int h) {
  char text[256];
  snprintf(text, sizeof(text),
           R"("%s": {"enabled": true, "max_output": {"width": %d, "height": %d},
                "output": {"width": %d, "height": %d}})",
           key, w, h, w, h);
  return text;
}

}  // namespace

int main(int argc, char** argv) {
  int seconds = argc > 1 ? atoi(argv[1]) : 10;
  setenv("ALSA_CONFIG_PATH", "/usr/share/alsa/alsa.conf:" VESK_BENCH_ALSA_CONF, 1);
  logSetMaxPriority(VESK_PRIO_WARNING);
  vcam_reset();
  vcam_set_replay(getenv("VESK_BENCH_LIVE") == nullptr ? 1 : 0);

  sink_t sinks[3];
  for (sink_t& s : sinks)
    if (!s.Open()) return 1;
  std::string json = "{\"chip\": {\"vin0\": {\"enabled\": true}, \"chan0\": {\"enabled\": true, " +
                     Buffer("buffer0", 1920, 1080) + ", " + Buffer("buffer1", 1280, 720) + ", " +
                     Buffer("buffer2", 640, 360) + "}}, " +
                     "\"audio\": {\"enabled\": true, \"mode\": 0, \"sampleRate\": 48000, "
                     "\"channels\": 2, \"bitRate\": 128000}, \"video\": {\"vinFps\": 30, " +
                     Stream("video1", 0, 0, 1920, 1080, 4000000, sinks[0].port) + ", " +
                     Stream("video2", 1, 1, 1280, 720, 2000000, sinks[1].port) + ", " +
                     Stream("video3", 2, 2, 640, 360, 600000, sinks[2].port) + "}}";
  vesk::variant::Variant parsed;
  std::string error;
  if (!vesk::variant::Variant::FromJson(json, parsed, error)) {
    fprintf(stderr, "%s\n", error.c_str());
    return 1;
  }
  vesk::encoder::Encoder encoder;
  if (!encoder.Configure(vesk::encoder::EncoderSettings(parsed), false)) return 1;

  vcam_status_t before;
  vcam_get_status(&before);
  double audio0 = 0;
  double cpu0 = LibraryCpuSeconds(&audio0);
  auto end = std::chrono::steady_clock::now() + std::chrono::seconds(seconds);
  long moved = 0;
  while (std::chrono::steady_clock::now() < end) {
    int n = encoder.EncodeFrames();
    if (n < 0) return 1;
    if (n == 0) usleep(5000);
    moved += n;
  }
  double audio = 0;
  double cpu = LibraryCpuSeconds(&audio) - cpu0;
  audio -= audio0;
  vcam_status_t after;
  vcam_get_status(&after);
  uint64_t sent = 0;
  for (sink_t& s : sinks) sent += s.bytes.load();
  encoder.Close();
  for (sink_t& s : sinks) s.Close();

  uint64_t pictures = after.picturesRead - before.picturesRead;
  struct stat st;
  uint64_t fileBytes = 0;
  for (const char* key : {"video1", "video2", "video3"}) {
    std::string path = std::string("/tmp/vesk_bench_") + key + ".flv";
    if (stat(path.c_str(), &st) == 0) fileBytes += (uint64_t)st.st_size;
    unlink(path.c_str());
  }
  double megabytes = (double)(sent + fileBytes) / 1e6;
  printf("run: %d s, frames moved by the pump: %ld, pictures delivered: %llu (lost %llu)\n",
         seconds, moved, (unsigned long long)pictures,
         (unsigned long long)(after.picturesLost - before.picturesLost));
  printf("delivered: %.1f MB to TCP sinks + files\n", megabytes);
  printf("library CPU: %.3f s (%.1f%% of one core), of which audio capture and AAC: %.3f s\n",
         cpu, 100.0 * cpu / seconds, audio);
  double delivery = cpu - audio;  // pump, containers and transports
  if (pictures > 0)
    printf("per picture: %.1f us all in, %.1f us for delivery alone\n",
           1e6 * cpu / (double)pictures, 1e6 * delivery / (double)pictures);
  if (megabytes > 0)
    printf("per megabyte: %.2f ms all in, %.2f ms for delivery alone\n", 1e3 * cpu / megabytes,
           1e3 * delivery / megabytes);
  return 0;
}

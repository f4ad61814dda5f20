// vesk-camera run: the host's main job. One Encoder, configured from a
// settings file, pumped on this thread until a signal or a time limit.
#include <signal.h>
#include <stdlib.h>
#include <time.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <string>
#include <vector>

#include "camera_config.h"
#include "commands.h"
#include "control_requests.h"
#include "control_socket.h"
#include "jsonfile.h"
#include "pump_status.h"
#include "vesk/encoder.h"
#include "vesk/host/log.h"
#include "vesk/ipc/ipc.h"
#include "warnings.h"

#ifndef VESK_CAMERA_ALSA_CONF
#define VESK_CAMERA_ALSA_CONF ""
#endif

namespace vesk {
namespace camera {

namespace {

using vesk::variant::Variant;

constexpr long kIdleWaitNs = 5 * 1000 * 1000;  // between passes that found no frame
constexpr uint64_t kStatusPeriodMs = 1000;
constexpr const char* kSystemAlsaConf = "/usr/share/alsa/alsa.conf";

struct run_options_t {
  const char* settingsPath = nullptr;
  const char* cameraPath = nullptr;
  long long seconds = -1;  // -1: until a signal
  int logPriority = VESK_PRIO_INFO;
  bool quiet = false;      // no status lines
  const char* controlPath = nullptr;  // the control socket, when asked for
  bool stats = false;      // the on-screen statistics once per second
};

void PrintUsage(FILE* out) {
  fprintf(out,
          "Usage: vesk-camera run SETTINGS.json [--seconds N] [--camera CAMERA.json]\n"
          "                       [--log-level LEVEL] [--quiet] [--control PATH] [--stats]\n"
          "\n"
          "Runs the encoder on SETTINGS.json (an EncoderSettings tree, see\n"
          "'vesk-camera settings --help' and examples/) until SIGINT or SIGTERM, or for\n"
          "N seconds counted from the end of the configuration, then closes every\n"
          "stream cleanly (files complete, connections closed).\n"
          "\n"
          "Before configuring it prints, as warnings, settings the library accepts but\n"
          "that will hurt (see 'vesk-camera settings --check'). While running it prints\n"
          "the IAV state events the encoder broadcasts and, once per second, one line\n"
          "per output stream: pictures and audio frames delivered in total (and in the\n"
          "last second), the stream's output rate, its destinations still attached and\n"
          "how many of those deliver now (a TCP peer only while connected).\n"
          "\n"
          "Options:\n"
          "  --seconds N         stop after N seconds (default: run until a signal)\n"
          "  --camera FILE       set up the virtual camera from FILE (JSON, below)\n"
          "  --log-level LEVEL   library log lines shown: error, warning, info (default)\n"
          "                      or debug (or the numbers 3, 4, 6, 7)\n"
          "  --quiet             no per-second status lines\n"
          "  --control PATH      listen for runtime requests on the Unix socket PATH\n"
          "                      (below); a stale socket file there is replaced, and\n"
          "                      the file is removed at exit\n"
          "  --stats             print the on-screen statistics (level 2) once per second\n"
          "\n"
          "Control socket: one JSON object per line, each answered with one JSON line\n"
          "holding \"ok\" (true or false), \"error\" when false, the data asked for and\n"
          "\"log\", the library's log lines the request caused. Requests are applied\n"
          "between two passes of the pump. 'vesk-camera ctl PATH JSON' sends one.\n"
          "  {\"ChangeVideoSettings\": {\"video\": {\"video1\": {\"fps\": 15}}}}\n"
          "                      new frame rates, bit rates, quality, volume, HDR mode\n"
          "  {\"RestartStreams\": {\"video2\": true}}  rebuild the named streams' outputs\n"
          "  {\"ForceIDR\": true}  an IDR picture on every H.264 stream\n"
          "  {\"OSDStats\": 2}     the three statistics lines (\"lines\"), level 1 or 2\n"
          "  {\"Settings\": true}  the settings in force (\"settings\")\n"
          "Lines longer than 1 MiB are refused; at most 8 clients at once (when all\n"
          "are taken, one silent for 10 s makes room); clients take turns.\n"
          "\n"
          "%s"
          "\n"
          "Audio is captured through alsa-lib. Unless ALSA_CONFIG_PATH is already set,\n"
          "the run points alsa-lib at the virtual sound card:\n"
          "  ALSA_CONFIG_PATH=%s:%s\n"
          "(its tone can be changed with VESK_VSND_PCM=\"tone=1000,amplitude=4000\").\n"
          "\n"
          "Exit status: 0 the run ended normally; 1 the encoder could not be\n"
          "configured (its own log lines say why); 2 bad usage or unusable input.\n",
          CameraConfigHelp(), kSystemAlsaConf,
          VESK_CAMERA_ALSA_CONF[0] != '\0' ? VESK_CAMERA_ALSA_CONF : "<vesk-alsa.conf>");
}

int UsageError(const std::string& text) {
  fprintf(stderr, "vesk-camera run: %s (see vesk-camera run --help)\n", text.c_str());
  return kExitUsage;
}

bool ParseLogLevel(const char* text, int& priority) {
  struct level_t {
    const char* name;
    int priority;
  };
  static const level_t kLevels[] = {{"error", VESK_PRIO_ERROR},   {"3", VESK_PRIO_ERROR},
                                    {"warning", VESK_PRIO_WARNING}, {"warn", VESK_PRIO_WARNING},
                                    {"4", VESK_PRIO_WARNING},     {"info", VESK_PRIO_INFO},
                                    {"6", VESK_PRIO_INFO},        {"debug", VESK_PRIO_DEBUG},
                                    {"7", VESK_PRIO_DEBUG}};
  for (const level_t& level : kLevels) {
    if (strcmp(text, level.name) == 0) {
      priority = level.priority;
      return true;
    }
  }
  return false;
}

// Returns kExitOk to go on, or the exit code (usage printed or an error).
int ParseArguments(int argc, char** argv, run_options_t& options, bool& helpShown) {
  helpShown = false;
  for (int i = 1; i < argc; i++) {
    const char* arg = argv[i];
    const char* value = i + 1 < argc ? argv[i + 1] : nullptr;
    if (strcmp(arg, "--help") == 0 || strcmp(arg, "-h") == 0) {
      PrintUsage(stdout);
      helpShown = true;
      return kExitOk;
    }
    if (strcmp(arg, "--seconds") == 0) {
      if (!ParseNumber(value, 0, 100000000, options.seconds))
        return UsageError("--seconds needs a whole number of seconds");
      i++;
    } else if (strcmp(arg, "--camera") == 0) {
      if (value == nullptr) return UsageError("--camera needs a file");
      options.cameraPath = value;
      i++;
    } else if (strcmp(arg, "--log-level") == 0) {
      if (value == nullptr || !ParseLogLevel(value, options.logPriority))
        return UsageError("--log-level needs error, warning, info or debug");
      i++;
    } else if (strcmp(arg, "--quiet") == 0) {
      options.quiet = true;
    } else if (strcmp(arg, "--control") == 0) {
      if (value == nullptr || *value == '\0') return UsageError("--control needs a socket path");
      options.controlPath = value;
      i++;
    } else if (strcmp(arg, "--stats") == 0) {
      options.stats = true;
    } else if (arg[0] == '-' && arg[1] != '\0') {
      return UsageError(std::string("unknown option ") + arg);
    } else if (options.settingsPath != nullptr) {
      return UsageError(std::string("more than one settings file: ") + arg);
    } else {
      options.settingsPath = arg;
    }
  }
  if (options.settingsPath == nullptr) return UsageError("no settings file given");
  return kExitOk;
}

// The virtual sound card's configuration: the build's own, else the one
// installed beside this program (PREFIX/share/vesk/vesk-alsa.conf).
std::string FindSoundCardConf() {
  if (VESK_CAMERA_ALSA_CONF[0] != '\0' && access(VESK_CAMERA_ALSA_CONF, R_OK) == 0) return VESK_CAMERA_ALSA_CONF;
  char self[4096];
  ssize_t length = readlink("/proc/self/exe", self, sizeof(self) - 1);
  if (length <= 0) return std::string();
  std::string directory(self, (size_t)length);
  directory.resize(directory.rfind('/'));
  std::string installed = directory + "/../share/vesk/vesk-alsa.conf";
  return access(installed.c_str(), R_OK) == 0 ? installed : std::string();
}

// Points alsa-lib at the virtual sound card unless the caller chose a configuration.
void SelectSoundCard() {
  const char* current = getenv("ALSA_CONFIG_PATH");
  if (current != nullptr && *current != '\0') return;
  std::string conf = FindSoundCardConf();
  if (conf.empty()) return;
  std::string path = std::string(kSystemAlsaConf) + ":" + conf;
  setenv("ALSA_CONFIG_PATH", path.c_str(), 1);
}

// SIGINT and SIGTERM are blocked in every thread (the encoder's threads
// inherit the mask) and taken synchronously by the pump between passes.
void BlockStopSignals(sigset_t& set) {
  sigemptyset(&set);
  sigaddset(&set, SIGINT);
  sigaddset(&set, SIGTERM);
  pthread_sigmask(SIG_BLOCK, &set, nullptr);
}

// Waits up to waitNs for a stop signal; its number, or 0.
int TakeStopSignal(const sigset_t& set, long waitNs) {
  struct timespec timeout = {0, waitNs};
  int signal = sigtimedwait(&set, nullptr, &timeout);
  return signal > 0 ? signal : 0;
}

// The on-screen statistics, one line per H.264 stream.
void PrintStats(vesk::encoder::Encoder& encoder, std::vector<std::string>& lines) {
  encoder.GetChannelsOSDStats(2, lines);
  for (size_t i = 0; i < lines.size(); i++) {
    printf("vesk-camera: stats video%zu: %s\n", i + 1, lines[i].empty() ? "(not enabled)" : lines[i].c_str());
  }
}

// control: the control socket, or null. Its requests are served between
// passes, on this thread, as every Encoder call must be.
int Pump(vesk::encoder::Encoder& encoder, const run_options_t& options, const sigset_t& stopSignals,
         ControlSocket* control) {
  PumpStatus status(encoder);
  ControlRequests requests(encoder);
  std::vector<std::string> statsLines;
  uint64_t start = nowMs();
  uint64_t deadline = options.seconds < 0 ? 0 : start + (uint64_t)options.seconds * 1000u;
  uint64_t nextStatus = start + kStatusPeriodMs;
  int signal = 0;
  while (true) {
    int moved = encoder.EncodeFrames();
    if (moved > 0) status.AfterPass(moved);
    if (control != nullptr) control->Service(requests);
    uint64_t now = nowMs();
    if (now >= nextStatus) {
      if (!options.quiet) status.Print(stdout, now - start);
      if (options.stats) PrintStats(encoder, statsLines);
      if (!options.quiet || options.stats) fflush(stdout);
      nextStatus += kStatusPeriodMs;
      if (nextStatus <= now) nextStatus = now + kStatusPeriodMs;
    }
    if (deadline != 0 && now >= deadline) break;
    signal = TakeStopSignal(stopSignals, moved > 0 ? 0 : kIdleWaitNs);
    if (signal != 0) break;
  }
  uint64_t stopped = nowMs();
  if (signal != 0) {
    printf("vesk-camera: %s received after %.1f s, closing\n", signal == SIGINT ? "SIGINT" : "SIGTERM",
           (double)(stopped - start) / 1000.0);
  } else {
    printf("vesk-camera: %lld s elapsed, closing\n", options.seconds);
  }
  status.PrintTotals(stdout);
  fflush(stdout);
  return kExitOk;
}

}  // namespace

int CmdRun(int argc, char** argv) {
  run_options_t options;
  bool helpShown;
  int result = ParseArguments(argc, argv, options, helpShown);
  if (result != kExitOk || helpShown) return result;
  logSetMaxPriority(options.logPriority);

  Variant settings;
  std::string error;
  if (!LoadJsonFile(options.settingsPath, settings, error)) {
    fprintf(stderr, "vesk-camera run: %s\n", error.c_str());
    return kExitUsage;
  }
  if (!settings.IsMap()) {
    fprintf(stderr, "vesk-camera run: %s: the settings must be a JSON object\n", options.settingsPath);
    return kExitUsage;
  }
  if (options.cameraPath != nullptr) {
    Variant camera;
    if (!LoadJsonFile(options.cameraPath, camera, error) || !ApplyCameraConfig(camera, error)) {
      fprintf(stderr, "vesk-camera run: %s: %s\n", options.cameraPath, error.c_str());
      return kExitUsage;
    }
  }
  for (const std::string& warning : FindSettingsWarnings(settings)) {
    fprintf(stderr, "vesk-camera: warning: %s\n", warning.c_str());
  }
  SelectSoundCard();

  sigset_t stopSignals;
  BlockStopSignals(stopSignals);
  int listener = vesk::ipc::Ipc::GetInstance().AddListener([](const Variant& message) {
    const Variant& name = message.IsMap() ? message["functionName"] : Variant();
    printf("vesk-camera: IAV state event %s\n", name.IsString() ? name.c_str() : "(unnamed)");
    fflush(stdout);
  });

  // Listening before Configure: clients may connect while the encoder starts;
  // their requests are answered once the pump runs.
  ControlSocket control;
  if (options.controlPath != nullptr && !control.Open(options.controlPath, error)) {
    fprintf(stderr, "vesk-camera run: --control %s\n", error.c_str());
    vesk::ipc::Ipc::GetInstance().RemoveListener(listener);
    return kExitUsage;
  }

  result = kExitOk;
  {
    vesk::encoder::Encoder encoder;
    vesk::encoder::EncoderSettings encoderSettings(settings);
    uint64_t began = nowMs();
    if (!encoder.Configure(encoderSettings, true)) {
      fprintf(stderr, "vesk-camera run: the encoder could not be configured from %s\n", options.settingsPath);
      result = kExitFailure;
    } else {
      printf("vesk-camera: configured in %llu ms from %s%s\n", (unsigned long long)(nowMs() - began),
             options.settingsPath, options.seconds < 0 ? "; stop with Ctrl-C" : "");
      fflush(stdout);
      result = Pump(encoder, options, stopSignals, control.IsOpen() ? &control : nullptr);
      uint64_t closing = nowMs();
      control.Close();
      encoder.Close();
      printf("vesk-camera: closed in %llu ms\n", (unsigned long long)(nowMs() - closing));
    }
  }
  vesk::ipc::Ipc::GetInstance().RemoveListener(listener);
  fflush(stdout);
  return result;
}

}  // namespace camera
}  // namespace vesk

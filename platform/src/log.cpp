// Host functions: the log line, the crash call and the clocks.
#include "vesk/host/log.h"

#include <signal.h>
#include <stdio.h>
#include <string.h>
#include <time.h>
#include <unistd.h>

#include <atomic>
#include <cstdlib>
#include <mutex>

namespace {

std::mutex g_logMutex;
std::atomic<int> g_maxPriority{VESK_PRIO_INFO};
vesk_log_hook_t g_hook = nullptr;
void* g_hookContext = nullptr;

const char* PriorityName(int priority) {
  switch (priority) {
    case 0: return "EMERG";
    case 1: return "ALERT";
    case 2: return "FATAL";
    case 3: return "ERROR";
    case 4: return "WARN";
    case 5: return "NOTICE";
    case 6: return "INFO";
    default: return "DEBUG";
  }
}

const char* BaseName(const char* path) {
  if (path == nullptr) return "";
  const char* slash = strrchr(path, '/');
  return slash ? slash + 1 : path;
}

}  // namespace

extern "C" void logInternalV(const char* module, const char* sourceFile, const char* function,
                             int line, int priority, int errorValue, const char* format,
                             va_list args) {
  char message[2048];
  vsnprintf(message, sizeof(message), format ? format : "", args);

  vesk_log_record_t record;
  record.module = module ? module : "";
  record.sourceFile = BaseName(sourceFile);
  record.function = function ? function : "";
  record.line = line;
  record.priority = priority;
  record.errorValue = errorValue;
  record.message = message;

  std::lock_guard<std::mutex> lock(g_logMutex);
  if (g_hook != nullptr) g_hook(&record, g_hookContext);
  if (priority > g_maxPriority.load(std::memory_order_relaxed)) return;

  struct timespec ts;
  clock_gettime(CLOCK_REALTIME, &ts);
  struct tm tmv;
  localtime_r(&ts.tv_sec, &tmv);
  char when[32];
  strftime(when, sizeof(when), "%Y-%m-%d %H:%M:%S", &tmv);
  if (errorValue != 0) {
    char errText[128];
    const char* text = strerror_r(errorValue, errText, sizeof(errText));
    fprintf(stderr, "%s.%03ld %-5s %s %s:%d %s: %s (%d: %s)\n", when, ts.tv_nsec / 1000000,
            PriorityName(priority), record.module, record.sourceFile, line, record.function,
            message, errorValue, text);
  } else {
    fprintf(stderr, "%s.%03ld %-5s %s %s:%d %s: %s\n", when, ts.tv_nsec / 1000000,
            PriorityName(priority), record.module, record.sourceFile, line, record.function,
            message);
  }
}

extern "C" void logInternal(const char* module, const char* sourceFile, const char* function,
                            int line, int priority, int errorValue, int reserved,
                            const char* format, ...) {
  (void)reserved;
  va_list args;
  va_start(args, format);
  logInternalV(module, sourceFile, function, line, priority, errorValue, format, args);
  va_end(args);
}

extern "C" void logSetMaxPriority(int maxPriority) { g_maxPriority.store(maxPriority); }

extern "C" int logGetMaxPriority(void) { return g_maxPriority.load(); }

extern "C" void logSetHook(vesk_log_hook_t hook, void* context) {
  std::lock_guard<std::mutex> lock(g_logMutex);
  g_hook = hook;
  g_hookContext = context;
}

extern "C" void forceCrash(void) {
  fflush(stderr);
  fflush(stdout);
  signal(SIGABRT, SIG_DFL);
  abort();
}

extern "C" uint64_t nowMs(void) {
  struct timespec ts;
  clock_gettime(CLOCK_MONOTONIC, &ts);
  return (uint64_t)ts.tv_sec * 1000u + (uint64_t)ts.tv_nsec / 1000000u;
}

extern "C" uint64_t nowWallMs(void) {
  struct timespec ts;
  clock_gettime(CLOCK_REALTIME, &ts);
  return (uint64_t)ts.tv_sec * 1000u + (uint64_t)ts.tv_nsec / 1000000u;
}

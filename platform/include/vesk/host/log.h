/* Host functions: logging, crash and clocks. Plain C linkage, as the host
 * process provides them. */
#ifndef VESK_HOST_LOG_H
#define VESK_HOST_LOG_H

#include <stdarg.h>
#include <stdint.h>

#ifdef __cplusplus
extern "C" {
#endif

/* Syslog priorities used by the library. */
#define VESK_PRIO_ERROR 3
#define VESK_PRIO_WARNING 4
#define VESK_PRIO_INFO 6
#define VESK_PRIO_DEBUG 7

/* One log line on stderr: wall time, priority, module, source file, line,
 * function, the message, and the errno text when errorValue is non-zero.
 * reserved is always 0. */
void logInternal(const char* module, const char* sourceFile, const char* function, int line,
                 int priority, int errorValue, int reserved, const char* format, ...)
    __attribute__((format(printf, 8, 9)));
void logInternalV(const char* module, const char* sourceFile, const char* function, int line,
                  int priority, int errorValue, const char* format, va_list args);

/* Lines whose priority value is above maxPriority are not printed (they still
 * reach the hook). Default: VESK_PRIO_INFO. */
void logSetMaxPriority(int maxPriority);
int logGetMaxPriority(void);

typedef struct vesk_log_record {
  const char* module;
  const char* sourceFile; /* base name, e.g. "thread.cpp" */
  const char* function;
  int line;
  int priority;
  int errorValue;
  const char* message; /* the formatted message, without time or prefix */
} vesk_log_record_t;

/* A hook that sees every line (whatever the priority) before it is printed;
 * null removes it. Called on the logging thread, serialised by the logger. */
typedef void (*vesk_log_hook_t)(const vesk_log_record_t* record, void* context);
void logSetHook(vesk_log_hook_t hook, void* context);

/* Ends the process with a core-dump signal (SIGABRT) after flushing the log. */
void forceCrash(void) __attribute__((noreturn));

/* Monotonic time in milliseconds. */
uint64_t nowMs(void);
/* Wall-clock time in milliseconds since the epoch. */
uint64_t nowWallMs(void);

#ifdef __cplusplus
}
#endif

#endif

// The library's one logging macro family. Every line carries the module
// "vesk_encoder", the source file, function, line, priority and error value.
// The VTLOG_* forms are for worker threads: they prefix "%s(%d) - " with the
// thread's kernel name and id.
#pragma once

#include "vesk/host/log.h"

namespace vesk {
namespace encoder {
namespace internal {
// The calling thread's kernel name and id, read once per thread.
const char* CurrentThreadName();
int CurrentThreadId();
}  // namespace internal
}  // namespace encoder
}  // namespace vesk

#define VLOG_ERRNO(priority, err, fmt, ...) \
  ::logInternal("vesk_encoder", __FILE__, __func__, __LINE__, (priority), (err), 0, fmt, ##__VA_ARGS__)
#define VLOG_ERROR(fmt, ...) VLOG_ERRNO(VESK_PRIO_ERROR, 0, fmt, ##__VA_ARGS__)
#define VLOG_WARN(fmt, ...) VLOG_ERRNO(VESK_PRIO_WARNING, 0, fmt, ##__VA_ARGS__)
#define VLOG_INFO(fmt, ...) VLOG_ERRNO(VESK_PRIO_INFO, 0, fmt, ##__VA_ARGS__)
#define VLOG_DEBUG(fmt, ...) VLOG_ERRNO(VESK_PRIO_DEBUG, 0, fmt, ##__VA_ARGS__)

#define VTLOG_ERRNO(priority, err, fmt, ...)                                        \
  VLOG_ERRNO((priority), (err), "%s(%d) - " fmt,                                   \
             ::vesk::encoder::internal::CurrentThreadName(),                       \
             ::vesk::encoder::internal::CurrentThreadId(), ##__VA_ARGS__)
#define VTLOG_ERROR(fmt, ...) VTLOG_ERRNO(VESK_PRIO_ERROR, 0, fmt, ##__VA_ARGS__)
#define VTLOG_WARN(fmt, ...) VTLOG_ERRNO(VESK_PRIO_WARNING, 0, fmt, ##__VA_ARGS__)
#define VTLOG_INFO(fmt, ...) VTLOG_ERRNO(VESK_PRIO_INFO, 0, fmt, ##__VA_ARGS__)
#define VTLOG_DEBUG(fmt, ...) VTLOG_ERRNO(VESK_PRIO_DEBUG, 0, fmt, ##__VA_ARGS__)

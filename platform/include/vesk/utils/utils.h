// Small helpers of the utility library.
#pragma once

#include <sys/time.h>

#include <cstdint>
#include <string>

namespace vesk {
namespace utils {

// printf-style formatting into a string.
std::string format(const char* fmt, ...) __attribute__((format(printf, 1, 2)));
// Removes surrounding white space in place.
void trim(std::string& text);
std::string lowerCase(std::string text);

// Descriptor options (bits, combinable).
enum : uint32_t {
  FD_OPTION_NONBLOCKING = 0x80000000u,
  FD_OPTION_CLOEXEC = 0x40000000u,
  FD_OPTION_TCP_NODELAY = 0x00000001u,
  FD_OPTION_KEEPALIVE = 0x00000002u,
};
// Applies the options; false (errno set) when any fails.
bool SetFdOptions(int fd, uint32_t options);

// The current wall-clock time as a time value.
struct timeval now();

// Reports a fatal condition (code and text) on the log, then ends the process
// with a core-dump signal.
void announceTerminate(uint32_t code, const char* text) __attribute__((noreturn));

}  // namespace utils
}  // namespace vesk

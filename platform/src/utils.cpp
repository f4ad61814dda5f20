#include "vesk/utils/utils.h"

#include <fcntl.h>
#include <netinet/in.h>
#include <netinet/tcp.h>
#include <sys/socket.h>

#include <cctype>
#include <cstdarg>
#include <cstdio>

#include "vesk/host/log.h"

namespace vesk {
namespace utils {

std::string format(const char* fmt, ...) {
  va_list args;
  va_start(args, fmt);
  char small[256];
  va_list copy;
  va_copy(copy, args);
  int n = vsnprintf(small, sizeof(small), fmt, copy);
  va_end(copy);
  std::string result;
  if (n < 0) {
    va_end(args);
    return result;
  }
  if ((size_t)n < sizeof(small)) {
    result.assign(small, (size_t)n);
  } else {
    result.resize((size_t)n + 1);
    vsnprintf(&result[0], result.size(), fmt, args);
    result.resize((size_t)n);
  }
  va_end(args);
  return result;
}

void trim(std::string& text) {
  size_t first = 0;
  while (first < text.size() && isspace((unsigned char)text[first])) first++;
  size_t last = text.size();
  while (last > first && isspace((unsigned char)text[last - 1])) last--;
  text = text.substr(first, last - first);
}

std::string lowerCase(std::string text) {
  for (char& c : text) c = (char)tolower((unsigned char)c);
  return text;
}

bool SetFdOptions(int fd, uint32_t options) {
  if (options & FD_OPTION_NONBLOCKING) {
    int flags = fcntl(fd, F_GETFL, 0);
    if (flags < 0 || fcntl(fd, F_SETFL, flags | O_NONBLOCK) < 0) return false;
  }
  if (options & FD_OPTION_CLOEXEC) {
    int flags = fcntl(fd, F_GETFD, 0);
    if (flags < 0 || fcntl(fd, F_SETFD, flags | FD_CLOEXEC) < 0) return false;
  }
  int one = 1;
  if ((options & FD_OPTION_TCP_NODELAY) &&
      setsockopt(fd, IPPROTO_TCP, TCP_NODELAY, &one, sizeof(one)) < 0)
    return false;
  if ((options & FD_OPTION_KEEPALIVE) &&
      setsockopt(fd, SOL_SOCKET, SO_KEEPALIVE, &one, sizeof(one)) < 0)
    return false;
  return true;
}

struct timeval now() {
  struct timeval tv;
  gettimeofday(&tv, nullptr);
  return tv;
}

void announceTerminate(uint32_t code, const char* text) {
  logInternal("vesk_encoder", __FILE__, __func__, __LINE__, 2, 0, 0,
              "Terminating: 0x%08x %s", code, text ? text : "");
  forceCrash();
}

}  // namespace utils
}  // namespace vesk

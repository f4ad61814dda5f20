#include "jsonfile.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

namespace vesk {
namespace camera {

namespace {

bool ReadFile(const char* path, std::string& text, std::string& error) {
  FILE* file = fopen(path, "rb");
  if (file == nullptr) {
    error = strerror(errno);
    return false;
  }
  char chunk[65536];
  size_t count;
  while ((count = fread(chunk, 1, sizeof(chunk), file)) > 0) text.append(chunk, count);
  bool failed = ferror(file) != 0;
  int err = errno;
  fclose(file);
  if (failed) error = strerror(err);
  return !failed;
}

}  // namespace

bool LoadJsonFile(const char* path, vesk::variant::Variant& value, std::string& error) {
  std::string text;
  std::string reason;
  if (!ReadFile(path, text, reason)) {
    error = std::string("cannot read ") + path + ": " + reason;
    return false;
  }
  if (!vesk::variant::Variant::FromJson(text, value, reason)) {
    error = std::string(path) + ": " + reason;
    return false;
  }
  return true;
}

bool ParseNumber(const char* text, long long low, long long high, long long& value) {
  if (text == nullptr || *text == '\0') return false;
  char* end = nullptr;
  errno = 0;
  long long parsed = strtoll(text, &end, 10);
  if (errno != 0 || *end != '\0' || parsed < low || parsed > high) return false;
  value = parsed;
  return true;
}

}  // namespace camera
}  // namespace vesk

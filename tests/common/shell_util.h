// Running a shell command and reading a whole file, for tests that use real programs.
#pragma once

#include <sys/wait.h>

#include <cstdio>
#include <fstream>
#include <sstream>
#include <string>

namespace vesk {
namespace test {

// Runs a shell command and returns its standard output; status gets its exit status.
inline std::string RunCommand(const std::string& command, int* status = nullptr) {
  std::string out;
  FILE* p = popen(command.c_str(), "r");
  if (p == nullptr) return out;
  char buf[4096];
  size_t n;
  while ((n = fread(buf, 1, sizeof(buf), p)) > 0) out.append(buf, n);
  int rc = pclose(p);
  if (status) *status = WIFEXITED(rc) ? WEXITSTATUS(rc) : -1;
  return out;
}

inline std::string ReadFile(const std::string& path) {
  std::ifstream in(path, std::ios::binary);
  std::stringstream s;
  s << in.rdbuf();
  return s.str();
}

}  // namespace test
}  // namespace vesk

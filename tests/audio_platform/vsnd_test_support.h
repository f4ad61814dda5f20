// Selects the virtual sound card for alsa-lib and sets its per-test
// behaviour through the variables its plugins read at open.
#pragma once

#include <alsa/asoundlib.h>
#include <gtest/gtest.h>

#include <cstdint>
#include <cstdlib>
#include <string>
#include <vector>

namespace vsnd_test {

// Must run before the first ALSA call of the process.
inline void UseVirtualSoundCard() {
  static const bool done = [] {
    std::string path = std::string("/usr/share/alsa/alsa.conf:") + VESK_TEST_ALSA_CONF;
    setenv("ALSA_CONFIG_PATH", path.c_str(), 1);
    return true;
  }();
  (void)done;
}

// Sets an environment variable for the lifetime of the object.
class ScopedEnv {
 public:
  ScopedEnv(const char* name, const std::string& value) : name_(name) { setenv(name, value.c_str(), 1); }
  ~ScopedEnv() { unsetenv(name_); }
  ScopedEnv(const ScopedEnv&) = delete;
  ScopedEnv& operator=(const ScopedEnv&) = delete;

 private:
  const char* name_;
};

inline std::string TempPath(const std::string& leaf) {
  const char* dir = std::getenv("TMPDIR");
  return std::string(dir != nullptr ? dir : "/tmp") + "/vesk_vsnd_" + std::to_string(getpid()) + "_" + leaf;
}

}  // namespace vsnd_test

// Helpers of the audio tests: the virtual sound card, and AAC checked with the
// real ffmpeg. Targets using UseVirtualSoundCard define
// VESK_TEST_ALSA_CONF (the generated ALSA configuration).
#pragma once

#include <cmath>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "shell_util.h"

namespace vesk {
namespace test {

#ifdef VESK_TEST_ALSA_CONF
// Points alsa-lib at the virtual sound card and sets its capture behaviour
// ("free=1", "rates=44100", ...) for the next device open.
inline void UseVirtualSoundCard(const std::string& pcmParams) {
  std::string path = std::string("/usr/share/alsa/alsa.conf:") + VESK_TEST_ALSA_CONF;
  setenv("ALSA_CONFIG_PATH", path.c_str(), 1);
  setenv("VESK_VSND_PCM", pcmParams.c_str(), 1);
}
#endif

// Writes ADTS access units one after the other, as an .aac file.
inline std::string WriteAdts(const std::vector<std::vector<uint8_t>>& units, const std::string& name) {
  std::string path = "/tmp/vesk_audio_" + name + ".aac";
  FILE* f = fopen(path.c_str(), "wb");
  for (auto& u : units) fwrite(u.data(), 1, u.size(), f);
  fclose(f);
  return path;
}

// Decodes an AAC file with ffmpeg to mono 16-bit samples at its own rate.
inline std::vector<int16_t> DecodeMono(const std::string& path) {
  std::string raw = path + ".raw";
  RunCommand("ffmpeg -y -v error -i " + path + " -f s16le -ac 1 " + raw + " 2>&1");
  std::string bytes = ReadFile(raw);
  std::vector<int16_t> samples(bytes.size() / 2);
  for (size_t i = 0; i < samples.size(); i++) {
    samples[i] = (int16_t)((uint8_t)bytes[2 * i] | ((uint8_t)bytes[2 * i + 1] << 8));
  }
  remove(raw.c_str());
  return samples;
}

// Frequency of a tone from its rising zero crossings.
inline double ToneFrequency(const std::vector<int16_t>& s, size_t skip, double rate) {
  size_t first = 0, last = 0, count = 0;
  for (size_t i = skip + 1; i < s.size(); i++) {
    if (s[i - 1] < 0 && s[i] >= 0) {
      if (count++ == 0) first = i;
      last = i;
    }
  }
  return count < 2 ? 0 : (double)(count - 1) * rate / (double)(last - first);
}

inline double Rms(const std::vector<int16_t>& s, size_t skip) {
  double sum = 0;
  for (size_t i = skip; i < s.size(); i++) sum += (double)s[i] * s[i];
  return s.size() > skip ? std::sqrt(sum / (double)(s.size() - skip)) : 0;
}

}  // namespace test
}  // namespace vesk

// Helpers of the audio tests: the virtual sound card's selection, frame
// collection, and decoding with the real ffmpeg.
#pragma once

#include <sys/stat.h>
#include <unistd.h>

#include <cmath>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <vector>

#include "vesk/records.h"

namespace vesk {
namespace test {

// Points alsa-lib at the virtual sound card and sets its capture behaviour
// ("free=1", "rates=44100", ...) for the next device open.
inline void UseVirtualSoundCard(const std::string& pcmParams) {
  static bool configured = false;
  if (!configured) {
    std::string path = std::string("/usr/share/alsa/alsa.conf:") + VESK_TEST_ALSA_CONF;
    setenv("ALSA_CONFIG_PATH", path.c_str(), 1);
    configured = true;
  }
  setenv("VESK_VSND_PCM", pcmParams.c_str(), 1);
}

struct collected_frame_t {
  std::vector<uint8_t> payload;
  std::vector<uint8_t> altPayload;
  int64_t pts;
  uint32_t timescale;
  uint32_t muted;
};

inline collected_frame_t Copy(const vesk::encoder::audio_frame_t& f) {
  collected_frame_t c;
  c.payload.assign(f.payload, f.payload + f.payloadLength);
  c.altPayload.assign(f.altPayload, f.altPayload + f.altPayloadLength);
  c.pts = f.pts.value;
  c.timescale = f.pts.timescale;
  c.muted = f.muted;
  return c;
}

inline std::string RunCommand(const std::string& command, int* status = nullptr) {
  std::string out;
  FILE* p = popen(command.c_str(), "r");
  if (p == nullptr) return out;
  char buf[4096];
  size_t n;
  while ((n = fread(buf, 1, sizeof(buf), p)) > 0) out.append(buf, n);
  int rc = pclose(p);
  if (status) *status = rc;
  return out;
}

// Writes ADTS access units one after the other, as an .aac file.
inline std::string WriteAdts(const std::vector<std::vector<uint8_t>>& units, const char* name) {
  std::string path = std::string("/tmp/vesk_audio_") + name + ".aac";
  FILE* f = fopen(path.c_str(), "wb");
  for (auto& u : units) fwrite(u.data(), 1, u.size(), f);
  fclose(f);
  return path;
}

// Decodes an AAC file with ffmpeg to mono 16-bit samples at its own rate.
inline std::vector<int16_t> DecodeMono(const std::string& path) {
  std::string raw = path + ".raw";
  int status = 0;
  RunCommand("ffmpeg -y -v error -i " + path + " -f s16le -ac 1 " + raw + " 2>&1", &status);
  std::vector<int16_t> samples;
  FILE* f = fopen(raw.c_str(), "rb");
  if (f == nullptr) return samples;
  int16_t buf[4096];
  size_t n;
  while ((n = fread(buf, sizeof(int16_t), 4096, f)) > 0) samples.insert(samples.end(), buf, buf + n);
  fclose(f);
  return samples;
}

// Frequency of a tone from its rising zero crossings.
inline double ToneFrequency(const std::vector<int16_t>& s, size_t skip, double rate) {
  size_t first = 0, last = 0, count = 0;
  for (size_t i = skip + 1; i < s.size(); i++) {
    if (s[i - 1] < 0 && s[i] >= 0) {
      if (count == 0) first = i;
      last = i;
      count++;
    }
  }
  if (count < 2) return 0;
  return (double)(count - 1) * rate / (double)(last - first);
}

inline double Rms(const std::vector<int16_t>& s, size_t skip) {
  double sum = 0;
  size_t n = 0;
  for (size_t i = skip; i < s.size(); i++, n++) sum += (double)s[i] * s[i];
  return n ? std::sqrt(sum / n) : 0;
}

}  // namespace test
}  // namespace vesk

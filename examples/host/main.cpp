// A minimal host: one Encoder, configured from a settings file, pumped from
// one thread for a few seconds, then closed.
//   example-host SETTINGS.json SECONDS
#include <unistd.h>

#include <chrono>
#include <cstdio>
#include <cstdlib>
#include <fstream>
#include <sstream>
#include <string>

#include <vesk/encoder.h>

int main(int argc, char** argv) {
  if (argc != 3) {
    fprintf(stderr, "usage: %s SETTINGS.json SECONDS\n", argv[0]);
    return 2;
  }
  std::ifstream in(argv[1]);
  std::stringstream text;
  text << in.rdbuf();
  vesk::variant::Variant parsed;
  std::string error;
  if (!vesk::variant::Variant::FromJson(text.str(), parsed, error)) {
    fprintf(stderr, "%s: %s\n", argv[1], error.c_str());
    return 2;
  }

  vesk::encoder::Encoder encoder;
  if (!encoder.Configure(vesk::encoder::EncoderSettings(parsed), true)) return 1;

  auto end = std::chrono::steady_clock::now() + std::chrono::seconds(atoi(argv[2]));
  long frames = 0;
  while (std::chrono::steady_clock::now() < end) {
    int moved = encoder.EncodeFrames();
    if (moved < 0) return 1;
    if (moved == 0) usleep(5000);  // nothing ready: wait instead of spinning
    frames += moved;
  }
  encoder.Close();
  printf("frames delivered: %ld\n", frames);
  return frames > 0 ? 0 : 1;
}

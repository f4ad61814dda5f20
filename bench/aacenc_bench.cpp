// One AAC access unit of 1024 samples at 48 kHz stereo; its real-time budget
// is 1024 / 48000 s = 21.3 ms.
#include "vesk/aacenc/aacenc.h"

#include <benchmark/benchmark.h>

#include <cmath>
#include <memory>
#include <vector>

namespace {

void BM_AacEncodeFrame48kStereo(benchmark::State& state) {
  aacenc_record_t rec{};
  std::unique_ptr<unsigned char[]> work(new unsigned char[AACENC_WORK_BUFFER_BYTES]);
  std::vector<unsigned char> out(4096);
  rec.sample_rate = 48000;
  rec.channels = 2;
  rec.bit_rate_initial = rec.bit_rate = 128000;
  rec.temporal_noise_shaping = 1;
  rec.fixed_parameter = AACENC_FIXED_PARAMETER;
  aacenc_set_work_buffer(&rec, work.get());
  aacenc_setup(&rec);
  aacenc_open(&rec);
  if (rec.error_code != AACENC_OK) {
    state.SkipWithError("aacenc_open failed");
    return;
  }
  // A second of speech-band tones with some noise, encoded block after block.
  std::vector<int16_t> pcm(48 * 1024 * 2);
  uint32_t seed = 1;
  for (size_t i = 0; i < pcm.size() / 2; ++i) {
    seed = seed * 1664525u + 1013904223u;
    double t = static_cast<double>(i) / 48000;
    double v = 6000 * std::sin(2 * M_PI * 440 * t) + 3000 * std::sin(2 * M_PI * 1870 * t) +
               static_cast<double>(static_cast<int32_t>(seed >> 16) - 32768) / 32;
    pcm[2 * i] = pcm[2 * i + 1] = static_cast<int16_t>(v);
  }
  aacenc_set_output(&rec, out.data());
  size_t block = 0;
  size_t bytes = 0;
  for (auto _ : state) {
    aacenc_set_input(&rec, reinterpret_cast<const unsigned char*>(&pcm[block * 2048]));
    aacenc_encode(&rec);
    if (rec.error_code != AACENC_OK) {
      state.SkipWithError("aacenc_encode failed");
      break;
    }
    bytes += rec.output_bits / 8;
    block = (block + 1) % 48;
  }
  state.counters["bytes_per_frame"] = benchmark::Counter(static_cast<double>(bytes) / state.iterations());
  aacenc_close(&rec);
}
BENCHMARK(BM_AacEncodeFrame48kStereo)->Unit(benchmark::kMillisecond);

}  // namespace

BENCHMARK_MAIN();

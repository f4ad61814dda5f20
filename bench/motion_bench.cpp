// The motion comparison over statistics planes: the vector count against the
// plain loop and against memcpy of the same bytes (the memory-bandwidth
// limit). Items are cells.
#include <benchmark/benchmark.h>

#include <cstring>
#include <random>
#include <vector>

#include "motiondetectionthread.h"

namespace {

struct planes_t {
  uint32_t width;
  uint32_t height;
  uint32_t pitch;
  std::vector<uint8_t> a;
  std::vector<uint8_t> b;
  std::vector<uint8_t> copy;
};

planes_t MakePlanes(uint32_t width, uint32_t height) {
  planes_t p;
  p.width = width;
  p.height = height;
  p.pitch = (width + 31) & ~31u;
  p.a.resize((size_t)p.pitch * height);
  p.b.resize(p.a.size());
  p.copy.resize(p.a.size() * 2);
  std::mt19937 random(1);
  for (size_t i = 0; i < p.a.size(); i++) {
    p.a[i] = (uint8_t)random();
    p.b[i] = (uint8_t)(p.a[i] + (random() % 4 == 0 ? 9 : 1));
  }
  return p;
}

void Finish(benchmark::State& state, const planes_t& p) {
  state.SetItemsProcessed((int64_t)state.iterations() * p.width * p.height);
  state.SetBytesProcessed((int64_t)state.iterations() * p.a.size() * 2);
}

void BM_MotionVector(benchmark::State& state) {
  planes_t p = MakePlanes((uint32_t)state.range(0), (uint32_t)state.range(1));
  for (auto _ : state)
    benchmark::DoNotOptimize(vesk::encoder::internal::CountChangedCells(p.a.data(), p.b.data(), p.width,
                                                                         p.height, p.pitch));
  Finish(state, p);
}

void BM_MotionPlain(benchmark::State& state) {
  planes_t p = MakePlanes((uint32_t)state.range(0), (uint32_t)state.range(1));
  for (auto _ : state)
    benchmark::DoNotOptimize(vesk::encoder::internal::CountChangedCellsPlain(p.a.data(), p.b.data(), p.width,
                                                                              p.height, p.pitch));
  Finish(state, p);
}

// Copies both planes: the bytes the comparison reads.
void BM_MotionMemcpy(benchmark::State& state) {
  planes_t p = MakePlanes((uint32_t)state.range(0), (uint32_t)state.range(1));
  for (auto _ : state) {
    memcpy(p.copy.data(), p.a.data(), p.a.size());
    memcpy(p.copy.data() + p.a.size(), p.b.data(), p.b.size());
    benchmark::ClobberMemory();
  }
  Finish(state, p);
}

// 1920x1080 in cells of 4x4 (1/16 of the pixels), then larger planes.
#define MOTION_SIZES Args({480, 270})->Args({960, 540})->Args({1920, 1080})->Args({3840, 2160})
BENCHMARK(BM_MotionVector)->MOTION_SIZES;
BENCHMARK(BM_MotionPlain)->MOTION_SIZES;
BENCHMARK(BM_MotionMemcpy)->MOTION_SIZES;

}  // namespace

BENCHMARK_MAIN();

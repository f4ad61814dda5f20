// Built for the camera's CPU (32-bit ARM with NEON) and run under user-mode
// emulation: the NEON cell count must match the scalar loop on planes of
// every shape the statistics buffer can have, including rows long enough to
// fold the byte counters and rows that end inside a vector.
#include <cstdio>
#include <cstdlib>
#include <vector>

#include "motioncells.h"

#if !defined(__ARM_NEON) && !defined(__ARM_NEON__)
#error "this check is built with NEON enabled"
#endif

using vesk::encoder::internal::CountChangedCells;
using vesk::encoder::internal::CountChangedCellsPlain;

int main() {
  const unsigned widths[] = {1, 15, 16, 17, 31, 32, 33, 240, 255, 480, 4080, 4096, 4111, 4800};
  uint32_t seed = 2024;
  auto next = [&seed] { return (seed = seed * 1103515245u + 12345u) >> 16; };
  int failures = 0, planes = 0;
  for (unsigned width : widths) {
    for (unsigned pad : {0u, 3u}) {
      const unsigned height = 7, pitch = width + pad;
      std::vector<uint8_t> a(pitch * height), b(pitch * height);
      // Differences around the threshold and at the ends of the byte range.
      for (size_t i = 0; i < a.size(); i++) {
        a[i] = (uint8_t)next();
        int delta = (int)(next() % 13) - 6;
        if (next() % 8 == 0) delta = (next() & 1) ? 255 : -255;
        int v = (int)a[i] + delta;
        b[i] = (uint8_t)(v < 0 ? 0 : (v > 255 ? 255 : v));
      }
      // Cells in the padding never count: make them all differ.
      for (unsigned y = 0; y < height; y++)
        for (unsigned x = width; x < pitch; x++) b[y * pitch + x] = (uint8_t)(a[y * pitch + x] ^ 0x80);
      uint32_t vector = CountChangedCells(a.data(), b.data(), width, height, pitch);
      uint32_t plain = CountChangedCellsPlain(a.data(), b.data(), width, height, pitch);
      planes++;
      if (vector != plain) {
        printf("width %u pitch %u: NEON counts %u, scalar %u\n", width, pitch, vector, plain);
        failures++;
      }
    }
  }
  // Every cell changed on a long row: the counters fold at the right time.
  std::vector<uint8_t> zero(8192, 0), full(8192, 200);
  uint32_t all = CountChangedCells(zero.data(), full.data(), 8192, 1, 8192);
  if (all != 8192) {
    printf("all 8192 cells changed: NEON counts %u\n", all);
    failures++;
  }
  printf("%d planes, %d mismatches\n", planes + 1, failures);
  return failures == 0 ? 0 : 1;
}

// Counting the cells that changed between two motion statistics planes: a
// vector path (SSE2 on the PC, NEON on the camera) and the scalar reference.
// No dependency beyond the C++ library, so that it builds for the camera's
// CPU on its own.
#include "motioncells.h"

#if defined(__SSE2__)
#include <emmintrin.h>
#elif defined(__ARM_NEON) || defined(__ARM_NEON__)
#include <arm_neon.h>
#endif

#include <cstddef>

namespace vesk {
namespace encoder {
namespace internal {

// The reference loop stays scalar so that it measures what the vector path saves.
#if defined(__GNUC__) && !defined(__clang__)
__attribute__((optimize("no-tree-vectorize")))
#endif
uint32_t CountChangedCellsPlain(const uint8_t* previous, const uint8_t* current, uint32_t width,
                                uint32_t height, uint32_t pitch) {
  uint32_t count = 0;
  for (uint32_t y = 0; y < height; y++) {
    const uint8_t* a = previous + (size_t)y * pitch;
    const uint8_t* b = current + (size_t)y * pitch;
    for (uint32_t x = 0; x < width; x++) {
      int d = (int)a[x] - (int)b[x];
      if (d >= kMotionCellThreshold || d <= -kMotionCellThreshold) count++;
    }
  }
  return count;
}

#if defined(__SSE2__)
// 0xFF in each lane whose cells differ by less than the threshold.
static inline __m128i SmallDifference(const uint8_t* a, const uint8_t* b, __m128i below, __m128i zero) {
  __m128i va = _mm_loadu_si128(reinterpret_cast<const __m128i*>(a));
  __m128i vb = _mm_loadu_si128(reinterpret_cast<const __m128i*>(b));
  __m128i diff = _mm_or_si128(_mm_subs_epu8(va, vb), _mm_subs_epu8(vb, va));
  return _mm_cmpeq_epi8(_mm_subs_epu8(diff, below), zero);
}

// Per row: 16 cells a step (two steps per turn); a byte counter per lane,
// folded before it can overflow.
static uint32_t CountRowVector(const uint8_t* a, const uint8_t* b, uint32_t width) {
  const __m128i below = _mm_set1_epi8((char)(kMotionCellThreshold - 1));
  const __m128i zero = _mm_setzero_si128();
  uint32_t unchanged = 0;
  uint32_t x = 0;
  while (x + 16 <= width) {
    __m128i lanes0 = zero;
    __m128i lanes1 = zero;
    uint32_t steps = 0;
    for (; x + 32 <= width && steps < 255; x += 32, steps++) {
      lanes0 = _mm_sub_epi8(lanes0, SmallDifference(a + x, b + x, below, zero));
      lanes1 = _mm_sub_epi8(lanes1, SmallDifference(a + x + 16, b + x + 16, below, zero));
    }
    if (x + 16 <= width && steps < 255) {
      lanes0 = _mm_sub_epi8(lanes0, SmallDifference(a + x, b + x, below, zero));
      x += 16;
    }
    __m128i sums = _mm_add_epi64(_mm_sad_epu8(lanes0, zero), _mm_sad_epu8(lanes1, zero));
    unchanged += (uint32_t)_mm_cvtsi128_si32(sums) + (uint32_t)_mm_cvtsi128_si32(_mm_srli_si128(sums, 8));
  }
  uint32_t changed = x - unchanged;
  for (; x < width; x++) {
    int d = (int)a[x] - (int)b[x];
    if (d >= kMotionCellThreshold || d <= -kMotionCellThreshold) changed++;
  }
  return changed;
}
#elif defined(__ARM_NEON) || defined(__ARM_NEON__)
static uint32_t CountRowVector(const uint8_t* a, const uint8_t* b, uint32_t width) {
  const uint8x16_t threshold = vdupq_n_u8(kMotionCellThreshold);
  uint32_t changed = 0;
  uint32_t x = 0;
  while (x + 16 <= width) {
    uint8x16_t lanes = vdupq_n_u8(0);
    uint32_t steps = 0;
    for (; x + 16 <= width && steps < 255; x += 16, steps++) {
      uint8x16_t diff = vabdq_u8(vld1q_u8(a + x), vld1q_u8(b + x));
      lanes = vsubq_u8(lanes, vcgeq_u8(diff, threshold));
    }
    uint16x8_t s16 = vpaddlq_u8(lanes);
    uint32x4_t s32 = vpaddlq_u16(s16);
    uint64x2_t s64 = vpaddlq_u32(s32);
    changed += (uint32_t)(vgetq_lane_u64(s64, 0) + vgetq_lane_u64(s64, 1));
  }
  for (; x < width; x++) {
    int d = (int)a[x] - (int)b[x];
    if (d >= kMotionCellThreshold || d <= -kMotionCellThreshold) changed++;
  }
  return changed;
}
#endif

uint32_t CountChangedCells(const uint8_t* previous, const uint8_t* current, uint32_t width,
                           uint32_t height, uint32_t pitch) {
#if defined(__SSE2__) || defined(__ARM_NEON) || defined(__ARM_NEON__)
  uint32_t count = 0;
  for (uint32_t y = 0; y < height; y++)
    count += CountRowVector(previous + (size_t)y * pitch, current + (size_t)y * pitch, width);
  return count;
#else
  return CountChangedCellsPlain(previous, current, width, height, pitch);
#endif
}

uint8_t MotionLevel(uint32_t count, uint32_t cells) {
  if (count >= cells / 4) return 128;
  if (count >= cells / 16) return 102;
  if (count >= cells / 64) return 76;
  if (count >= cells / 256) return 51;
  if (count >= cells / 1024) return 25;
  return 0;
}

}  // namespace internal
}  // namespace encoder
}  // namespace vesk

#include "scene.h"

#include <string.h>

namespace vesk::virtualcam {
namespace {

uint8_t BackgroundLuma(double u, double v) {
  int checker = ((static_cast<int>(u * 16) + static_cast<int>(v * 9)) & 1) * 24;
  return static_cast<uint8_t>(48 + static_cast<int>(u * 96) + static_cast<int>(v * 48) + checker);
}

uint8_t BackgroundChroma(double w) { return static_cast<uint8_t>(128 + static_cast<int>((w - 0.5) * 64)); }

// Triangle wave 0..1..0 over `period` seconds.
double Triangle(double t, double period) {
  double phase = t / period;
  phase -= static_cast<double>(static_cast<int64_t>(phase));
  return phase < 0.5 ? phase * 2 : 2 - phase * 2;
}

// The box: a quarter of the picture each way, left/right every 4 s and
// up/down every 6 s; it stands still in the still scene.
void BoxPosition(const SceneTime& when, double* u, double* v) {
  double t = when.scene == VCAM_SCENE_STILL ? 0.0 : when.seconds;
  *u = Triangle(t, 4.0) * 0.75;
  *v = Triangle(t, 6.0) * 0.75;
}

// Cheap hash noise in [-32, 31].
int Noise(uint64_t frame, uint32_t x, uint32_t y) {
  uint32_t h = static_cast<uint32_t>(frame * 0x9E3779B1u) ^ (x * 0x85EBCA77u) ^ (y * 0xC2B2AE3Du);
  h ^= h >> 15;
  h *= 0x2C1B3C6Du;
  h ^= h >> 12;
  return static_cast<int>(h & 63) - 32;
}

uint8_t Clamp(int value) { return static_cast<uint8_t>(value < 0 ? 0 : (value > 255 ? 255 : value)); }

}  // namespace

void SceneRenderer::Prepare(int width, int height) {
  width_ = width;
  height_ = height;
  luma_.resize(static_cast<size_t>(width) * height);
  chromaU_.resize(static_cast<size_t>(width / 2) * (height / 2));
  chromaV_.resize(chromaU_.size());
  for (int y = 0; y < height; ++y)
    for (int x = 0; x < width; ++x)
      luma_[static_cast<size_t>(y) * width + x] =
          BackgroundLuma(static_cast<double>(x) / width, static_cast<double>(y) / height);
  for (int y = 0; y < height / 2; ++y)
    for (int x = 0; x < width / 2; ++x) {
      size_t at = static_cast<size_t>(y) * (width / 2) + x;
      chromaU_[at] = BackgroundChroma(static_cast<double>(x) / (width / 2));
      chromaV_[at] = BackgroundChroma(static_cast<double>(y) / (height / 2));
    }
}

void SceneRenderer::Render(const SceneTime& when, const PlanarPicture& out) const {
  const int w = width_;
  const int h = height_;
  for (int y = 0; y < h; ++y) memcpy(out.plane[0] + y * out.stride[0], &luma_[static_cast<size_t>(y) * w], w);
  for (int y = 0; y < h / 2; ++y) {
    memcpy(out.plane[1] + y * out.stride[1], &chromaU_[static_cast<size_t>(y) * (w / 2)], w / 2);
    memcpy(out.plane[2] + y * out.stride[2], &chromaV_[static_cast<size_t>(y) * (w / 2)], w / 2);
  }
  double bu = 0;
  double bv = 0;
  BoxPosition(when, &bu, &bv);
  int bx = static_cast<int>(bu * w) & ~1;
  int by = static_cast<int>(bv * h) & ~1;
  int bw = (w / 4) & ~1;
  int bh = (h / 4) & ~1;
  for (int y = by; y < by + bh && y < h; ++y) memset(out.plane[0] + y * out.stride[0] + bx, 235, bw);
  for (int y = by / 2; y < (by + bh) / 2 && y < h / 2; ++y) {
    memset(out.plane[1] + y * out.stride[1] + bx / 2, 90, bw / 2);
    memset(out.plane[2] + y * out.stride[2] + bx / 2, 200, bw / 2);
  }
  if (when.scene != VCAM_SCENE_BUSY) return;
  for (int y = 0; y < h; ++y) {
    uint8_t* row = out.plane[0] + y * out.stride[0];
    for (int x = 0; x < w; ++x)
      row[x] = Clamp(row[x] + Noise(when.frameIndex, static_cast<uint32_t>(x), static_cast<uint32_t>(y)));
  }
}

void RenderStatistics(const SceneTime& when, uint8_t* plane, uint32_t width, uint32_t height,
                      uint32_t pitch) {
  double bu = 0;
  double bv = 0;
  BoxPosition(when, &bu, &bv);
  for (uint32_t y = 0; y < height; ++y) {
    double v = (y + 0.5) / height;
    uint8_t* row = plane + static_cast<size_t>(y) * pitch;
    for (uint32_t x = 0; x < width; ++x) {
      double u = (x + 0.5) / width;
      int value = BackgroundLuma(u, v);
      if (u >= bu && u < bu + 0.25 && v >= bv && v < bv + 0.25) value = 235;
      if (when.scene == VCAM_SCENE_BUSY) value += Noise(when.frameIndex, x, y);
      row[x] = Clamp(value);
    }
  }
}

}  // namespace vesk::virtualcam

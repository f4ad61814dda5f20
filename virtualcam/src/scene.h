// The test scene the virtual sensor films: a textured background, a box that
// crosses it (moving, busy) and noise over everything (busy). Rendered at any
// size, so every stream and the motion statistics show the same scene.
#ifndef VESK_VIRTUALCAM_SCENE_H
#define VESK_VIRTUALCAM_SCENE_H

#include <stdint.h>

#include <vector>

#include "vesk/virtualcam/virtualcam.h"

namespace vesk::virtualcam {

// Where the scene is at one instant.
struct SceneTime {
  vcam_scene_t scene = VCAM_SCENE_MOVING;
  double seconds = 0;       // VIN frame time
  uint64_t frameIndex = 0;  // VIN frame counter (seeds the noise)
};

// One I420 picture to draw into (memory owned by the caller).
struct PlanarPicture {
  uint8_t* plane[3] = {nullptr, nullptr, nullptr};
  int stride[3] = {0, 0, 0};
  int width = 0;
  int height = 0;
};

class SceneRenderer {
 public:
  // Precomputes the background for this size (allocates; not per picture).
  void Prepare(int width, int height);
  void Render(const SceneTime& when, const PlanarPicture& out) const;

 private:
  int width_ = 0;
  int height_ = 0;
  std::vector<uint8_t> luma_;
  std::vector<uint8_t> chromaU_;
  std::vector<uint8_t> chromaV_;
};

// One motion statistics plane of width x height cells (pitch bytes per row):
// the scene's brightness sampled at each cell.
void RenderStatistics(const SceneTime& when, uint8_t* plane, uint32_t width, uint32_t height,
                      uint32_t pitch);

}  // namespace vesk::virtualcam

#endif

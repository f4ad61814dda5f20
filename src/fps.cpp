#include "fps.h"

namespace vesk {
namespace encoder {
namespace internal {

fps_matrix_t::fps_matrix_t() {
  for (uint32_t f = 1; f <= kMaxFps; f++) {
    if (kVideoClock % f != 0) continue;
    fps_t* truncated = new fps_t{f, kFpsClock / f, kFpsClock, false};
    all_.push_back(truncated);
    byPeriod_[truncated->period] = truncated;
    byRate_[f][false] = truncated;
    byRate_[f][true] = truncated;
    if (kFpsClock % f == 0) continue;
    fps_t* rounded = new fps_t{f, (kFpsClock + f / 2) / f, kFpsClock, true};
    all_.push_back(rounded);
    byPeriod_[rounded->period] = rounded;
    byRate_[f][true] = rounded;
  }
}

fps_matrix_t::~fps_matrix_t() {
  for (fps_t* entry : all_) delete entry;
}

const fps_t* fps_matrix_t::ByPeriod(uint32_t period) const {
  auto it = byPeriod_.find(period);
  return it == byPeriod_.end() ? nullptr : it->second;
}

const fps_t* fps_matrix_t::ByRate(uint32_t rate, bool rounded) const {
  auto it = byRate_.find(rate);
  if (it == byRate_.end()) return nullptr;
  auto inner = it->second.find(rounded);
  return inner == it->second.end() ? nullptr : inner->second;
}

}  // namespace internal
}  // namespace encoder
}  // namespace vesk

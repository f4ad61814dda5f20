// Frame rates the video DSP can express exactly: every rate divides the
// 90 kHz video clock and is at most 500; its period counts the VIN clock.
#pragma once

#include <cstddef>
#include <cstdint>
#include <map>
#include <vector>

namespace vesk {
namespace encoder {
namespace internal {

constexpr uint32_t kFpsClock = 512000000;  // VIN clock: period = clock / rate
constexpr uint32_t kVideoClock = 90000;    // 90 kHz video time base
constexpr uint32_t kMaxFps = 500;

struct fps_t {
  uint32_t rate;    // frames per second
  uint32_t period;  // kFpsClock / rate
  uint32_t clock;   // always kFpsClock
  bool rounded;     // period rounded to nearest rather than truncated
};

// Every valid rate, indexed by period and by (rate, rounded). Built once.
class fps_matrix_t {
 public:
  fps_matrix_t();
  virtual ~fps_matrix_t();
  fps_matrix_t(const fps_matrix_t&) = delete;
  fps_matrix_t& operator=(const fps_matrix_t&) = delete;

  // Null when no entry holds exactly this period.
  const fps_t* ByPeriod(uint32_t period) const;
  // Null when the rate does not divide 90000. rounded true gives the period
  // the VIN and the encoder are programmed with.
  const fps_t* ByRate(uint32_t rate, bool rounded) const;
  size_t Count() const { return all_.size(); }

 private:
  std::vector<fps_t*> all_;                                  // owning
  std::map<uint32_t, fps_t*> byPeriod_;                      // period -> entry
  std::map<uint32_t, std::map<bool, fps_t*>> byRate_;        // rate -> rounded -> entry
};

}  // namespace internal
}  // namespace encoder
}  // namespace vesk

// A moving average over a fixed window of samples.
#pragma once

#include <cstdint>
#include <vector>

namespace vesk {
namespace utils {

template <typename T>
class MovingAverage {
 public:
  explicit MovingAverage(uint32_t window)
      : window_(window ? window : 1), count_(0), sum_(0), ring_(window_, T()) {}
  virtual ~MovingAverage() {}

  // Adds value to the sum, minus the value it overwrites once the ring is full.
  void Push(T value) {
    uint32_t pos = (uint32_t)(count_ % window_);
    if (count_ >= window_) sum_ -= (uint64_t)ring_[pos];
    ring_[pos] = value;
    sum_ += (uint64_t)value;
    count_++;
  }
  // Sum over min(count, window), truncated to T; 0 before the first sample.
  T Average() const {
    uint64_t n = count_ < window_ ? count_ : window_;
    return n ? (T)(sum_ / n) : T();
  }
  uint64_t Count() const { return count_; }
  uint32_t Window() const { return window_; }

 private:
  uint32_t window_;
  uint64_t count_;
  uint64_t sum_;
  std::vector<T> ring_;
};

}  // namespace utils
}  // namespace vesk

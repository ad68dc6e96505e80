// A clock that advances when it is waited on, and remembers the waits.
#pragma once

#include <cmath>
#include <cstdint>
#include <mutex>
#include <vector>

#include "sync/base/threads/clock.hpp"
#include "sync/base/threads/interrupt.hpp"

namespace brackenfen::sync {

class FakeClock final : public Clock {
 public:
  std::int64_t monotonic_ns() override {
    const std::lock_guard lock(mutex_);
    return now_ns_;
  }
  double wall_seconds() override { return 1'700'000'000.5 + monotonic_seconds(); }
  void sleep(double seconds) override {
    check_interrupt();
    advance(seconds);
    const std::lock_guard lock(mutex_);
    waits_.push_back(seconds);
  }

  void advance(double seconds) {
    const std::lock_guard lock(mutex_);
    now_ns_ += std::llround(seconds * 1e9);
  }
  [[nodiscard]] std::vector<double> waits() const {
    const std::lock_guard lock(mutex_);
    return waits_;
  }

 private:
  mutable std::mutex mutex_;
  std::int64_t now_ns_ = 0;
  std::vector<double> waits_;
};

}  // namespace brackenfen::sync

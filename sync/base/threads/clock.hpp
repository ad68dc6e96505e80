// Time, as a seam: tests put a clock here that advances when it is waited on.
#pragma once

#include <cstdint>

namespace brackenfen::sync {

class Clock {
 public:
  virtual ~Clock() = default;
  /// Nanoseconds of a clock that never goes back.
  [[nodiscard]] virtual std::int64_t monotonic_ns() = 0;
  /// Seconds since the epoch.
  [[nodiscard]] virtual double wall_seconds() = 0;
  /// Sleeps in slices of at most INTERRUPT_SLICE and throws Interrupted between two of them.
  virtual void sleep(double seconds) = 0;

  [[nodiscard]] double monotonic_seconds() { return static_cast<double>(monotonic_ns()) * 1e-9; }

  static Clock& real();
};

}  // namespace brackenfen::sync

#include "sync/base/threads/clock.hpp"

#include <algorithm>
#include <chrono>
#include <thread>

#include "sync/base/threads/interrupt.hpp"

namespace brackenfen::sync {
namespace {

class SystemClock : public Clock {
 public:
  std::int64_t monotonic_ns() override {
    return std::chrono::duration_cast<std::chrono::nanoseconds>(std::chrono::steady_clock::now().time_since_epoch()).count();
  }

  double wall_seconds() override { return std::chrono::duration<double>(std::chrono::system_clock::now().time_since_epoch()).count(); }

  void sleep(double seconds) override {
    constexpr double SLICE_SECONDS = std::chrono::duration<double>(INTERRUPT_SLICE).count();
    const double end = monotonic_seconds() + seconds;
    for (;;) {
      check_interrupt();
      const double remaining = end - monotonic_seconds();
      if (!(remaining > 0.0)) return;
      std::this_thread::sleep_for(std::chrono::duration<double>(std::min(remaining, SLICE_SECONDS)));
    }
  }
};

}  // namespace

Clock& Clock::real() {
  static Clock& clock = *new SystemClock;
  return clock;
}

}  // namespace brackenfen::sync

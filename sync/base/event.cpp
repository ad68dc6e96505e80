#include "sync/base/event.hpp"

#include <algorithm>
#include <chrono>

#include "sync/base/interrupt.hpp"

namespace brackenfen::sync {

void Event::set() {
  const std::lock_guard lock(mutex_);
  set_ = true;
  changed_.notify_all();
}

void Event::clear() {
  const std::lock_guard lock(mutex_);
  set_ = false;
}

bool Event::is_set() const {
  const std::lock_guard lock(mutex_);
  return set_;
}

bool Event::wait(Clock& clock, double timeout_seconds) {
  const double end = clock.monotonic_seconds() + timeout_seconds;
  for (;;) {
    const std::chrono::duration<double> left(end - clock.monotonic_seconds());
    {
      std::unique_lock lock(mutex_);
      if (set_ || !(left.count() > 0.0)) return set_;
      if (changed_.wait_for(lock, std::min<std::chrono::duration<double>>(left, INTERRUPT_SLICE), [this] { return set_; })) return true;
    }
    check_interrupt();
  }
}

}  // namespace brackenfen::sync

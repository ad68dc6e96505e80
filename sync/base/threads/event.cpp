#include "sync/base/threads/event.hpp"

#include <algorithm>
#include <chrono>

#include "sync/base/threads/interrupt.hpp"

namespace brackenfen::sync {

void Event::set() {
  const std::lock_guard lock(mutex_);
  set_.store(true, std::memory_order_release);
  changed_.notify_all();
}

void Event::clear() {
  const std::lock_guard lock(mutex_);
  set_.store(false, std::memory_order_release);
}

bool Event::wait(Clock& clock, double timeout_seconds) {
  const double end = clock.monotonic_seconds() + timeout_seconds;
  for (;;) {
    const double left_seconds = end - clock.monotonic_seconds();
    if (!(left_seconds > 0.0)) {
      check_interrupt();  // the caller may do nothing but wait for no time, again and again
      return is_set();
    }
    if (wait_slice(left_seconds)) return true;
  }
}

bool Event::wait_slice(double longest_seconds) {
  {
    const auto slice = std::min<std::chrono::duration<double>>(std::chrono::duration<double>(longest_seconds), INTERRUPT_SLICE);
    std::unique_lock lock(mutex_);
    if (changed_.wait_for(lock, slice, [this] { return is_set(); })) return true;
  }
  check_interrupt();
  return false;
}

}  // namespace brackenfen::sync

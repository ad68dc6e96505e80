#include "sync/base/mutex.hpp"

#include "sync/base/interrupt.hpp"

namespace brackenfen::sync {

// The bodies are exempt from the annotations: what they hold is the flag, under a lock of the standard library.

void WorkMutex::lock() NO_THREAD_SAFETY_ANALYSIS {
  std::unique_lock guard(mutex_);
  while (held_) {
    if (freed_.wait_for(guard, INTERRUPT_SLICE, [this] { return !held_; })) break;
    guard.unlock();  // the check may wait for the host
    check_interrupt();
    guard.lock();
  }
  held_ = true;
}

bool WorkMutex::try_lock() NO_THREAD_SAFETY_ANALYSIS {
  const std::lock_guard guard(mutex_);
  if (held_) return false;
  held_ = true;
  return true;
}

void WorkMutex::unlock() NO_THREAD_SAFETY_ANALYSIS {
  const std::lock_guard guard(mutex_);
  held_ = false;
  // Still under the lock: the next holder may destroy this mutex as soon as it is free.
  freed_.notify_one();
}

}  // namespace brackenfen::sync

#include "sync/base/threads/mutex.hpp"

#include "sync/base/threads/interrupt.hpp"

namespace brackenfen::sync {

// The bodies are exempt from the annotations: what they hold is the identity of the work, under a lock of the
// standard library.

void WorkMutex::lock(Patience patience) NO_THREAD_SAFETY_ANALYSIS { wait_and_take(patience); }

void WorkMutex::pass_through(const std::function<bool()>& give_up) NO_THREAD_SAFETY_ANALYSIS {
  if (wait_and_take(Patience::Long, give_up)) unlock();
}

bool WorkMutex::wait_and_take(Patience patience, const std::function<bool()>& give_up) {
  std::unique_lock guard(mutex_);
  for (int slice = 0; work_ != 0; ++slice) {
    const WorkWait wait(work_, patience, slice);
    if (freed_.wait_for(guard, INTERRUPT_SLICE, [this] { return work_ == 0; })) break;
    guard.unlock();  // the check may wait for the host
    check_interrupt();
    if (give_up && give_up()) return false;
    guard.lock();
  }
  take();
  return true;
}

bool WorkMutex::try_lock() NO_THREAD_SAFETY_ANALYSIS {
  const std::lock_guard guard(mutex_);
  if (work_ != 0) return false;
  take();
  return true;
}

void WorkMutex::unlock() NO_THREAD_SAFETY_ANALYSIS {
  const std::lock_guard guard(mutex_);
  ThreadWork::current().end(work_);
  work_ = 0;
  // Still under the lock: the next holder may destroy this mutex as soon as it is free.
  freed_.notify_one();
}

bool WorkMutex::held_by_this_work() {
  const std::lock_guard guard(mutex_);
  return ThreadWork::current().is_part_of(work_);
}

void WorkMutex::take() noexcept { work_ = ThreadWork::current().begin(); }

}  // namespace brackenfen::sync

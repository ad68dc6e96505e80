// A flag that threads wait for.
#pragma once

#include <atomic>
#include <condition_variable>
#include <mutex>

#include "sync/base/threads/clock.hpp"

namespace brackenfen::sync {

/// Any thread. What it guards is its own flag; a leaf.
class Event {
 public:
  void set();
  void clear();
  /// Takes no lock: asked in forked children too.
  [[nodiscard]] bool is_set() const noexcept { return set_.load(std::memory_order_acquire); }
  /// Waits until it is set, or until `timeout_seconds` of `clock` have passed; whether it is set. Throws Interrupted.
  bool wait(Clock& clock, double timeout_seconds);
  /// One slice of such a wait, for a caller that has something of its own to look at in between.
  bool wait_slice(double longest_seconds);

 private:
  std::mutex mutex_;  // that nobody begins to wait between the change of the flag and its notice
  std::condition_variable changed_;
  std::atomic<bool> set_{false};
};

}  // namespace brackenfen::sync

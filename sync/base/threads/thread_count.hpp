// How many threads of one kind run.
#pragma once

#include <chrono>
#include <condition_variable>
#include <cstdint>
#include <mutex>

namespace brackenfen::sync {

/// Whoever starts a thread counts it in, and the thread itself counts itself out. Any thread.
class ThreadCount {
 public:
  void rise() {
    const std::lock_guard<std::mutex> lock(mutex_);
    ++running_;
  }
  void fall() {
    const std::lock_guard<std::mutex> lock(mutex_);
    --running_;
    fell_.notify_all();
  }
  [[nodiscard]] bool is_zero() const {
    const std::lock_guard<std::mutex> lock(mutex_);
    return running_ == 0;
  }
  /// Waits until none runs, for no longer than `timeout`; whether none does.
  [[nodiscard]] bool wait_for_zero(std::chrono::milliseconds timeout) {
    std::unique_lock<std::mutex> lock(mutex_);
    return fell_.wait_for(lock, timeout, [&] { return running_ == 0; });
  }

 private:
  mutable std::mutex mutex_;  // a leaf
  std::condition_variable fell_;
  std::int64_t running_ = 0;
};

}  // namespace brackenfen::sync

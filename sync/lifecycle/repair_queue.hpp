// Files that a host reported as corrupt, until a repair takes them.
#pragma once

#include <algorithm>
#include <deque>
#include <iterator>
#include <string>
#include <utility>
#include <vector>

#include "sync/base/threads/mutex.hpp"

namespace brackenfen::sync {

/// Relative paths in the order of their reports, duplicates kept. Any thread.
class RepairQueue {
 public:
  void append(std::string file_path) {
    const MutexLock lock(_repair_lock);
    _repair_queue.push_back(std::move(file_path));
  }
  /// Takes the last such path out again, unless a repair has it already.
  void withdraw(const std::string& file_path) {
    const MutexLock lock(_repair_lock);
    const auto last = std::find(_repair_queue.rbegin(), _repair_queue.rend(), file_path);
    if (last != _repair_queue.rend()) _repair_queue.erase(std::next(last).base());
  }
  /// What is queued; nothing is afterwards. A repair that fails does not put its paths back.
  [[nodiscard]] std::vector<std::string> drain() {
    const MutexLock lock(_repair_lock);
    return std::exchange(_repair_queue, {});
  }

  [[nodiscard]] std::vector<std::string> get() const {
    const MutexLock lock(_repair_lock);
    return _repair_queue;
  }
  void set(std::vector<std::string> file_paths) {
    const MutexLock lock(_repair_lock);
    _repair_queue = std::move(file_paths);
  }

 private:
  mutable Mutex _repair_lock;
  std::vector<std::string> _repair_queue GUARDED_BY(_repair_lock);
};

/// What repair threads have taken from the queue. They would all wait for one lock, so the thread that came first repairs
/// for the others, one batch after the other, and these end. Any thread.
class RepairTurns {
 public:
  /// Whether the caller is to repair what next() gives, until that is nothing.
  [[nodiscard]] bool add(std::vector<std::string> reported) {
    const MutexLock lock(mutex_);
    batches_.push_back(std::move(reported));
    return !std::exchange(taken_, true);
  }
  /// In the order in which they were added.
  [[nodiscard]] std::vector<std::string> next() {
    const MutexLock lock(mutex_);
    taken_ = !batches_.empty();
    if (!taken_) return {};
    std::vector<std::string> batch = std::move(batches_.front());
    batches_.pop_front();
    return batch;
  }

 private:
  Mutex mutex_;
  std::deque<std::vector<std::string>> batches_ GUARDED_BY(mutex_);
  bool taken_ GUARDED_BY(mutex_) = false;
};

}  // namespace brackenfen::sync

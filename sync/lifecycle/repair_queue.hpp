// Files that a host reported as corrupt, until a repair takes them.
#pragma once

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

}  // namespace brackenfen::sync

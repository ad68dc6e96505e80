// Changes of one directory's rotation state, one after the other.
#pragma once

#include <cstdint>
#include <vector>

#include "sync/base/threads/mutex.hpp"
#include "sync/base/values/value.hpp"

namespace brackenfen::sync {

/// A change is made of what is there when it begins. To make it takes a file and modules of the host, which may call back
/// for a change of their own, so nothing is locked meanwhile: a change takes effect only where no other came between, and
/// is made anew where one did. Any thread; between processes the callers hold the directory lock.
class StateChanges {
 public:
  [[nodiscard]] std::uint64_t count() const EXCLUDES(mutex_) {
    MutexLock lock(mutex_);
    return count_;
  }

  /// Calls `write`, unless there were other changes than the `count` that the caller began with; false then. `write` is
  /// short, and calls nothing of the host. `added` are paths that the change adds to whatever is active.
  template <typename Write>
  [[nodiscard]] bool commit(std::uint64_t count, const std::vector<Text>& added, Write&& write) EXCLUDES(mutex_) {
    MutexLock lock(mutex_);
    if (count != count_) return false;
    write();
    ++count_;
    if (plans_ > 0) added_.insert(added_.end(), added.begin(), added.end());
    return true;
  }

  /// The life of a plan, from before the active state is read until after the promotion: what is added meanwhile the plan
  /// does not know, and must not drop.
  class PlanScope {
   public:
    explicit PlanScope(StateChanges& changes) : changes_(changes) { changes_.count_plan(1); }
    PlanScope(const PlanScope&) = delete;
    PlanScope& operator=(const PlanScope&) = delete;
    ~PlanScope() { changes_.count_plan(-1); }

   private:
    StateChanges& changes_;
  };
  /// The paths that were added since the running plan began, in their order; none where no plan is made.
  [[nodiscard]] std::vector<Text> added() const EXCLUDES(mutex_) {
    MutexLock lock(mutex_);
    return added_;
  }

 private:
  void count_plan(int change) EXCLUDES(mutex_) {
    std::vector<Text> forgotten;
    MutexLock lock(mutex_);
    plans_ += change;
    if (plans_ == 0) forgotten.swap(added_);
  }

  mutable Mutex mutex_;
  std::uint64_t count_ GUARDED_BY(mutex_) = 0;
  int plans_ GUARDED_BY(mutex_) = 0;
  std::vector<Text> added_ GUARDED_BY(mutex_);
};

}  // namespace brackenfen::sync

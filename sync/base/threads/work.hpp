// Which work the running thread is part of, so that nothing waits for itself.
//
// Callbacks of the host run deep inside a pass, also on its download workers, and may call back into the library. What
// such a call would wait for can be the very work it is part of, or a lock whose holder waits for that work: neither
// would ever end. So a unit of work has an identity, threads know the ones they are part of and say what they wait for,
// and a wait that cannot end is refused.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>

#include "sync/base/error.hpp"

namespace brackenfen::sync {

/// One unit of work: the holding of a lock, the life of a background thread. Never used twice; 0 is none.
using WorkId = std::uint64_t;

/// Thrown in place of a wait that would never end.
class WouldWaitForItself : public StateError {
 public:
  WouldWaitForItself() : StateError("this call would wait for the work that it is part of") {}
};

/// Thrown in place of a unit of work that would begin inside another one and end its protection with its own.
class InsideOwnWork : public StateError {
 public:
  InsideOwnWork() : StateError("this call would begin a unit of work inside the work that it is part of") {}
};

/// What a thread is part of. Plain data, so that a thread in its last steps can still ask. The thread that owns an
/// operation hands a copy to its workers, which make it their own.
class ThreadWork {
 public:
  /// Of the running thread.
  static ThreadWork& current() noexcept;

  [[nodiscard]] WorkId begin() noexcept;
  void end(WorkId work) noexcept;
  [[nodiscard]] bool is_part_of(WorkId work) const noexcept;
  /// Whether it is part of anything: the running thread then is in a callback, or holds a lock.
  [[nodiscard]] bool is_part_of_any() const noexcept { return size_ != 0; }

 private:
  // Far deeper than calls nest. What lies beyond is not followed, and waits as it would have.
  static constexpr std::size_t CAPACITY = 16;
  std::array<WorkId, CAPACITY> works_{};
  std::size_t size_ = 0;
};

/// The running thread is part of a unit of work of its own for the life of this scope.
class WorkScope {
 public:
  WorkScope() noexcept : work_(ThreadWork::current().begin()) {}
  WorkScope(const WorkScope&) = delete;
  WorkScope& operator=(const WorkScope&) = delete;
  ~WorkScope() { ThreadWork::current().end(work_); }
  [[nodiscard]] WorkId id() const noexcept { return work_; }

 private:
  const WorkId work_;
};

/// Of the threads that wait for each other in a circle, one is refused. It is to be the callback that closed the circle
/// by asking for a lock of a manager; a stop, and a pass that waits for its turn at the directory, go on. So these look
/// at their own work at once and around the circle later.
enum class Patience { None, Long };

/// One slice of a wait: for the life of this scope the running thread waits for `work` to end. Slices count from 0.
/// Throws WouldWaitForItself. Takes a leaf lock, also under that of the lock that is waited for.
class WorkWait {
 public:
  WorkWait(WorkId work, Patience patience, int slice);
  WorkWait(const WorkWait&) = delete;
  WorkWait& operator=(const WorkWait&) = delete;
  ~WorkWait();
};

}  // namespace brackenfen::sync

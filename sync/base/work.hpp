// Which work the running thread is part of, so that nothing waits for itself.
//
// Callbacks of the host run deep inside a pass, also on its download workers, and may call back into the library. What
// such a call would wait for can be the very work it is part of, or a lock whose holder waits for that work: neither
// would ever end. So a unit of work has an identity, threads know the ones they are part of, and a wait that
// cannot end is refused.
#pragma once

#include <array>
#include <atomic>
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

/// What a thread is part of. Plain data, so that a thread in its last steps can still ask.
class ThreadWork {
 public:
  /// Of the running thread. Other threads may only read what it waits for.
  static ThreadWork& current() noexcept;

  [[nodiscard]] WorkId begin() noexcept;
  void end(WorkId work) noexcept;
  [[nodiscard]] bool is_part_of(WorkId work) const noexcept;

  /// What the thread waits for without a limit of time; 0 where it does not.
  std::atomic<WorkId> waits_for{0};

 private:
  friend class InheritedWork;
  // Far deeper than calls nest. What lies beyond is not followed, and waits as it would have.
  static constexpr std::size_t CAPACITY = 16;
  std::array<WorkId, CAPACITY> works_{};
  std::size_t size_ = 0;
};

/// Hands the works of the thread that owns an operation to a worker of it.
class InheritedWork {
 public:
  /// Those of the running thread, to be carried over.
  InheritedWork() noexcept;
  /// On the worker, for the rest of its life.
  void adopt() const noexcept;

 private:
  std::array<WorkId, ThreadWork::CAPACITY> works_;
  std::size_t size_;
};

/// One slice of a wait for `work`: for the life of this scope the running thread waits for it, or for what the holder of
/// it waits for in its turn. Throws WouldWaitForItself.
class WorkWait {
 public:
  /// Of the threads that wait for each other in a circle, those that stop a manager must go on waiting, and the callback
  /// that closed the circle is refused. So they look at their own work at once, and around the circle later.
  enum class Patience { None, Stopping };

  WorkWait(WorkId work, const ThreadWork* holder, Patience patience, int slice);
  WorkWait(const WorkWait&) = delete;
  WorkWait& operator=(const WorkWait&) = delete;
  ~WorkWait();
};

}  // namespace brackenfen::sync

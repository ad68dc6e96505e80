// Locks with clang's thread-safety annotations, which the clang build treats as errors.
#pragma once

#include <condition_variable>
#include <functional>
#include <mutex>

#include "sync/base/threads/fork.hpp"
#include "sync/base/threads/work.hpp"

#if defined(__clang__)
#define BRACKENFEN_THREAD_ANNOTATION(x) __attribute__((x))
#else
#define BRACKENFEN_THREAD_ANNOTATION(x)
#endif

#define CAPABILITY(name) BRACKENFEN_THREAD_ANNOTATION(capability(name))
#define SCOPED_CAPABILITY BRACKENFEN_THREAD_ANNOTATION(scoped_lockable)
#define GUARDED_BY(lock) BRACKENFEN_THREAD_ANNOTATION(guarded_by(lock))
#define REQUIRES(...) BRACKENFEN_THREAD_ANNOTATION(requires_capability(__VA_ARGS__))
#define EXCLUDES(...) BRACKENFEN_THREAD_ANNOTATION(locks_excluded(__VA_ARGS__))
#define ACQUIRE(...) BRACKENFEN_THREAD_ANNOTATION(acquire_capability(__VA_ARGS__))
#define TRY_ACQUIRE(...) BRACKENFEN_THREAD_ANNOTATION(try_acquire_capability(__VA_ARGS__))
#define RELEASE(...) BRACKENFEN_THREAD_ANNOTATION(release_capability(__VA_ARGS__))
#define ACQUIRED_AFTER(...) BRACKENFEN_THREAD_ANNOTATION(acquired_after(__VA_ARGS__))
#define NO_THREAD_SAFETY_ANALYSIS BRACKENFEN_THREAD_ANNOTATION(no_thread_safety_analysis)

namespace brackenfen::sync {

/// A leaf lock: held for a few instructions, nothing else is taken, logged or called under it. Forks wait for it.
class CAPABILITY("mutex") Mutex {
 public:
  void lock() ACQUIRE() { mutex_.lock(); }
  void unlock() RELEASE() { mutex_.unlock(); }

 private:
  ForkSafeMutex mutex_;
};

class SCOPED_CAPABILITY MutexLock {
 public:
  explicit MutexLock(Mutex& mutex) ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(); }
  ~MutexLock() RELEASE() { mutex_.unlock(); }
  MutexLock(const MutexLock&) = delete;
  MutexLock& operator=(const MutexLock&) = delete;

 private:
  Mutex& mutex_;
};

/// A lock that may be held for long (a pass, a construction). Waiting for it ends with Interrupted when
/// the user interrupts or the process exits, and is refused with WouldWaitForItself where the holder is the work that
/// the caller is part of, or waits for that work.
class CAPABILITY("mutex") WorkMutex {
 public:
  void lock(Patience patience = Patience::None) ACQUIRE();
  [[nodiscard]] bool try_lock() TRY_ACQUIRE(true);
  void unlock() RELEASE();
  /// Waits until it is free, for a stop, or until `give_up` says so, which is asked in each slice of the wait. Where
  /// threads wait for each other, another one of them is refused first.
  void pass_through(const std::function<bool()>& give_up = {}) EXCLUDES(this);
  /// Whether the running thread is part of the work that is done under this lock: its holder, or a worker of it.
  [[nodiscard]] bool held_by_this_work();

 private:
  /// False where `give_up` ended the wait.
  bool wait_and_take(Patience patience, const std::function<bool()>& give_up = {});
  void take() noexcept;

  std::mutex mutex_;  // guards what follows; a leaf
  std::condition_variable freed_;
  WorkId work_ = 0;  // 0 where it is free
};

class SCOPED_CAPABILITY WorkLock {
 public:
  explicit WorkLock(WorkMutex& mutex, Patience patience = Patience::None) ACQUIRE(mutex) : mutex_(mutex) { mutex_.lock(patience); }
  ~WorkLock() RELEASE() { mutex_.unlock(); }
  WorkLock(const WorkLock&) = delete;
  WorkLock& operator=(const WorkLock&) = delete;

 private:
  WorkMutex& mutex_;
};

}  // namespace brackenfen::sync

// Living through fork(): the child has one thread, and locks held by the others stay locked in it for ever.
#pragma once

#include <cstdint>
#include <mutex>

namespace brackenfen::sync {

/// Counts the forks between the process that first loaded the library and this one. An object that
/// remembers the generation it was made in can tell that it belongs to a parent process.
[[nodiscard]] std::uint64_t fork_generation() noexcept;

/// Runs `repair` in the child after every fork from now on, in the order of registration. It must only
/// re-create locks in place and forget what belongs to the parent: no allocation is safe to free there, and a ForkSafeMutex,
/// which needs no repair, cannot be made.
void at_fork_child(void (*repair)());

/// No fork happens while one of these lives: for changing what a repair walks over. A leaf lock; not to be held
/// while registering a repair.
class NoFork {
 public:
  NoFork();
  NoFork(const NoFork&) = delete;
  NoFork& operator=(const NoFork&) = delete;
  ~NoFork();
};

/// A leaf lock that a fork waits for: in the child it is free, and what it guards is whole. Not for use with a condition
/// variable, whose waiters the child would still count.
class ForkSafeMutex {
 public:
  ForkSafeMutex();
  ForkSafeMutex(const ForkSafeMutex&) = delete;
  ForkSafeMutex& operator=(const ForkSafeMutex&) = delete;
  ~ForkSafeMutex();

  void lock() { mutex_.lock(); }
  void unlock() { mutex_.unlock(); }

 private:
  friend class ForkSafeMutexes;
  std::mutex mutex_;
  ForkSafeMutex* previous_ = nullptr;
  ForkSafeMutex* next_ = nullptr;
};

}  // namespace brackenfen::sync

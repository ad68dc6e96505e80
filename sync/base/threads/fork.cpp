#include "sync/base/threads/fork.hpp"

#include <pthread.h>

#include <atomic>
#include <mutex>
#include <thread>
#include <vector>

namespace brackenfen::sync {

/// All that live, newest first.
class ForkSafeMutexes {
 public:
  void add(ForkSafeMutex& added) noexcept {
    added.next_ = newest_;
    if (newest_ != nullptr) newest_->previous_ = &added;
    newest_ = &added;
  }
  void remove(ForkSafeMutex& removed) noexcept {
    (removed.previous_ != nullptr ? removed.previous_->next_ : newest_) = removed.next_;
    if (removed.next_ != nullptr) removed.next_->previous_ = removed.previous_;
  }

  /// Takes them all, or none where one is held.
  [[nodiscard]] bool try_lock() noexcept {
    for (ForkSafeMutex* each = newest_; each != nullptr; each = each->next_) {
      if (each->mutex_.try_lock()) continue;
      unlock_before(each);
      return false;
    }
    return true;
  }
  void unlock() noexcept { unlock_before(nullptr); }

 private:
  void unlock_before(const ForkSafeMutex* end) noexcept {
    for (ForkSafeMutex* each = newest_; each != end; each = each->next_) each->mutex_.unlock();
  }

  ForkSafeMutex* newest_ = nullptr;
};

namespace {

/// Leaked. The parent holds `no_fork` across the fork, so the child finds everything under it whole.
struct Hooks {
  std::atomic<std::uint64_t> generation{0};
  std::mutex no_fork;
  std::vector<void (*)()> repairs;
  ForkSafeMutexes mutexes;
};

Hooks& hooks();

/// Waits for none of the mutexes while it holds others: their holders may be about to make or to destroy one.
void before_fork() {
  Hooks& process = hooks();
  for (process.no_fork.lock(); !process.mutexes.try_lock(); process.no_fork.lock()) {
    process.no_fork.unlock();
    std::this_thread::yield();
  }
}
void in_parent() {
  hooks().mutexes.unlock();
  hooks().no_fork.unlock();
}
void in_child() {
  Hooks& forked = hooks();
  forked.generation.fetch_add(1, std::memory_order_relaxed);
  forked.mutexes.unlock();
  for (void (*repair)() : forked.repairs) repair();
  forked.no_fork.unlock();
}

Hooks& hooks() {
  static Hooks& leaked = [&]() -> Hooks& {
    auto* made = new Hooks;
    pthread_atfork(before_fork, in_parent, in_child);
    return *made;
  }();
  return leaked;
}

}  // namespace

std::uint64_t fork_generation() noexcept { return hooks().generation.load(std::memory_order_relaxed); }

// Whoever waits here, or to make or destroy a ForkSafeMutex, may wait out a whole fork. So what does that inside the
// initialiser of a function's static variable is made when the library is loaded: the child would find the initialiser
// begun by a thread that it does not have, and wait for it for ever.
void at_fork_child(void (*repair)()) {
  Hooks& process = hooks();
  const std::lock_guard<std::mutex> lock(process.no_fork);
  process.repairs.push_back(repair);
}

NoFork::NoFork() { hooks().no_fork.lock(); }

NoFork::~NoFork() { hooks().no_fork.unlock(); }

ForkSafeMutex::ForkSafeMutex() {
  const NoFork changing;
  hooks().mutexes.add(*this);
}

ForkSafeMutex::~ForkSafeMutex() {
  const NoFork changing;
  hooks().mutexes.remove(*this);
}

}  // namespace brackenfen::sync

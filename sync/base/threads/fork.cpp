#include "sync/base/threads/fork.hpp"

#include <pthread.h>

#include <atomic>
#include <mutex>
#include <vector>

namespace brackenfen::sync {
namespace {

/// Leaked. The parent holds `no_fork` across the fork, so the child finds everything under it whole.
struct Hooks {
  std::atomic<std::uint64_t> generation{0};
  std::mutex no_fork;
  std::vector<void (*)()> repairs;
};

Hooks& hooks();

void before_fork() { hooks().no_fork.lock(); }
void in_parent() { hooks().no_fork.unlock(); }
void in_child() {
  Hooks& forked = hooks();
  forked.generation.fetch_add(1, std::memory_order_relaxed);
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

void at_fork_child(void (*repair)()) {
  Hooks& process = hooks();
  const std::lock_guard<std::mutex> lock(process.no_fork);
  process.repairs.push_back(repair);
}

NoFork::NoFork() { hooks().no_fork.lock(); }

NoFork::~NoFork() { hooks().no_fork.unlock(); }

}  // namespace brackenfen::sync

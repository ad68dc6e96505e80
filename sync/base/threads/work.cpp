#include "sync/base/threads/work.hpp"

#include <algorithm>
#include <atomic>
#include <mutex>
#include <vector>

#include "sync/base/threads/fresh_after_fork.hpp"

namespace brackenfen::sync {
namespace {

constinit std::atomic<WorkId> last_work{0};
constinit thread_local ThreadWork thread_work;

/// A thread that waits: each work it is part of cannot end before the one it waits for.
struct Waiter {
  const ThreadWork* thread;  // tells one from another; not looked into
  ThreadWork work;
  WorkId waits_for;
};

struct Waiters {
  std::mutex mutex;
  std::vector<Waiter> waiting;
};

Waiters& waiters() { return fresh_after_fork<Waiters>(); }
[[maybe_unused]] static const auto& made_at_load = waiters();  // see at_fork_child

/// Whether `work` cannot end before something that `thread` is part of.
bool depends_on(WorkId work, const ThreadWork& thread, const std::vector<Waiter>& waiting) {
  std::vector<WorkId> reached{work};
  for (std::size_t index = 0; index < reached.size(); ++index) {
    if (thread.is_part_of(reached[index])) return true;
    for (const Waiter& waiter : waiting) {
      const bool is_new = std::find(reached.begin(), reached.end(), waiter.waits_for) == reached.end();
      if (is_new && waiter.work.is_part_of(reached[index])) reached.push_back(waiter.waits_for);
    }
  }
  return false;
}

}  // namespace

ThreadWork& ThreadWork::current() noexcept { return thread_work; }

WorkId ThreadWork::begin() noexcept {
  const WorkId work = last_work.fetch_add(1, std::memory_order_relaxed) + 1;
  if (size_ < CAPACITY) works_[size_++] = work;
  return work;
}

void ThreadWork::end(WorkId work) noexcept {
  auto* const last = works_.data() + size_;
  auto* const found = std::find(works_.data(), last, work);
  if (found == last) return;
  std::copy(found + 1, last, found);
  --size_;
}

bool ThreadWork::is_part_of(WorkId work) const noexcept {
  return work != 0 && std::find(works_.data(), works_.data() + size_, work) != works_.data() + size_;
}

WorkWait::WorkWait(WorkId work, Patience patience, int slice) {
  constexpr int PATIENT_SLICES = 10;
  const ThreadWork& current = ThreadWork::current();
  if (current.is_part_of(work)) throw WouldWaitForItself();
  Waiters& all = waiters();
  const std::lock_guard lock(all.mutex);
  const bool looks_around = patience == Patience::None || slice >= PATIENT_SLICES;
  if (looks_around && depends_on(work, current, all.waiting)) throw WouldWaitForItself();
  all.waiting.push_back({&current, current, work});
}

WorkWait::~WorkWait() {
  Waiters& all = waiters();
  const std::lock_guard lock(all.mutex);
  std::erase_if(all.waiting, [](const Waiter& waiter) { return waiter.thread == &ThreadWork::current(); });
}

}  // namespace brackenfen::sync

#include "sync/base/work.hpp"

#include <algorithm>

namespace brackenfen::sync {
namespace {

constinit std::atomic<WorkId> last_work{0};
constinit thread_local ThreadWork thread_work;

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

InheritedWork::InheritedWork() noexcept : works_(ThreadWork::current().works_), size_(ThreadWork::current().size_) {}

void InheritedWork::adopt() const noexcept {
  ThreadWork::current().works_ = works_;
  ThreadWork::current().size_ = size_;
}

WorkWait::WorkWait(WorkId work, const ThreadWork* holder, Patience patience, int slice) {
  constexpr int PATIENT_SLICES = 10;
  ThreadWork& waiter = ThreadWork::current();
  const WorkId further = holder == nullptr ? 0 : holder->waits_for.load(std::memory_order_acquire);
  const bool looks_further = patience == Patience::None || slice >= PATIENT_SLICES;
  if (waiter.is_part_of(work) || (looks_further && waiter.is_part_of(further))) throw WouldWaitForItself();
  waiter.waits_for.store(further != 0 ? further : work, std::memory_order_release);
}

WorkWait::~WorkWait() { ThreadWork::current().waits_for.store(0, std::memory_order_release); }

}  // namespace brackenfen::sync

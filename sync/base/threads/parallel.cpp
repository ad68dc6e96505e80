#include "sync/base/threads/parallel.hpp"

#include <sched.h>

#include <algorithm>
#include <atomic>
#include <condition_variable>
#include <exception>
#include <memory>
#include <mutex>
#include <string>
#include <thread>
#include <tuple>
#include <utility>

#include "sync/base/error.hpp"
#include "sync/base/threads/interrupt.hpp"
#include "sync/base/threads/worker_thread.hpp"

namespace brackenfen::sync {
namespace {

constexpr const char* WORKER_NAME_PREFIX = "bf-check";
constexpr std::size_t LARGEST_CLAIM = 64;

/// The cores that this process may use.
std::size_t core_count() {
  cpu_set_t allowed;
  CPU_ZERO(&allowed);
  if (::sched_getaffinity(0, sizeof allowed, &allowed) == 0) return static_cast<std::size_t>(CPU_COUNT(&allowed));
  return std::max(1U, std::thread::hardware_concurrency());  // more cores than the set has room for
}

/// What the calling thread and the others share. They are gone before the call returns, whatever ends it.
class Loop : public std::enable_shared_from_this<Loop> {
 public:
  Loop(std::size_t count, std::size_t thread_count, const std::function<IndexWork()>& make_work)
      : thread_count_(thread_count), make_work_(make_work), end_(count) {}

  [[nodiscard]] std::size_t run();

 private:
  void start_workers();
  void work();
  /// The next indices, from `first` up to but not including the second; equal where none is left.
  std::pair<std::size_t, std::size_t> claim();
  void end_at(std::size_t index, std::exception_ptr failure);
  void interrupt(std::exception_ptr interruption);
  void wait_for_workers();

  const std::size_t thread_count_;
  const std::function<IndexWork()>& make_work_;
  const std::shared_ptr<InterruptToken> token_ = std::make_shared<InterruptToken>();
  std::atomic<std::size_t> next_{0};
  std::atomic<std::size_t> end_;  // falls to the lowest index that ended the loop

  std::mutex mutex_;  // a leaf; guards what follows
  std::condition_variable worker_ended_;
  std::size_t running_workers_ = 0;
  std::exception_ptr failure_;       // of the index `end_`; null where the work answered false
  std::exception_ptr interruption_;  // of whichever thread was interrupted first
};

std::size_t Loop::run() {
  start_workers();
  work();
  wait_for_workers();
  const std::lock_guard<std::mutex> lock(mutex_);
  if (interruption_) std::rethrow_exception(interruption_);
  if (failure_) std::rethrow_exception(failure_);
  return end_;
}

void Loop::start_workers() {
  for (std::size_t number = 1; number < thread_count_; ++number) {
    {
      const std::lock_guard<std::mutex> lock(mutex_);
      ++running_workers_;
    }
    try {
      start_worker_thread(WORKER_NAME_PREFIX + ("_" + std::to_string(number)), [self = shared_from_this()] {
        {
          const InterruptScope scope(self->token_);
          self->work();
        }
        const std::lock_guard<std::mutex> lock(self->mutex_);
        --self->running_workers_;
        self->worker_ended_.notify_all();
      });
    } catch (const std::exception&) {  // fewer threads do as well
      const std::lock_guard<std::mutex> lock(mutex_);
      --running_workers_;
      return;
    }
  }
}

void Loop::work() {
  std::size_t index = end_;
  try {
    IndexWork work;
    for (auto [first, last] = claim(); first < last; std::tie(first, last) = claim()) {
      check_interrupt();
      index = first;
      if (!work) work = make_work_();
      for (; index < last && index < end_.load(std::memory_order_relaxed); ++index) {
        if (!work(index)) return end_at(index, nullptr);
      }
    }
  } catch (const Interrupted&) {
    interrupt(std::current_exception());
  } catch (...) {
    end_at(index, std::current_exception());
  }
}

std::pair<std::size_t, std::size_t> Loop::claim() {
  // Many at a time, since neighbours are cheaper together; ever fewer towards the end, so that all threads end at once.
  std::size_t first = next_.load(std::memory_order_relaxed);
  while (true) {
    const std::size_t end = end_.load(std::memory_order_relaxed);
    if (first >= end) return {end, end};
    const std::size_t size = std::clamp<std::size_t>((end - first) / (8 * thread_count_), 1, LARGEST_CLAIM);
    if (next_.compare_exchange_weak(first, first + size, std::memory_order_relaxed)) return {first, first + size};
  }
}

void Loop::end_at(std::size_t index, std::exception_ptr failure) {
  const std::lock_guard<std::mutex> lock(mutex_);
  if (index >= end_) return;
  end_ = index;
  failure_ = std::move(failure);
}

void Loop::interrupt(std::exception_ptr interruption) {
  {
    const std::lock_guard<std::mutex> lock(mutex_);
    end_ = 0;
    if (!interruption_) interruption_ = std::move(interruption);
  }
  token_->trip();  // after that, so that what the others throw over it is not taken for the first
}

void Loop::wait_for_workers() {
  while (true) {
    {
      std::unique_lock<std::mutex> lock(mutex_);
      if (worker_ended_.wait_for(lock, INTERRUPT_SLICE, [&] { return running_workers_ == 0; })) return;
    }
    if (token_->tripped()) continue;
    try {
      check_interrupt();
    } catch (...) {  // what the others work on is the caller's, who must not be left before they are
      interrupt(std::current_exception());
    }
  }
}

}  // namespace

std::size_t for_each_index(std::size_t count, const std::function<IndexWork()>& make_work) {
  if (count == 0) return 0;
  return std::make_shared<Loop>(count, std::min(count, core_count()), make_work)->run();
}

}  // namespace brackenfen::sync

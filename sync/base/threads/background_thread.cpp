#include "sync/base/threads/background_thread.hpp"

#include <utility>

#include "sync/base/threads/fork.hpp"
#include "sync/base/threads/worker_thread.hpp"

namespace brackenfen::sync {

void BackgroundThread::start(const std::string& name, std::function<void()> body) {
  /// Says that the thread has ended, whatever ends it.
  struct End {
    BackgroundThread& thread;
    ~End() {
      ThreadWork::current().end(thread.work_);
      thread.alive_ = false;
      thread.ended_.set();
    }
  };
  fork_generation_ = fork_generation();
  alive_ = true;
  try {
    start_worker_thread(name, [self = shared_from_this(), body = std::move(body)]() mutable {
      self->work_ = ThreadWork::current().begin();
      const End end{*self};
      const auto run = std::move(body);  // what it owns goes before the thread counts as ended
      run();
    });
  } catch (...) {
    alive_ = false;
    throw;
  }
}

bool BackgroundThread::is_alive() const noexcept { return alive_ && fork_generation_ == fork_generation(); }

bool BackgroundThread::is_current() const noexcept { return ThreadWork::current().is_part_of(work_); }

void BackgroundThread::join(Clock& clock, double timeout_seconds, Patience patience) {
  if (is_current()) throw RuntimeError("cannot join current thread");
  const double end = clock.monotonic_seconds() + timeout_seconds;
  try {
    for (int slice = 0; is_alive(); ++slice) {
      const double left_seconds = end - clock.monotonic_seconds();
      if (!(left_seconds > 0.0)) return;
      const WorkWait wait(work_, patience, slice);
      if (ended_.wait_slice(left_seconds)) return;
    }
  } catch (const WouldWaitForItself&) {  // as when the time is up
  }
}

}  // namespace brackenfen::sync

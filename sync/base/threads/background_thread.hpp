// A thread that somebody keeps an eye on: whether it lives, and a wait for its end.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <memory>
#include <string>

#include "sync/base/threads/event.hpp"
#include "sync/base/threads/work.hpp"

namespace brackenfen::sync {

/// Held by shared_ptr. Dropping the handle leaves the thread running.
class BackgroundThread : public std::enable_shared_from_this<BackgroundThread> {
 public:
  /// Once. `body` must own, by shared handles, everything it touches; what may leave it is said at
  /// start_worker_thread. Throws os_error where the system has no thread left; the handle is then one that never ran.
  void start(const std::string& name, std::function<void()> body);

  /// From start() on until the body is done. Never in a forked child.
  [[nodiscard]] bool is_alive() const noexcept;
  /// Whether the caller is this thread, or a worker of what runs on it.
  [[nodiscard]] bool is_current() const noexcept;
  /// Waits at most `timeout_seconds` for the end; no longer, either, than the thread itself waits for work that the
  /// caller is part of. With no `patience` that is seen at once, and else given a little time to be refused there.
  /// Throws RuntimeError "cannot join current thread", and Interrupted.
  void join(Clock& clock, double timeout_seconds, Patience patience = Patience::Long);

 private:
  std::atomic<bool> alive_{false};
  std::atomic<WorkId> work_{0};
  std::atomic<std::uint64_t> fork_generation_{0};
  Event ended_;
};

}  // namespace brackenfen::sync

// Ending a wait from outside: an interrupt of the user (Ctrl-C) and the exit of the process.
//
// Every wait of the library looks here at least each INTERRUPT_SLICE. Two sources are asked: the running
// thread's token, by which the thread that owns an operation takes its workers with it, and the host, which
// only answers on the threads it cares about (Python: signals on the main thread; exit on every thread).
#pragma once

#include <atomic>
#include <chrono>
#include <memory>

namespace brackenfen::sync {

inline constexpr std::chrono::milliseconds INTERRUPT_SLICE{50};

/// Travels through the core like an error but is none: no handler of the library swallows it.
struct Interrupted {
  /// What the host wants raised when this leaves the core; empty for a worker that its owner interrupted.
  std::shared_ptr<const void> origin;
};

/// Asked by check_interrupt() on whichever thread waits. Throws Interrupted to end the wait.
class InterruptSource {
 public:
  virtual ~InterruptSource() = default;
  virtual void check() = 0;
  /// A callback of the host interrupted a thread of the library's own, which ends for it with nobody to raise it to.
  virtual void unclaimed(const Interrupted& interrupted) { static_cast<void>(interrupted); }
};

/// Not owned; nullptr for none (the default). Returns the one before.
InterruptSource* set_interrupt_source(InterruptSource* source) noexcept;

/// Shared by the thread that owns an operation and its workers. Set once, never cleared.
class InterruptToken {
 public:
  void trip() noexcept { tripped_.store(true, std::memory_order_release); }
  [[nodiscard]] bool tripped() const noexcept { return tripped_.load(std::memory_order_acquire); }

 private:
  std::atomic<bool> tripped_{false};
};

/// Makes `token` the running thread's for the life of this scope.
class InterruptScope {
 public:
  explicit InterruptScope(std::shared_ptr<InterruptToken> token) noexcept;
  InterruptScope(const InterruptScope&) = delete;
  InterruptScope& operator=(const InterruptScope&) = delete;
  ~InterruptScope();

 private:
  std::shared_ptr<InterruptToken> token_;
  const InterruptToken* previous_;  // kept alive by the enclosing scope
};

/// Throws Interrupted where the running thread's token is tripped or the host says so.
void check_interrupt();

/// Tells the host of what ended the running thread, if it came from there.
void report_unclaimed(const Interrupted& interrupted);

}  // namespace brackenfen::sync

// The back-off policy: how long to wait after a failure, and the sleep that can be ended.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <string_view>

#include "sync/base/error.hpp"
#include "sync/base/threads/clock.hpp"
#include "sync/base/values/value.hpp"

namespace brackenfen::sync {

namespace error_class {
/// Raised out of a wait whose stop callback said so. Built in it derives from Exception alone, so that no
/// handler of sync failures takes it for one.
extern const ErrorClass SyncBackoffCancelled;
}  // namespace error_class

/// Fields of a context that the library carries for the host without reading them.
class HostContextFields {
 public:
  virtual ~HostContextFields() = default;
};

/// What the surrounding operation tells the waits below it. Belongs to the running thread.
struct BackoffContext {
  std::string data_dir;                  ///< whose sync-progress.json shows the wait; empty for none
  std::string surface;                   ///< replaces the default surface of a wait; empty for none
  std::function<bool()> stop_requested;  ///< true ends the wait; an Error out of it counts as false
  std::shared_ptr<const HostContextFields> host_fields;
};

/// Any thread; the context is per thread.
class SyncBackoff {
 public:
  virtual ~SyncBackoff() = default;

  /// Seconds to wait after failed attempt `attempt_index`, counted from 0. Built in: 0.5 s doubled per
  /// attempt, capped at 30 s, with a jitter of +-20 % drawn per call.
  [[nodiscard]] virtual double delay_seconds(int attempt_index) = 0;
  /// Waits in slices of at most 50 ms, asking `stop_requested` between them. True when the wait ran to its
  /// end, false when it was stopped. Throws Interrupted. A host's policy may keep both and use them later: `clock` lives
  /// as long as the process, and `stop_requested` owns what it touches.
  [[nodiscard]] virtual bool sleep(double wait_seconds, Clock& clock, const std::function<bool()>& stop_requested) = 0;

  [[nodiscard]] virtual BackoffContext current_context() = 0;
  /// Makes `context` the running thread's until the returned scope is destroyed: by any thread where it is built in, by
  /// the same one where it is the host's. Built in, fields that are empty are those of the enclosing scope.
  [[nodiscard]] virtual std::shared_ptr<void> enter_context(BackoffContext context) = 0;

  /// The event "sync_backoff_wait" with `surface`, `attempt`, `wait_seconds`, `reason` and `file`.
  [[nodiscard]] virtual Document sync_backoff_event_fields(std::string_view surface, int attempt, double wait_seconds,
                                                           std::string_view reason, std::string_view file_path) = 0;
  /// SyncBackoffCancelled, for the caller to throw.
  [[nodiscard]] virtual Error cancelled_error() = 0;

  static SyncBackoff& builtin();
};

}  // namespace brackenfen::sync

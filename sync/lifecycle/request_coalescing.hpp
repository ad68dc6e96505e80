// One sync for all who ask at the same time: a request that finds another running waits for it and takes what it brought.
#pragma once

#include <memory>

#include "sync/base/threads/event.hpp"
#include "sync/base/threads/mutex.hpp"
#include "sync/base/threads/work.hpp"

namespace brackenfen::sync {

/// How long a request waits for the one that is running. Its end by time is no error.
inline constexpr double COALESCED_WAIT_SECONDS = 30.0;

/// A request that runs.
class RunningRequest {
 public:
  /// `work` is what the thread that runs it is part of meanwhile; 0 for nothing.
  explicit RunningRequest(WorkId work) : work_(work) {}
  /// Waits for its end, or until time is up. Throws WouldWaitForItself where it waits for the caller, and Interrupted.
  void wait(Clock& clock);
  void end() { ended_.set(); }
  [[nodiscard]] bool has_ended() const { return ended_.is_set(); }

 private:
  const WorkId work_;
  Event ended_;
};

/// Any thread. To look and to begin are two steps, so two requests that come together may both begin; the later one's
/// event takes the place of the earlier one's, whose waiters then wait for all of COALESCED_WAIT_SECONDS.
class RequestCoalescing {
 public:
  /// What to wait for; nullptr where no request runs.
  [[nodiscard]] std::shared_ptr<RunningRequest> running() const;
  void begin(WorkId work = 0);
  /// Wakes the waiters. Throws AttributeError where another request has ended in the meantime and took the event along.
  void end();

 private:
  mutable Mutex _coalescing_lock;
  std::shared_ptr<RunningRequest> _coalescing_event GUARDED_BY(_coalescing_lock);
};

}  // namespace brackenfen::sync

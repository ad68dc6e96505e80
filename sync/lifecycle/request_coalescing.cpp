#include "sync/lifecycle/request_coalescing.hpp"

#include <utility>

#include "sync/base/error.hpp"

namespace brackenfen::sync {

void RunningRequest::wait(Clock& clock) {
  const double end_seconds = clock.monotonic_seconds() + COALESCED_WAIT_SECONDS;
  for (int slice = 0;; ++slice) {
    const double left_seconds = end_seconds - clock.monotonic_seconds();
    if (!(left_seconds > 0.0)) return;
    const WorkWait wait(work_, Patience::None, slice);
    if (ended_.wait_slice(left_seconds)) return;
  }
}

std::shared_ptr<RunningRequest> RequestCoalescing::running() const {
  const MutexLock lock(_coalescing_lock);
  return _coalescing_event;
}

void RequestCoalescing::begin(WorkId work) {
  auto event = std::make_shared<RunningRequest>(work);
  const MutexLock lock(_coalescing_lock);
  _coalescing_event.swap(event);
}

void RequestCoalescing::end() {
  std::shared_ptr<RunningRequest> event;
  {
    const MutexLock lock(_coalescing_lock);
    event = std::exchange(_coalescing_event, nullptr);
  }
  if (!event) throw AttributeError("'NoneType' object has no attribute 'set'");
  event->end();
}

}  // namespace brackenfen::sync

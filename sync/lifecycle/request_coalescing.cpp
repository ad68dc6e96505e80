#include "sync/lifecycle/request_coalescing.hpp"

#include <utility>

#include "sync/base/error.hpp"

namespace brackenfen::sync {

std::shared_ptr<Event> RequestCoalescing::running() const {
  const MutexLock lock(_coalescing_lock);
  return _coalescing_event;
}

void RequestCoalescing::begin() {
  auto event = std::make_shared<Event>();
  const MutexLock lock(_coalescing_lock);
  _coalescing_event.swap(event);
}

void RequestCoalescing::end() {
  std::shared_ptr<Event> event;
  {
    const MutexLock lock(_coalescing_lock);
    event = std::exchange(_coalescing_event, nullptr);
  }
  if (!event) throw AttributeError("'NoneType' object has no attribute 'set'");
  event->set();
}

}  // namespace brackenfen::sync

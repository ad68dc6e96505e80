#include "sync/lifecycle/era_callbacks.hpp"

#include <algorithm>
#include <utility>

#include "sync/base/error.hpp"
#include "sync/base/log.hpp"

namespace brackenfen::sync {

void EraCallbacks::register_era_callback(std::shared_ptr<EraCallback> callback) {
  const MutexLock lock(_era_callbacks_lock);
  _era_callbacks.push_back(std::move(callback));
}

void EraCallbacks::unregister_era_callback(const EraCallback& callback) {
  std::shared_ptr<EraCallback> removed;  // goes after the lock: it may own an object of the host
  while (!removed) {
    const List registered = list();
    const auto equal = std::find_if(registered.begin(), registered.end(), [&](const auto& entry) { return entry->equals(callback); });
    if (equal == registered.end()) return;
    const MutexLock lock(_era_callbacks_lock);
    const auto entry = std::find(_era_callbacks.begin(), _era_callbacks.end(), *equal);
    if (entry == _era_callbacks.end()) continue;  // another thread was quicker: there may be one more that is equal
    removed = std::move(*entry);
    _era_callbacks.erase(entry);
  }
}

void EraCallbacks::_notify_era_callbacks(std::string_view event_type, const Value& era_number) {
  for (const std::shared_ptr<EraCallback>& callback : list()) {
    try {
      callback->notify(event_type, era_number);
    } catch (const Error& error) {
      log_warning_with_stack(error, callback->origin(), "Era callback failed (%s): %s", callback->text(), error.text());
    }
  }
}

EraCallbacks::List EraCallbacks::list() const {
  const MutexLock lock(_era_callbacks_lock);
  return _era_callbacks;
}

void EraCallbacks::clear() {
  List dropped;
  const MutexLock lock(_era_callbacks_lock);
  _era_callbacks.swap(dropped);
}

}  // namespace brackenfen::sync

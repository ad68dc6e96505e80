// Whom the manager tells of an era change: hosts that stop their workers before it and restart them afterwards.
#pragma once

#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "sync/base/error.hpp"
#include "sync/base/threads/mutex.hpp"
#include "sync/base/values/value.hpp"

namespace brackenfen::sync {

/// A host's callback.
class EraCallback {
 public:
  virtual ~EraCallback() = default;
  /// `event_type` is "kill" or "restart". Called on the thread that drives the transition, which waits for it.
  virtual void notify(std::string_view event_type, const Value& era_number) = 0;
  /// How a log names it, unless it shows the host's object behind it.
  [[nodiscard]] virtual std::string text() const { return {}; }
  [[nodiscard]] virtual const HostOrigin* origin() const noexcept { return nullptr; }
  /// Whether both stand for equal callables of the host.
  [[nodiscard]] virtual bool equals(const EraCallback& other) const { return this == &other; }
};

/// Any thread. The callbacks run, and are compared, outside the lock.
class EraCallbacks {
 public:
  using List = std::vector<std::shared_ptr<EraCallback>>;

  /// At the end of the order, as often as it is registered.
  void register_era_callback(std::shared_ptr<EraCallback> callback);
  /// Removes the first equal entry, if there is one.
  void unregister_era_callback(const EraCallback& callback);
  /// Calls those that are registered now, in order. What one raises is a warning, and the next is called; Interrupted
  /// ends it.
  void _notify_era_callbacks(std::string_view event_type, const Value& era_number);

  [[nodiscard]] List list() const;
  /// For the collector of the host, in a place where no memory can be had: `visit` is called under the lock for each, until
  /// it answers anything but 0. Returns its last answer.
  template <typename Visit>
  [[nodiscard]] int visit_each(const Visit& visit) const {
    const MutexLock lock(_era_callbacks_lock);
    for (const std::shared_ptr<EraCallback>& callback : _era_callbacks)
      if (const int stop = visit(callback); stop != 0) return stop;
    return 0;
  }
  /// For the collector of the host.
  void clear();

 private:
  mutable Mutex _era_callbacks_lock;
  List _era_callbacks GUARDED_BY(_era_callbacks_lock);
};

}  // namespace brackenfen::sync

// The back-off provider of the host, its module `sync_backoff`, and the running thread's context in Python's terms.
// Where there is no such module, the built-in provider is in force.
#pragma once

#include <memory>
#include <utility>

#include "python/interpreter/gate.hpp"
#include "sync/neighbours/sync_backoff.hpp"

namespace brackenfen::sync::python {

/// The provider in force, looked up at every use: a module in sys.modules, else the one bound first.
/// Any thread.
[[nodiscard]] std::shared_ptr<SyncBackoff> backoff_in_force();

// Attached threads only.

/// The module of the host in force; no object where the built-in provider is.
[[nodiscard]] nb::object host_backoff_module();

/// While the running thread is in the host's module on behalf of a caller. A module that in turn hands on to the functions
/// of this one means the built-in provider, and must not be asked again.
class ForwardingToHost {
 public:
  ForwardingToHost() : before_(std::exchange(active_, true)) {}
  ForwardingToHost(const ForwardingToHost&) = delete;
  ForwardingToHost& operator=(const ForwardingToHost&) = delete;
  ~ForwardingToHost() { active_ = before_; }
  /// The module that a call of this one is handed on to; no object where it is not.
  [[nodiscard]] static nb::object target() { return active_ ? nb::object() : host_backoff_module(); }

 private:
  static inline thread_local bool active_ = false;
  bool before_;
};

[[nodiscard]] nb::object backoff_cancelled_class();
/// The context as a dict: the host's own fields, and what was set over them.
[[nodiscard]] nb::dict context_to_python(const BackoffContext& context);
/// What cannot be used of a field counts as not given.
[[nodiscard]] BackoffContext context_from_python(nb::handle mapping);

}  // namespace brackenfen::sync::python

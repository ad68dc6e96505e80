// The back-off provider: the host's module `sync_backoff`, else the built-in one, and the running thread's
// context in Python's terms.
#pragma once

#include <memory>

#include "python/interpreter/gate.hpp"
#include "sync/neighbours/sync_backoff.hpp"

namespace brackenfen::sync::python {

/// The provider in force, looked up at every use: a module in sys.modules, else the one bound first.
/// Any thread.
[[nodiscard]] std::shared_ptr<SyncBackoff> backoff_in_force();

// Attached threads only.

/// The module of the host in force, or an object of the same operations around the built-in provider.
[[nodiscard]] nb::object backoff_module();
[[nodiscard]] nb::object backoff_cancelled_class();
/// The context as a dict: the host's own fields, and what was set over them.
[[nodiscard]] nb::dict context_to_python(const BackoffContext& context);
[[nodiscard]] BackoffContext context_from_python(nb::handle mapping);

/// sync.backoff_context(**fields) and sync.current_context().
void bind_backoff(nb::module_& module);

}  // namespace brackenfen::sync::python

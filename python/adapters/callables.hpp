// Objects of the host that the core calls: token sources, guards, callbacks, rotation states.
//
// Each adapter keeps the object it was made of.
#pragma once

#include <functional>
#include <memory>

#include "python/conversion/errors.hpp"
#include "python/interpreter/gate.hpp"
#include "sync/engine/sync_manager.hpp"

namespace brackenfen::sync::python {

/// The host's object behind something the core holds; nullptr where there is none or it is the core's own.
template <typename T>
[[nodiscard]] const HostObject* host_object(const std::shared_ptr<T>& held) {
  return dynamic_cast<const HostObject*>(held.get());
}
template <typename T>
[[nodiscard]] nb::object host_object_or_none(const std::shared_ptr<T>& held) {
  const HostObject* host = host_object(held);
  return host == nullptr ? nb::object(nb::none()) : nb::borrow(host->object());
}

/// Any object, also one that cannot be called: the core says so at the right moment.
[[nodiscard]] std::shared_ptr<TokenSource> token_source(nb::handle callable);
/// A Python callable that always returns `token`.
[[nodiscard]] nb::object fixed_token_callable(std::string token);
/// nullptr for None, as is the one below.
[[nodiscard]] std::shared_ptr<RuntimeFreshnessGuard> freshness_guard(nb::handle object);
/// A built-in state for a `RotationState`, an adapter for any other object: rotation_records.cpp.
[[nodiscard]] std::shared_ptr<const RotationState> rotation_state(nb::handle object);
/// The same where it is an argument called `name`, and must have active paths.
[[nodiscard]] std::shared_ptr<const RotationState> rotation_state_argument(nb::handle object, std::string_view name);
[[nodiscard]] std::shared_ptr<const RotationState> rotation_state_or_none(nb::handle object, std::string_view name);
[[nodiscard]] RetryStatusCallback retry_status_callback(nb::handle callable);

/// Equal where the host's callables are.
[[nodiscard]] std::shared_ptr<EraCallback> era_callback(nb::handle callable);

/// Stops or restarts the host's searches. Kept as a type of its own so that the callable can be handed back.
struct HostSearchesFn {
  SharedRef callable;
  void operator()() const;
};
/// Empty for None.
[[nodiscard]] SearchesFn searches_fn(nb::handle callable);
/// The host's own callable behind it, a new one that calls it, or None where it is empty.
[[nodiscard]] nb::object searches_callable(const SearchesFn& searches_fn);

/// Any object with `_manifest` and `trigger_era_transition`.
[[nodiscard]] std::shared_ptr<EraManager> era_manager(nb::handle object);

/// A stop callback of the host. Kept as a type of its own so that the callable can be handed back.
struct StopCallback {
  SharedRef callable;
  bool operator()() const;
};
/// The host's own callable behind `stop_requested`, or a new one that calls it.
[[nodiscard]] nb::object stop_callable(const std::function<bool()>& stop_requested);

}  // namespace brackenfen::sync::python

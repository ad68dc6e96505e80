// Running searches of the host, which are told of their new scope. Attached threads only.
#pragma once

#include "python/adapters/callables.hpp"
#include "sync/rotation/search_consumers.hpp"

namespace brackenfen::sync::python {

/// Any object; what it offers is asked when it is needed.
[[nodiscard]] SearchConsumerRef search_consumer(nb::handle object);

/// (refresh_rotation_scope, rotation state, scoped vocabulary)
[[nodiscard]] nb::object refresh_payload_to_python(const SearchRefreshPayload& payload);

}  // namespace brackenfen::sync::python

// The neighbouring modules as the host supplies them; the built-in defaults where it does not.
#pragma once

#include "python/interpreter/gate.hpp"
#include "sync/transport/seams.hpp"

namespace brackenfen::sync::python {

/// Never destroyed.
[[nodiscard]] Neighbours& host_neighbours();
/// The real seams with the host's neighbours.
[[nodiscard]] Seams host_seams();

/// The class `AuthError` in force. Attached threads only.
[[nodiscard]] nb::object auth_error_class();
/// The same for `LibraryUpdateRequired`.
[[nodiscard]] nb::object library_update_required_class();

}  // namespace brackenfen::sync::python

// The modules `_artifact_rotation` and `_rotation_settings` as the host supplies them.
#pragma once

#include <memory>

#include "python/adapters/neighbours_lookup.hpp"
#include "sync/neighbours/artifact_rotation.hpp"
#include "sync/neighbours/rotation_settings.hpp"

namespace brackenfen::sync::python {

[[nodiscard]] NeighbourModule& rotation_module();
[[nodiscard]] NeighbourModule& rotation_settings_module();

// Attached threads only; what is made serves any thread.
[[nodiscard]] std::unique_ptr<const ArtifactRotation> host_artifact_rotation(nb::handle module);
[[nodiscard]] std::unique_ptr<const RotationSettings> host_rotation_settings(nb::handle module);

/// The value that stands for "everything that fits": the host's sentinel, or the built-in text.
[[nodiscard]] nb::object full_download_sentinel();
/// left == right
[[nodiscard]] bool equal_objects(nb::handle left, nb::handle right);

/// One of the error classes of `_artifact_rotation` by its name; empty for any other name.
[[nodiscard]] nb::object rotation_error_class(const std::string& name);

}  // namespace brackenfen::sync::python

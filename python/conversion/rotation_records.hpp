// The records of the rotation as Python sees them: dataclasses for the built-in ones, the host's own objects for its own.
//
// Attached threads only.
#pragma once

#include <memory>
#include <vector>

#include "python/adapters/callables.hpp"
#include "sync/neighbours/artifact_rotation.hpp"
#include "sync/neighbours/rotation_settings.hpp"

namespace brackenfen::sync::python {

/// A host's own object behind a record of the core.
class HostRecord : public OwnRecord, public HostObject {
 public:
  using HostObject::HostObject;
};
[[nodiscard]] inline OwnRecordRef own_record(nb::handle object) { return std::make_shared<const HostRecord>(object); }
/// The host's object behind a record; empty where there is none.
[[nodiscard]] nb::object object_of(const OwnRecordRef& own);

/// None for null; a `RotationState` for a built-in state; the very object for a host's.
[[nodiscard]] nb::object rotation_state_to_python(const RotationStateRef& state);

/// What is read of any descriptor; a field that it lacks counts as empty.
[[nodiscard]] ArtifactDescriptor artifact_argument(nb::handle descriptor);
[[nodiscard]] std::vector<ArtifactDescriptor> artifacts_argument(nb::handle descriptors, std::string_view name);
/// A tuple of descriptors: the host's own, or `ArtifactDescriptor` records.
[[nodiscard]] nb::object artifacts_to_python(const Artifacts& artifacts);

/// What is read of any selection and any plan.
[[nodiscard]] RotationSelection selection_argument(nb::handle given, std::string_view name);
[[nodiscard]] RotationPlan plan_argument(nb::handle given, std::string_view name);
[[nodiscard]] nb::object plan_to_python(const RotationPlan& plan);

[[nodiscard]] nb::object loaded_settings_to_python(const LoadedRotationSettings& settings);
/// A document of settings as its loader's `model_dump` gives it: the frequency, and a member that is no
/// JSON value, count by their texts. Null for what is no mapping.
[[nodiscard]] Value settings_payload_argument(nb::handle payload);
/// Made with the classes and the sentinel of `module`, or with the built-in ones for an empty object.
[[nodiscard]] nb::object rotation_settings_to_python(const ArtifactRotationSettings& settings, const nb::object& module);

/// Makes the dataclasses and adds them to the module.
void bind_rotation_records(nb::module_& module);

}  // namespace brackenfen::sync::python

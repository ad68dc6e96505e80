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

/// The attribute, or None where there is none. What else its reading raises is thrown.
[[nodiscard]] nb::object attribute_or_none(nb::handle object, const char* name);

/// None for null; a `RotationState` for a built-in state; the very object for a host's.
[[nodiscard]] nb::object rotation_state_to_python(const RotationStateRef& state);

/// What is read of any descriptor; a field that it lacks counts as empty.
[[nodiscard]] ArtifactDescriptor artifact_argument(nb::handle descriptor);
[[nodiscard]] std::vector<ArtifactDescriptor> artifacts_argument(nb::handle descriptors);
/// A tuple of descriptors: the host's own, or `ArtifactDescriptor` records.
[[nodiscard]] nb::object artifacts_to_python(const Artifacts& artifacts);

/// What is read of any selection and any plan.
[[nodiscard]] RotationSelection selection_argument(nb::handle given);
[[nodiscard]] RotationPlan plan_argument(nb::handle given);
[[nodiscard]] nb::object plan_to_python(const RotationPlan& plan);

[[nodiscard]] nb::object loaded_settings_to_python(const LoadedRotationSettings& settings);
/// A document of settings as its loader's `model_dump` gives it: a member that is no JSON value reads as null, the frequency
/// as its text.
[[nodiscard]] Value settings_payload_argument(nb::handle payload);
/// Made with the classes and the sentinel of `module`, or with the built-in ones for an empty object.
[[nodiscard]] nb::object rotation_settings_to_python(const ArtifactRotationSettings& settings, const nb::object& module);

/// How often what a host's module returned is read: an iterator has nothing left for a second time.
enum class Reading : bool { Once, Again };
/// Throws TypeError for what is no collection although one is expected of a host's module: None and a text above all, which
/// would read as no paths, or as wrong ones, and have the files of the right ones deleted.
void require_collection(nb::handle given, const char* name, Reading reading = Reading::Once);

/// The elements' text forms as shared texts.
[[nodiscard]] std::vector<Text> text_list_argument(nb::handle iterable, const char* name);

/// Makes the dataclasses and adds them to the module.
void bind_rotation_records(nb::module_& module);

}  // namespace brackenfen::sync::python

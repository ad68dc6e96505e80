#include "python/conversion/rotation_records.hpp"

#include <unordered_set>
#include <utility>

#include "python/conversion/arguments.hpp"
#include "python/conversion/dataclasses.hpp"
#include "python/conversion/errors.hpp"
#include "python/conversion/values.hpp"
#include "sync/neighbours/rotation_state.hpp"

namespace brackenfen::sync::python {
namespace {

/// The dataclasses, owned for ever.
struct Records {
  PyObject *state, *descriptor, *scope, *rotation_settings, *selection, *plan, *settings;
};
Records records{};

template <typename... Arguments>
nb::object make(PyObject* record, Arguments&&... arguments) {
  return nb::handle(record)(std::forward<Arguments>(arguments)...);
}

/// A tuple for a list, None for null.
nb::object tuple_or_none(const Value& list) {
  if (list.is_null()) return nb::none();
  return checked(PySequence_Tuple(to_python(list).ptr()));
}

nb::object descriptor_to_python(const ArtifactDescriptor& artifact) {
  return make(records.descriptor, to_python(artifact.relative_path), to_python(artifact.kind), to_python(artifact.artifact_kind),
              to_python(artifact.size_bytes), artifact.mandatory, to_python(artifact.market), to_python(artifact.named_universe),
              to_python(artifact.family), to_python(artifact.subfamily));
}

Text text_attribute(nb::handle object, const char* name) {
  const nb::object value = attribute_or_none(object, name);
  return value.is_none() ? Text() : Text(text_form(value));
}

/// The descriptors of a built-in selection that play one of the roles.
nb::object artifacts_of(const RotationSelection& selection, std::initializer_list<RotationSelection::Role> roles) {
  nb::list chosen;
  for (std::size_t index = 0; index < selection.roles.size(); ++index) {
    for (const RotationSelection::Role role : roles) {
      if (selection.roles[index] == role) chosen.append(descriptor_to_python(selection.artifacts->descriptors[index]));
    }
  }
  return checked(PyList_AsTuple(chosen.ptr()));
}

nb::object selection_to_python(const RotationSelection& selection) {
  if (nb::object own = object_of(selection.own); own.is_valid()) return own;
  using Role = RotationSelection::Role;
  return make(records.selection, tuple_of_texts(selection.active_relative_paths), artifacts_of(selection, {Role::Selected}),
              artifacts_of(selection, {Role::Mandatory}), artifacts_of(selection, {Role::Selected, Role::Skipped}),
              to_python(selection.mandatory_bytes), to_python(selection.feature_budget_bytes), to_python(selection.seed));
}

/// The paths of the descriptors in one attribute of the object called `name`.
std::vector<Text> relative_paths_of(nb::handle given, const char* attribute, const std::string& name) {
  const std::string label = name + '.' + attribute;
  std::vector<Text> paths;
  for (const nb::object& artifact : elements_of(required_attribute(given, attribute, name), label))
    paths.emplace_back(text_form(required_attribute(artifact, "relative_path", label)));
  return paths;
}

TextList active_paths_of(nb::handle record, std::string_view name, Reading reading = Reading::Once) {
  const std::string label = std::string(name) + ".active_relative_paths";
  const nb::object paths = required_attribute(record, "active_relative_paths", name);
  require_collection(paths, label, reading);
  return text_list_argument(paths, label);
}

PyObject* make_record(nb::module_& module, const char* name, const std::vector<DataclassField>& fields, const char* documentation,
                      const nb::dict& members = nb::dict()) {
  return make_dataclass(module, name, fields, documentation, Mutability::Frozen, members).release().ptr();
}

}  // namespace

nb::object object_of(const OwnRecordRef& own) {
  const HostObject* host = host_object(own);
  return host == nullptr ? nb::object() : nb::borrow(host->object());
}

// ---- states ----------------------------------------------------------------------------------------------

namespace {

/// A state of the host's own class.
class HostRotationState : public RotationState, public HostObject {
 public:
  using HostObject::HostObject;
  TextList active_relative_paths() const override {
    return call_python([&] { return active_paths_of(object(), "rotation_state", Reading::Again); });
  }
  Value generation() const override {
    return call_python([&] { return value_argument(field("generation"), "rotation_state.generation"); });
  }
  Value seed() const override {
    return call_python([&] { return value_argument(field("seed"), "rotation_state.seed"); });
  }
  std::string rng_state() const override {
    return call_python([&] { return text_form(field("rng_state")); });
  }
  bool equals(const RotationState& other) const override {
    return call_python([&] {
      const auto* host = dynamic_cast<const HostRotationState*>(&other);
      if (host == nullptr) return false;
      const int answer = PyObject_RichCompareBool(object().ptr(), host->object().ptr(), Py_EQ);
      if (answer < 0) throw nb::python_error();
      return answer == 1;
    });
  }
  RotationStateRef with_active_relative_paths(TextList paths) const override {
    return call_python([&]() -> RotationStateRef {
      const nb::object changed = tuple_of_texts(paths);
      const nb::object dataclasses = nb::module_::import_("dataclasses");
      if (truth(dataclasses.attr("is_dataclass")(object())))
        return rotation_state(dataclasses.attr("replace")(object(), nb::arg("active_relative_paths") = changed));
      const nb::object copy = nb::module_::import_("copy").attr("copy")(object());
      copy.attr("active_relative_paths") = changed;
      return rotation_state(copy);
    });
  }

 private:
  [[nodiscard]] nb::object field(const char* name) const { return required_attribute(object(), name, "rotation_state"); }
};

RotationStateRef builtin_state_of(nb::handle record, std::string_view name) {
  auto state = std::make_shared<BuiltinRotationState>();
  state->active_paths = active_paths_of(record, name);
  state->generation_number = value_argument(record.attr("generation"), "rotation_state.generation");
  state->seed_number = value_argument(record.attr("seed"), "rotation_state.seed");
  state->generator = text_form(record.attr("rng_state"));
  state->rotated_at = value_argument(record.attr("rotated_at"), "rotation_state.rotated_at");
  return state;
}

}  // namespace

RotationStateRef rotation_state(nb::handle object) {
  if (object.is_none()) return nullptr;
  if (object.type().ptr() == records.state) return builtin_state_of(object, "rotation_state");
  return std::make_shared<HostRotationState>(object);
}

RotationStateRef rotation_state_argument(nb::handle object, std::string_view name) {
  if (object.type().ptr() == records.state) return builtin_state_of(object, name);
  static_cast<void>(active_paths_of(object, name, Reading::Again));
  return std::make_shared<HostRotationState>(object);
}

RotationStateRef rotation_state_or_none(nb::handle object, std::string_view name) {
  return object.is_none() ? nullptr : rotation_state_argument(object, name);
}

nb::object rotation_state_to_python(const RotationStateRef& state) {
  if (!state) return nb::none();
  if (const HostObject* host = host_object(state)) return nb::borrow(host->object());
  const auto* builtin = dynamic_cast<const BuiltinRotationState*>(state.get());
  return make(records.state, tuple_of_texts(state->active_relative_paths()), to_python(state->generation()), to_python(state->seed()),
              to_python(state->rng_state()), builtin == nullptr ? nb::object(nb::none()) : to_python(builtin->rotated_at));
}

// ---- artifacts, selections, plans --------------------------------------------------------------------------

ArtifactDescriptor artifact_argument(nb::handle descriptor) {
  ArtifactDescriptor artifact;
  artifact.relative_path = text_attribute(descriptor, "relative_path");
  artifact.kind = text_attribute(descriptor, "kind");
  artifact.artifact_kind = text_attribute(descriptor, "artifact_kind");
  artifact.size_bytes = value_argument(attribute_or_none(descriptor, "size_bytes"), "size_bytes");
  artifact.mandatory = truth(attribute_or_none(descriptor, "mandatory"));
  artifact.market = text_attribute(descriptor, "market");
  artifact.named_universe = text_attribute(descriptor, "named_universe");
  artifact.family = text_attribute(descriptor, "family");
  artifact.subfamily = text_attribute(descriptor, "subfamily");
  return artifact;
}

std::vector<ArtifactDescriptor> artifacts_argument(nb::handle descriptors, std::string_view name) {
  std::vector<ArtifactDescriptor> artifacts;
  for (const nb::object& descriptor : elements_of(descriptors, name)) artifacts.push_back(artifact_argument(descriptor));
  return artifacts;
}

nb::object artifacts_to_python(const Artifacts& artifacts) {
  if (nb::object own = object_of(artifacts.own); own.is_valid()) return own;
  nb::list descriptors;
  for (const ArtifactDescriptor& artifact : artifacts.descriptors) descriptors.append(descriptor_to_python(artifact));
  return checked(PyList_AsTuple(descriptors.ptr()));
}

RotationSelection selection_argument(nb::handle given, std::string_view name) {
  const std::string prefix(name);
  RotationSelection selection;
  selection.active_relative_paths = active_paths_of(given, name);
  selection.mandatory_relative_paths = relative_paths_of(given, "mandatory_artifacts", prefix);
  const TextSet active = set_of(selection.active_relative_paths);
  selection.skipped_relative_paths =
      kept_of(relative_paths_of(given, "eligible_artifacts", prefix), [&](const Text& path) { return !contains(active, path); });
  const nb::object mandatory_bytes = attribute_or_none(given, "mandatory_bytes");
  selection.mandatory_bytes = mandatory_bytes.is_none() ? Value(0) : value_argument(mandatory_bytes, prefix + ".mandatory_bytes");
  selection.feature_budget_bytes = value_argument(attribute_or_none(given, "feature_budget_bytes"), prefix + ".feature_budget_bytes");
  selection.seed = value_argument(attribute_or_none(given, "seed"), prefix + ".seed");
  selection.own = own_record(given);
  return selection;
}

RotationPlan plan_argument(nb::handle given, std::string_view name) {
  return {selection_argument(required_attribute(given, "selection", name), std::string(name) + ".selection"),
          rotation_state(required_attribute(given, "candidate_state", name)), own_record(given)};
}

nb::object plan_to_python(const RotationPlan& plan) {
  if (nb::object own = object_of(plan.own); own.is_valid()) return own;
  return make(records.plan, selection_to_python(plan.selection), rotation_state_to_python(plan.candidate_state));
}

// ---- settings ----------------------------------------------------------------------------------------------

nb::object loaded_settings_to_python(const LoadedRotationSettings& settings) {
  if (nb::object own = object_of(settings.own); own.is_valid()) return own;
  return make(records.settings, to_python(settings.feature_budget_gb), to_python(settings.algorithm), to_python(settings.rotation_seed),
              to_python(settings.market), tuple_or_none(settings.named_universes), to_python(settings.family),
              to_python(settings.subfamily), to_python(settings.rotation_frequency));
}

Value settings_payload_argument(nb::handle payload) {
  if (!is_mapping(payload)) return {};
  std::vector<Member> members;
  for (const Item& item : mapping_items(payload, "settings_payload")) {
    const std::string key = text_form(item.key);
    const bool by_its_text = key == "rotation_frequency" && truth(item.value);
    members.push_back({key, by_its_text ? Value(text_form(item.value)) : value_or_text(item.value)});
  }
  return Document(std::move(members));
}

nb::object rotation_settings_to_python(const ArtifactRotationSettings& settings, const nb::object& module) {
  const auto record = [&](const char* name, PyObject* builtin) {
    return module.is_valid() ? nb::object(module.attr(name)) : nb::borrow(builtin);
  };
  const nb::object settings_class = record("ArtifactRotationSettings", records.rotation_settings);
  const nb::object scope_class = record("SelectionScope", records.scope);
  const nb::object kind = to_python(FEATURE_KIND);
  if (!settings.scoped) return settings_class(nb::arg("artifact_kind") = kind, nb::arg("scope") = scope_class());

  // What the host loaded goes on as the very objects.
  const nb::object loaded = object_of(settings.loaded);
  const auto field = [&](const char* name, const Value& value) {
    return loaded.is_valid() ? nb::object(loaded.attr(name)) : to_python(value);
  };
  nb::object universes = field("named_universes", settings.scope.named_universes);
  universes = universes.is_none() ? nb::object(nb::tuple()) : checked(PySequence_Tuple(universes.ptr()));
  const nb::object scope = scope_class(nb::arg("market") = field("market", settings.scope.market), nb::arg("named_universes") = universes,
                                       nb::arg("family") = field("family", settings.scope.family),
                                       nb::arg("subfamily") = field("subfamily", settings.scope.subfamily));
  const nb::object budget = module.is_valid() && is_full_download(settings.feature_budget_bytes) ? nb::object(module.attr("FULL_DOWNLOAD"))
                                                                                                 : to_python(settings.feature_budget_bytes);
  return settings_class(nb::arg("artifact_kind") = kind, nb::arg("algorithm") = field("algorithm", settings.algorithm),
                        nb::arg("seed") = field("rotation_seed", settings.seed), nb::arg("scope") = scope,
                        nb::arg("feature_budget_bytes") = budget, nb::arg("free_disk_bytes") = to_python(settings.free_disk_bytes));
}

namespace {

/// What a directory is set to, and what a plan is asked for.
void bind_settings_records(nb::module_& module) {
  const nb::object none = nb::none();
  records.scope = make_record(module, "SelectionScope",
                              {{"market", "str | None", none},
                               {"named_universes", "tuple[str, ...]", nb::tuple()},
                               {"family", "str | None", none},
                               {"subfamily", "str | None", none}},
                              "Which features are considered; None and () for all.");
  records.rotation_settings =
      make_record(module, "ArtifactRotationSettings",
                  {{"artifact_kind", "str", to_python(FEATURE_KIND)},
                   {"algorithm", "str | None", none},
                   {"seed", "int | None", none},
                   {"scope", "SelectionScope", make(records.scope)},
                   {"feature_budget_bytes", "int | str | None", none},
                   {"free_disk_bytes", "int | None", none}},
                  "What a plan is asked for. Sizes are in bytes; free_disk_bytes is None where the budget is explicit.");
  nb::dict members;
  members["model_dump"] = nb::module_::import_("dataclasses").attr("asdict");
  records.settings = make_record(module, "RotationSettings",
                                 {{"feature_budget_gb", "float | str | None", none},
                                  {"algorithm", "str", to_python("seeded-hash")},
                                  {"rotation_seed", "int | None", none},
                                  {"market", "str | None", none},
                                  {"named_universes", "tuple[str, ...] | None", none},
                                  {"family", "str | None", none},
                                  {"subfamily", "str | None", none},
                                  {"rotation_frequency", "str", to_python("weekly")}},
                                 "A directory's rotation settings. feature_budget_gb is in units of 2**30 bytes.", members);
}

}  // namespace

void bind_rotation_records(nb::module_& module) {
  records.state =
      make_record(module, "RotationState",
                  {{"active_relative_paths", "tuple[str, ...]"},
                   {"generation", "int"},
                   {"seed", "int"},
                   {"rng_state", "str"},
                   {"rotated_at", "int | None", nb::none()}},
                  "What a directory holds, and since when.\n\n"
                  "generation counts rotations from 1. seed and generation give the order in which features are considered, of which\n"
                  "rng_state is the generator. rotated_at is in seconds since the epoch.");
  records.descriptor = make_record(module, "ArtifactDescriptor",
                                   {{"relative_path", "str"},
                                    {"kind", "str"},
                                    {"artifact_kind", "str"},
                                    {"size_bytes", "int"},
                                    {"mandatory", "bool"},
                                    {"market", "str"},
                                    {"named_universe", "str"},
                                    {"family", "str"},
                                    {"subfamily", "str"}},
                                   "One artifact of a manifest. Texts are empty where the manifest says nothing.");
  records.selection = make_record(module, "RotationSelection",
                                  {{"active_relative_paths", "tuple[str, ...]"},
                                   {"selected_artifacts", "tuple[ArtifactDescriptor, ...]"},
                                   {"mandatory_artifacts", "tuple[ArtifactDescriptor, ...]"},
                                   {"eligible_artifacts", "tuple[ArtifactDescriptor, ...]"},
                                   {"mandatory_bytes", "int"},
                                   {"feature_budget_bytes", "int"},
                                   {"seed", "int | None"}},
                                  "What a plan selects.\n\n"
                                  "mandatory_bytes: mandatory bytes still to come. feature_budget_bytes: the most that features still to\n"
                                  "come may take.");
  records.plan = make_record(module, "RotationPlan", {{"selection", "RotationSelection"}, {"candidate_state", "RotationState | None"}},
                             "A selection, and the state that it makes once its files are here; None where nothing rotates.");
  bind_settings_records(module);
}

}  // namespace brackenfen::sync::python

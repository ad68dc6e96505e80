#include "python/conversion/rotation_records.hpp"

#include <unordered_set>
#include <utility>

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

std::vector<Text> relative_paths_of(nb::handle selection, const char* name) {
  const nb::object artifacts = selection.attr(name);
  require_collection(artifacts, name);
  std::vector<Text> paths;
  for (nb::handle artifact : nb::iter(artifacts)) paths.emplace_back(text_form(artifact.attr("relative_path")));
  return paths;
}

std::vector<Text> active_paths_of(nb::handle record, Reading reading = Reading::Once) {
  const char* const name = "active_relative_paths";
  const nb::object paths = record.attr(name);
  require_collection(paths, name, reading);
  return text_list_argument(paths, name);
}

/// One field of a dataclass: a name, a type and, where it has one, a default.
struct Field {
  const char* name;
  const char* type;
  nb::object otherwise = {};
};

PyObject* make_record(nb::module_& module, const char* name, const std::vector<Field>& fields, const char* documentation,
                      const nb::dict& members = nb::dict()) {
  nb::list given;
  for (const Field& field : fields) {
    given.append(field.otherwise.is_valid() ? nb::make_tuple(field.name, field.type, field.otherwise)
                                            : nb::make_tuple(field.name, field.type));
  }
  nb::dict namespace_members;
  namespace_members.update(members);
  namespace_members["__doc__"] = documentation;
  nb::object made = nb::module_::import_("dataclasses")
                        .attr("make_dataclass")(name, given, nb::arg("namespace") = namespace_members,
                                                nb::arg("module") = "brackenfen.sync", nb::arg("frozen") = true);
  module.attr(name) = made;
  return made.release().ptr();
}

}  // namespace

nb::object object_of(const OwnRecordRef& own) {
  const HostObject* host = host_object(own);
  return host == nullptr ? nb::object() : nb::borrow(host->object());
}

nb::object attribute_or_none(nb::handle object, const char* name) {
  nb::object value = nb::steal(PyObject_GetAttrString(object.ptr(), name));
  if (value.is_valid()) return value;
  if (PyErr_ExceptionMatches(PyExc_AttributeError) == 0) throw nb::python_error();
  PyErr_Clear();
  return nb::none();
}

void require_collection(nb::handle given, const char* name, Reading reading) {
  const bool is_text = PyUnicode_Check(given.ptr()) || PyBytes_Check(given.ptr());
  const bool ends = reading == Reading::Again && PyIter_Check(given.ptr()) != 0;
  if (!given.is_none() && !is_text && !ends && PyObject_HasAttrString(given.ptr(), "__iter__") != 0) return;
  throw TypeError(std::string(name) + " must be a collection, not " + text_form(given.type().attr("__name__")));
}

std::vector<Text> text_list_argument(nb::handle iterable, const char* name) {
  const std::vector<std::string> texts = texts_argument(iterable, name);
  return {texts.begin(), texts.end()};
}

// ---- states ----------------------------------------------------------------------------------------------

namespace {

/// A state of the host's own class.
class HostRotationState : public RotationState, public HostObject {
 public:
  using HostObject::HostObject;
  std::vector<Text> active_relative_paths() const override {
    return call_python([&] { return active_paths_of(object(), Reading::Again); });
  }
  Value generation() const override {
    return call_python([&] { return value_argument(object().attr("generation"), "generation"); });
  }
  Value seed() const override {
    return call_python([&] { return value_argument(object().attr("seed"), "seed"); });
  }
  std::string rng_state() const override {
    return call_python([&] { return text_form(object().attr("rng_state")); });
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
  RotationStateRef with_active_relative_paths(std::vector<Text> paths) const override {
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
};

RotationStateRef builtin_state_of(nb::handle record) {
  auto state = std::make_shared<BuiltinRotationState>();
  state->active_paths = active_paths_of(record);
  state->generation_number = value_argument(record.attr("generation"), "generation");
  state->seed_number = value_argument(record.attr("seed"), "seed");
  state->generator = text_form(record.attr("rng_state"));
  state->rotated_at = value_argument(record.attr("rotated_at"), "rotated_at");
  return state;
}

}  // namespace

RotationStateRef rotation_state(nb::handle object) {
  if (object.is_none()) return nullptr;
  if (object.type().ptr() == records.state) return builtin_state_of(object);
  return std::make_shared<HostRotationState>(object);
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
  artifact.size_bytes = loose_value(attribute_or_none(descriptor, "size_bytes"));
  artifact.mandatory = truth(attribute_or_none(descriptor, "mandatory"));
  artifact.market = text_attribute(descriptor, "market");
  artifact.named_universe = text_attribute(descriptor, "named_universe");
  artifact.family = text_attribute(descriptor, "family");
  artifact.subfamily = text_attribute(descriptor, "subfamily");
  return artifact;
}

std::vector<ArtifactDescriptor> artifacts_argument(nb::handle descriptors) {
  std::vector<ArtifactDescriptor> artifacts;
  for (nb::handle descriptor : nb::iter(descriptors)) artifacts.push_back(artifact_argument(descriptor));
  return artifacts;
}

nb::object artifacts_to_python(const Artifacts& artifacts) {
  if (nb::object own = object_of(artifacts.own); own.is_valid()) return own;
  nb::list descriptors;
  for (const ArtifactDescriptor& artifact : artifacts.descriptors) descriptors.append(descriptor_to_python(artifact));
  return checked(PyList_AsTuple(descriptors.ptr()));
}

RotationSelection selection_argument(nb::handle given) {
  RotationSelection selection;
  selection.active_relative_paths = active_paths_of(given);
  selection.mandatory_relative_paths = relative_paths_of(given, "mandatory_artifacts");
  TextSet active;
  active.insert(selection.active_relative_paths.begin(), selection.active_relative_paths.end());
  for (Text& path : relative_paths_of(given, "eligible_artifacts")) {
    if (!contains(active, path)) selection.skipped_relative_paths.push_back(std::move(path));
  }
  const nb::object mandatory_bytes = attribute_or_none(given, "mandatory_bytes");
  selection.mandatory_bytes = mandatory_bytes.is_none() ? Value(0) : value_argument(mandatory_bytes, "mandatory_bytes");
  selection.feature_budget_bytes = value_argument(attribute_or_none(given, "feature_budget_bytes"), "feature_budget_bytes");
  selection.seed = value_argument(attribute_or_none(given, "seed"), "seed");
  selection.own = own_record(given);
  return selection;
}

RotationPlan plan_argument(nb::handle given) {
  return {selection_argument(given.attr("selection")), rotation_state(given.attr("candidate_state")), own_record(given)};
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
  if (!is_mapping(payload)) return loose_value(payload);
  std::vector<Member> members;
  const nb::object items = checked(PyMapping_Items(payload.ptr()));
  for (nb::handle item : nb::iter(items)) {
    const nb::object value = item[1];
    const std::string key = text_form(item[0]);
    members.push_back({key, key == "rotation_frequency" && truth(value) ? Value(text_form(value)) : loose_value(value)});
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

void bind_rotation_records(nb::module_& module) {
  const nb::object none = nb::none();
  const nb::object nothing = nb::tuple();
  records.state =
      make_record(module, "RotationState",
                  {{"active_relative_paths", "tuple[str, ...]"},
                   {"generation", "int"},
                   {"seed", "int"},
                   {"rng_state", "str"},
                   {"rotated_at", "int | None", none}},
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
  records.scope = make_record(module, "SelectionScope",
                              {{"market", "str | None", none},
                               {"named_universes", "tuple[str, ...]", nothing},
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

}  // namespace brackenfen::sync::python

#include "python/adapters/neighbours_rotation.hpp"

#include <utility>

#include "python/conversion/arguments.hpp"
#include "python/conversion/errors.hpp"
#include "python/conversion/rotation_records.hpp"
#include "python/conversion/values.hpp"

namespace brackenfen::sync::python {
namespace {

constexpr const ErrorClass* ROTATION_ERRORS[] = {&error_class::RotationStatePayloadError, &error_class::ActiveRotationStateError,
                                                 &error_class::VocabularyScopeError, &error_class::MandatoryArtifactsTooLargeError};

/// What an operation of the host's module gave back, as errors call it.
std::string result_of(const char* operation) { return std::string("the result of ") + operation; }

/// Refused here, before anything is written or removed by it.
RotationStateRef state_from(nb::handle result, const char* operation) { return rotation_state_argument(result, result_of(operation)); }

/// Made attached, keeps the module for one operation, and serves any thread of it.
class HostArtifactRotation : public ArtifactRotation {
 public:
  explicit HostArtifactRotation(nb::handle module) : module_(module), identity_(module.ptr()) {}

  std::string manifest_file_kind(const Value& file_info) const override {
    return call_python(
        [&] { return text_argument(operation("manifest_file_kind")(to_python(file_info)), result_of("manifest_file_kind")); });
  }
  std::optional<std::string> vocabulary_named_universe_from_path(std::string_view relative_path) const override {
    return call_python([&]() -> std::optional<std::string> {
      const nb::object universe = operation("vocabulary_named_universe_from_path")(to_python(relative_path));
      if (universe.is_none()) return std::nullopt;
      return text_form(universe);
    });
  }

  const void* identity() const noexcept override { return identity_; }

  ArtifactsRef artifact_descriptors(std::vector<ArtifactRow> rows) const override {
    return call_python([&]() -> ArtifactsRef {
      const nb::object describe = operation("artifact_descriptor_from_manifest_file");
      const nb::object kinds = operation("FEATURE_ARTIFACT_KINDS");
      auto artifacts = std::make_shared<Artifacts>();
      nb::list own;
      for (const ArtifactRow& row : rows) {
        const nb::object descriptor = describe(to_python(row.relative_path), to_python(row.file_info), nb::arg("feature_kinds") = kinds);
        if (descriptor.is_none()) refuse(result_of("artifact_descriptor_from_manifest_file"), "a descriptor", descriptor);
        artifacts->descriptors.push_back(artifact_argument(descriptor));
        own.append(descriptor);
      }
      artifacts->own = std::make_shared<const ModuleRecord>(checked(PyList_AsTuple(own.ptr())), module_.get());
      return artifacts;
    });
  }

  RotationPlan plan_rotation(const ArtifactsRef& artifacts, const ArtifactRotationSettings& settings,
                             const RotationStateRef& previous_state, std::string_view reason, const PlanningFacts&) const override {
    return call_python([&] {
      return plan_argument(operation("plan_rotation")(artifacts_to_python(*artifacts), own_settings(settings),
                                                      nb::arg("previous_state") = rotation_state_to_python(previous_state),
                                                      nb::arg("reason") = to_python(reason)),
                           result_of("plan_rotation"));
    });
  }
  RotationPlan plan_from_active_rotation_state(const ArtifactsRef& artifacts, const ArtifactRotationSettings& settings,
                                               const RotationStateRef& active_state, const PlanningFacts&) const override {
    return call_python([&] {
      return plan_argument(operation("plan_from_active_rotation_state")(artifacts_to_python(*artifacts), own_settings(settings),
                                                                        rotation_state_to_python(active_state)),
                           result_of("plan_from_active_rotation_state"));
    });
  }
  RotationStateRef promote_rotation_candidate(const RotationStateRef& active_state, const RotationStateRef& candidate_state,
                                              const TextList& available_relative_paths) const override {
    return call_python([&] {
      return state_from(
          operation("promote_rotation_candidate")(nb::arg("active_state") = rotation_state_to_python(active_state),
                                                  nb::arg("candidate_state") = rotation_state_to_python(candidate_state),
                                                  nb::arg("available_relative_paths") = tuple_of_texts(available_relative_paths)),
          "promote_rotation_candidate");
    });
  }

  Value rotation_state_payload(const RotationStateRef& state, int schema_version) const override {
    return call_python([&] {
      return document_argument(
          operation("rotation_state_payload")(rotation_state_to_python(state), nb::arg("schema_version") = schema_version),
          result_of("rotation_state_payload"));
    });
  }
  RotationStateRef rotation_state_from_payload(const Value& payload, const std::string& source, int schema_version) const override {
    return call_python([&] {
      return state_from(operation("rotation_state_from_payload")(to_python(payload), nb::arg("source") = path_to_python(source),
                                                                 nb::arg("schema_version") = schema_version),
                        "rotation_state_from_payload");
    });
  }

  RotationStatusAccounting rotation_status_accounting(const Artifacts& artifacts, const RotationStateRef& state,
                                                      const Value& settings_payload, const OwnRecordRef& own_settings,
                                                      const std::vector<Text>& existing_relative_paths) const override {
    return call_python([&] {
      const nb::object own = object_of(own_settings);
      const nb::object accounting = operation("rotation_status_accounting")(
          artifacts_to_python(artifacts), rotation_state_to_python(state), own.is_valid() ? own : to_python(settings_payload),
          nb::arg("existing_relative_paths") = tuple_of_texts(existing_relative_paths));
      const std::string label = result_of("rotation_status_accounting");
      const auto paths = [&](const char* name) {
        return text_list_argument(required_attribute(accounting, name, label), label + '.' + name);
      };
      return RotationStatusAccounting{paths("eligible_relative_paths"), paths("selected_relative_paths"), paths("skipped_relative_paths"),
                                      paths("departed_relative_paths"), paths("missing_active_relative_paths")};
    });
  }
  TextSet rotation_cleanup_keep_paths(const Value& files, TextSet protected_paths,
                                      const std::vector<Text>& metadata_relative_paths) const override {
    return call_python([&] {
      const nb::object keep = operation("rotation_cleanup_keep_paths")(
          to_python(files), set_of_texts(protected_paths), nb::arg("metadata_relative_paths") = tuple_of_texts(metadata_relative_paths));
      return set_of(text_list_argument(keep, result_of("rotation_cleanup_keep_paths")));
    });
  }
  ScopedVocabulary scope_vocabulary_to_active_rotation(const Document& vocabulary, const TextSet& active_relative_paths,
                                                       const Artifacts& artifacts) const override {
    return call_python([&]() -> ScopedVocabulary {
      return {Document(), own_record(operation("scope_vocabulary_to_active_rotation")(
                              to_python(vocabulary), nb::arg("active_relative_paths") = set_of_texts(active_relative_paths),
                              nb::arg("manifest_artifacts") = artifacts_to_python(artifacts)))};
    });
  }

  const ErrorClass& rotation_state_payload_error_class() const override { return described(error_class::RotationStatePayloadError); }
  const ErrorClass& active_rotation_state_error_class() const override { return described(error_class::ActiveRotationStateError); }
  Error vocabulary_scope_error(std::string text) const override {
    return call_python([&] { return to_error(nb::object(operation("VocabularyScopeError")(to_python(text)))); });
  }
  Error mandatory_artifacts_too_large_error(const Value& mandatory_bytes, const Value& available_bytes) const override {
    return call_python([&] {
      return to_error(nb::object(operation("MandatoryArtifactsTooLargeError")(nb::arg("mandatory_bytes") = to_python(mandatory_bytes),
                                                                              nb::arg("available_bytes") = to_python(available_bytes),
                                                                              nb::arg("selected_paths") = nb::tuple())));
    });
  }

 private:
  /// Keeps the module alive with what it made, so that no other module can take its identity.
  class ModuleRecord : public HostRecord {
   public:
    ModuleRecord(nb::handle object, nb::handle module) : HostRecord(object), module_(module) {}

   private:
    PyRef module_;
  };

  [[nodiscard]] nb::object operation(const char* name) const { return module_.get().attr(name); }
  [[nodiscard]] nb::object own_settings(const ArtifactRotationSettings& settings) const {
    return rotation_settings_to_python(settings, nb::borrow(module_.get()));
  }
  /// The module's class of that name, or the built-in one where it has none.
  [[nodiscard]] const ErrorClass& described(const ErrorClass& builtin) const {
    return call_python([&]() -> const ErrorClass& {
      const nb::object found = attribute_or_none(module_.get(), std::string(builtin.name()).c_str());
      return found.is_none() ? builtin : describe_class(found);
    });
  }

  PyRef module_;
  const void* identity_;
};

class HostRotationSettings : public RotationSettings {
 public:
  explicit HostRotationSettings(nb::handle module) : module_(module) {}

  LoadedRotationSettings load_rotation_settings(const std::string& data_dir, const Document& catalog_context, const Value&) const override {
    return call_python([&] {
      const nb::object loaded =
          module_.get().attr("load_rotation_settings")(path_to_python(data_dir), nb::arg("catalog_context") = to_python(catalog_context));
      const std::string label = result_of("load_rotation_settings");
      const auto attribute = [&](const char* name) { return required_attribute(loaded, name, label); };
      const auto field = [&](const char* name) { return value_or_text(attribute(name)); };
      LoadedRotationSettings settings;
      const nb::object budget = attribute("feature_budget_gb");
      if (!budget.is_none()) {
        if (equal_objects(budget, full_download_sentinel())) {
          settings.feature_budget_gb = FULL_DOWNLOAD;
        } else if (PyLong_Check(budget.ptr())) {
          settings.feature_budget_gb = value_argument(budget, label + ".feature_budget_gb");
        } else {
          settings.feature_budget_gb = real_argument(budget, label + ".feature_budget_gb");
        }
      }
      settings.algorithm = field("algorithm");
      settings.rotation_seed = field("rotation_seed");
      settings.market = field("market");
      const nb::object universes = attribute("named_universes");
      require_collection(universes, label + ".named_universes", Reading::Again);
      const std::vector<std::string> names = texts_argument(universes, label + ".named_universes");
      settings.named_universes = List(std::vector<Value>(names.begin(), names.end()));
      settings.family = field("family");
      settings.subfamily = field("subfamily");
      settings.own = own_record(loaded);
      return settings;
    });
  }

  Value model_dump(const LoadedRotationSettings& settings) const override {
    return call_python([&] { return settings_payload_argument(object_of(settings.own).attr("model_dump")()); });
  }

 private:
  PyRef module_;
};

}  // namespace

NeighbourModule& rotation_module() {
  static NeighbourModule& module = *new NeighbourModule("_artifact_rotation");
  return module;
}

NeighbourModule& rotation_settings_module() {
  static NeighbourModule& module = *new NeighbourModule("_rotation_settings");
  return module;
}

std::unique_ptr<const ArtifactRotation> host_artifact_rotation(nb::handle module) {
  return std::make_unique<const HostArtifactRotation>(module);
}

std::unique_ptr<const RotationSettings> host_rotation_settings(nb::handle module) {
  return std::make_unique<const HostRotationSettings>(module);
}

nb::object full_download_sentinel() {
  const nb::object module = rotation_module().find();
  const nb::object sentinel = module.is_valid() ? attribute_or_none(module, "FULL_DOWNLOAD") : nb::object(nb::none());
  return sentinel.is_none() ? to_python(FULL_DOWNLOAD) : sentinel;
}

bool equal_objects(nb::handle left, nb::handle right) {
  const int answer = PyObject_RichCompareBool(left.ptr(), right.ptr(), Py_EQ);
  if (answer < 0) throw nb::python_error();
  return answer == 1;
}

nb::object rotation_error_class(const std::string& name) {
  for (const ErrorClass* error_class : ROTATION_ERRORS) {
    if (error_class->name() != name) continue;
    const nb::object module = rotation_module().find();
    const nb::object found = module.is_valid() ? attribute_or_none(module, name.c_str()) : nb::object(nb::none());
    return found.is_none() ? nb::borrow(python_class(*error_class)) : found;
  }
  return {};
}

}  // namespace brackenfen::sync::python

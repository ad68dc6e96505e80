// What the rotation's files and plans say, free of any manager.
#include "python/adapters/neighbours_rotation.hpp"
#include "python/bindings/binding.hpp"
#include "python/conversion/rotation_records.hpp"
#include "sync/rotation/artifacts.hpp"
#include "sync/rotation/planning.hpp"
#include "sync/rotation/prefetched_features.hpp"
#include "sync/rotation/state_file.hpp"
#include "sync/rotation/status.hpp"

namespace brackenfen::sync::python {
namespace {

std::shared_ptr<NeighbourSet> neighbours() { return host_neighbours().bind(); }

/// The attribute `_data` of any object; null where it has none.
Value data_of(nb::handle manifest) { return attribute_of(manifest, "_data"); }

nb::object rows_to_python(nb::handle manifest) {
  const Value data = data_of(manifest);
  const Value files = files_of(manifest);
  nb::list rows;
  for (const ArtifactRow& row : detached([&] { return _rotation_artifact_rows(data, files); }))
    rows.append(nb::make_tuple(to_python(row.relative_path), to_python(row.file_info)));
  return checked(PyList_AsTuple(rows.ptr()));
}

ArtifactsRef artifacts_of(nb::handle manifest) {
  const Value data = data_of(manifest);
  const Value files = files_of(manifest);
  return detached([&] { return _rotation_manifest_artifacts(*neighbours(), data, files); });
}

nb::object budget_bytes(nb::handle settings) {
  nb::object gigabytes = required_attribute(settings, "feature_budget_gb", "settings");
  if (gigabytes.is_none()) return gigabytes;
  nb::object full_download = full_download_sentinel();
  if (equal_objects(gigabytes, full_download)) return full_download;
  // In Python's own arithmetic, whatever kind of number it is.
  const nb::object bytes = checked(PyNumber_Multiply(gigabytes.ptr(), nb::int_(FEATURE_ROTATION_BYTES_PER_GB).ptr()));
  return checked(PyNumber_Long(bytes.ptr()));
}

void apply_result_fields(nb::handle result, nb::handle given) {
  const RotationSelection selection = selection_argument(given, "selection");
  static_cast<void>(required_attribute(result, "active_relative_paths", "result"));
  result.attr("active_relative_paths") = tuple_of_texts(selection.active_relative_paths);
  result.attr("mandatory_relative_paths") = tuple_of_texts(selection.mandatory_relative_paths);
  result.attr("skipped_relative_paths") = tuple_of_texts(selection.skipped_relative_paths);
  const auto integer_or_none = [&](const char* name) {
    const nb::object value = required_attribute(given, name, "selection");
    return value.is_none() ? value : whole_number(value, std::string("selection.") + name);
  };
  result.attr("rotation_seed") = integer_or_none("seed");
  result.attr("feature_budget_bytes") = integer_or_none("feature_budget_bytes");
}

nb::object next_at(nb::handle data_dir, nb::handle settings_payload) {
  const std::string directory = path_argument(data_dir, "data_dir");
  const Value settings = settings_payload_argument(settings_payload);
  const Seams seams = host_seams();
  const auto next = detached([&] { return _rotation_next_at(*seams.files, *seams.clock, directory, settings); });
  if (!next) return nb::make_tuple(nb::none(), nb::none());
  return nb::make_tuple(to_python(next->at), next->due);
}

bool is_due(nb::handle data_dir, nb::handle settings_payload, nb::handle active_state) {
  const std::string directory = path_argument(data_dir, "data_dir");
  const Value settings = settings_payload_argument(settings_payload);
  const RotationStateRef state = rotation_state_or_none(active_state, "active_state");
  const Seams seams = host_seams();
  return detached([&] { return _rotation_is_due(*seams.files, *seams.clock, directory, settings, state); });
}

nb::object status_payload(nb::handle data_dir, nb::handle settings_payload) {
  const std::string directory = path_argument(data_dir, "data_dir");
  const Value settings = settings_payload_argument(settings_payload);
  const OwnRecordRef own_settings = own_record(settings_payload);
  const Seams seams = host_seams();
  return to_python(detached(
      [&] { return feature_rotation_status_payload(*neighbours(), *seams.files, *seams.clock, directory, settings, own_settings); }));
}

nb::object promote_candidate(nb::handle active_state, nb::handle candidate_state, nb::handle available_relative_paths) {
  const RotationStateRef active = rotation_state_or_none(active_state, "active_state");
  const RotationStateRef candidate = rotation_state_argument(candidate_state, "candidate_state");
  const TextList available = text_list_argument(available_relative_paths, "available_relative_paths");
  return rotation_state_to_python(
      detached([&] { return neighbours()->artifact_rotation().promote_rotation_candidate(active, candidate, available); }));
}

void bind_state_file(nb::module_& module) {
  module.attr("_FEATURE_ROTATION_STATE_FILENAME") = FEATURE_ROTATION_STATE_FILENAME;
  module.attr("_FEATURE_ROTATION_STATE_VERSION") = FEATURE_ROTATION_STATE_VERSION;
  module.def(
      "feature_rotation_state_path",
      [](nb::handle data_dir) { return path_to_python(feature_rotation_state_path(path_argument(data_dir, "data_dir"))); }, any("data_dir"),
      nb::sig("def feature_rotation_state_path(data_dir: str | os.PathLike[str]) -> str"), "Where a directory keeps its rotation state.");
  module.def(
      "load_feature_rotation_state",
      [](nb::handle data_dir) {
        const std::string directory = path_argument(data_dir, "data_dir");
        return rotation_state_to_python(detached([&] { return load_feature_rotation_state(*neighbours(), directory); }));
      },
      any("data_dir"), nb::sig("def load_feature_rotation_state(data_dir: str | os.PathLike[str]) -> RotationState | None"),
      "The rotation state on disk, or None where there is none. Raises FeatureRotationStateError for a damaged file.");
  module.def(
      "write_feature_rotation_state",
      [](nb::handle data_dir, nb::handle state) {
        const std::string directory = path_argument(data_dir, "data_dir");
        const RotationStateRef given = rotation_state_argument(state, "state");
        const Seams seams = host_seams();
        return path_to_python(
            detached([&] { return write_feature_rotation_state(*neighbours(), *seams.files, *seams.clock, directory, given); }));
      },
      any("data_dir"), any("state"),
      nb::sig("def write_feature_rotation_state(data_dir: str | os.PathLike[str], state: RotationState) -> str"),
      "Write the rotation state atomically and return the file's path.\n\n"
      "The file's modification time counts as the moment of the last rotation. Raises FeatureRotationStateError for a state\n"
      "that has no such form, and OSError.");
  module.def(
      "_drop_retired_unsupported_runtime_paths_from_state",
      [](nb::handle state, nb::handle manifest) {
        const RotationStateRef given = rotation_state_or_none(state, "state");
        const RotationStateRef kept = _drop_retired_unsupported_runtime_paths_from_state(given, files_of(manifest));
        return kept == given ? nb::borrow(state) : rotation_state_to_python(kept);
      },
      any("state"), any("manifest"));
  module.def(
      "_rotation_frequency_seconds",
      [](nb::handle settings_payload) { return to_python(_rotation_frequency_seconds(settings_payload_argument(settings_payload))); },
      any("settings_payload"));
  module.def("_promote_artifact_rotation_candidate", promote_candidate, nb::kw_only(), any("active_state"), any("candidate_state"),
             any("available_relative_paths"));
  module.def("_rotation_next_at", next_at, any("data_dir"), any("settings_payload"));
  module.def("_rotation_is_due", is_due, any("data_dir"), any("settings_payload"), any("active_state"));
}

void bind_status(nb::module_& module) {
  module.def(
      "_load_feature_rotation_status_manifest",
      [](nb::handle data_dir) {
        const std::string directory = path_argument(data_dir, "data_dir");
        return manifest_to_python(detached([&] { return _load_feature_rotation_status_manifest(*neighbours(), directory); }));
      },
      any("data_dir"));
  module.def("feature_rotation_status_payload", status_payload, any("data_dir"), nb::kw_only(), nb::arg("settings_payload") = nb::none(),
             nb::sig("def feature_rotation_status_payload(data_dir: str | os.PathLike[str], *, settings_payload: "
                     "collections.abc.Mapping[str, object] | None = None) -> dict[str, object]"),
             "What a directory holds of its features, and when they change next; docs/rotation.md tells the 21 keys.\n\n"
             "settings_payload: a document with `rotation_frequency`; without one the two keys of the next rotation are None.\n"
             "Raises FeatureRotationStateError for a damaged state file or manifest.json.");
  module.def(
      "_existing_rotation_paths",
      [](nb::handle data_dir, nb::handle relative_paths) {
        const std::string directory = path_argument(data_dir, "data_dir");
        const std::vector<Text> paths = text_list_argument(relative_paths, "relative_paths");
        return tuple_of_texts(detached([&] { return _existing_rotation_paths(directory, paths); }));
      },
      any("data_dir"), any("relative_paths"));
  module.def(
      "_manifest_era_id_or_none",
      [](nb::handle manifest) { return to_python(_manifest_era_id_or_none(attribute_of(manifest, "era_number"))); }, any("manifest"));
}

void bind_planning(nb::module_& module) {
  module.attr("_FEATURE_ROTATION_BYTES_PER_GB") = FEATURE_ROTATION_BYTES_PER_GB;
  module.def("_rotation_artifact_rows", rows_to_python, any("manifest"));
  module.def(
      "_rotation_manifest_artifacts", [](nb::handle manifest) { return artifacts_to_python(*artifacts_of(manifest)); }, any("manifest"));
  module.def(
      "_rotation_artifacts_require_scoped_settings",
      [](nb::handle artifacts) {
        return _rotation_artifacts_require_scoped_settings({artifacts_argument(artifacts, "artifacts"), nullptr});
      },
      any("artifacts"));
  module.def(
      "_rotation_catalog_context_from_manifest",
      [](nb::handle manifest) {
        const Value data = data_of(manifest);
        const ArtifactsRef artifacts = artifacts_of(manifest);
        return to_python(_rotation_catalog_context_from_manifest(data.is_document() ? *data.if_document() : Document(), *artifacts));
      },
      any("manifest"));
  module.def("_rotation_feature_budget_bytes", budget_bytes, any("settings"));
  module.def("_apply_rotation_result_fields", apply_result_fields, any("result"), any("selection"));
}

void bind_prefetched(nb::module_& module) {
  module.attr("_PREFETCHED_FEATURES_FILENAME") = PREFETCHED_FEATURES_FILENAME;
  module.attr("_PREFETCHED_FEATURES_VERSION") = PREFETCHED_FEATURES_VERSION;
  module.def(
      "_prefetched_features_state_path",
      [](nb::handle data_dir) { return path_to_python(_prefetched_features_state_path(path_argument(data_dir, "data_dir"))); },
      any("data_dir"));
  module.def(
      "_manifest_prefetched_feature_paths",
      [](nb::handle manifest, nb::handle paths) {
        return tuple_of_texts(
            _manifest_prefetched_feature_paths(*neighbours(), files_of(manifest), texts_or_nulls_argument(or_empty(paths), "paths")));
      },
      any("manifest"), any("paths"));
}

}  // namespace

void bind_rotation(nb::module_& module) {
  bind_state_file(module);
  bind_status(module);
  bind_planning(module);
  bind_prefetched(module);
}

}  // namespace brackenfen::sync::python

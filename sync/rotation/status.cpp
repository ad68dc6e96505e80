#include "sync/rotation/status.hpp"

#include <span>
#include <utility>

#include "sync/base/error.hpp"
#include "sync/base/files/descriptor.hpp"
#include "sync/base/files/paths.hpp"
#include "sync/base/values/convert.hpp"
#include "sync/base/values/json.hpp"
#include "sync/documents/manifest_file.hpp"
#include "sync/rotation/artifacts.hpp"
#include "sync/rotation/state_file.hpp"

namespace brackenfen::sync {
namespace {

List list_of(std::span<const Text> paths) { return List(std::vector<Value>(paths.begin(), paths.end())); }

Document counts_of(const TextList& active_paths, const RotationStatusAccounting& accounting) {
  return {{"active_path_count", active_paths.size()},
          {"eligible_feature_count", accounting.eligible_relative_paths.size()},
          {"selected_feature_count", accounting.selected_relative_paths.size()},
          {"skipped_feature_count", accounting.skipped_relative_paths.size()},
          {"departed_feature_count", accounting.departed_relative_paths.size()},
          {"missing_active_path_count", accounting.missing_active_relative_paths.size()}};
}

}  // namespace

std::shared_ptr<Manifest> _load_feature_rotation_status_manifest(NeighbourSet& neighbours, std::string_view data_dir) {
  const std::string path = join_path(data_dir, MANIFEST_FILENAME);
  if (!path_exists(path)) return nullptr;
  Value payload;
  try {
    payload = parse_json(read_file(path));
  } catch (const Error& error) {
    throw FeatureRotationStateError("invalid manifest.json for feature rotation status: " + error.text());
  }
  if (!payload.is_document()) throw FeatureRotationStateError("manifest.json for feature rotation status must contain a JSON object");
  return std::make_shared<Manifest>(neighbours, payload);
}

Document feature_rotation_status_payload(NeighbourSet& neighbours, Files& files, Clock& clock, std::string_view data_dir,
                                         const Value& settings_payload, const OwnRecordRef& own_settings) {
  const RotationStateRef state = load_feature_rotation_state(neighbours, data_dir);
  const std::shared_ptr<Manifest> manifest = _load_feature_rotation_status_manifest(neighbours, data_dir);
  const ArtifactRotation& rotation = neighbours.artifact_rotation();
  const ArtifactsRef artifacts = manifest ? _rotation_manifest_artifacts(neighbours, *manifest) : rotation.artifact_descriptors({});
  const TextList active_paths = state ? state->active_relative_paths() : TextList();
  std::vector<Text> artifact_paths;
  for (const ArtifactDescriptor& artifact : artifacts->descriptors) artifact_paths.push_back(artifact.relative_path);
  const RotationStatusAccounting accounting = rotation.rotation_status_accounting(*artifacts, state, settings_payload, own_settings,
                                                                                  _existing_rotation_paths(data_dir, artifact_paths));
  const std::optional<NextRotation> next = _rotation_next_at(files, clock, data_dir, settings_payload);

  const char* state_name = !state ? "uninitialized" : accounting.missing_active_relative_paths.empty() ? "active" : "incomplete";
  const Document counts = counts_of(active_paths, accounting);
  std::vector<Member> payload{{"state", state_name},
                              {"manifest_available", manifest != nullptr},
                              {"era_number", manifest ? _manifest_era_id_or_none(manifest->era_number()) : Value()},
                              {"manifest_version", manifest ? to_integer_or_absent(manifest->version()).value_or(Value()) : Value()},
                              {"generation", state ? to_integer(state->generation()) : Value()},
                              {"seed", state ? to_integer(state->seed()) : Value()},
                              {"rng_state", state ? Value(state->rng_state()) : Value()},
                              {"active_relative_paths", list_of(active_paths)},
                              {"selected_relative_paths", list_of(accounting.selected_relative_paths)},
                              {"skipped_relative_paths", list_of(accounting.skipped_relative_paths)},
                              {"departed_relative_paths", list_of(accounting.departed_relative_paths)},
                              {"missing_active_relative_paths", list_of(accounting.missing_active_relative_paths)}};
  payload.insert(payload.end(), counts.begin(), counts.end());
  payload.push_back({"status_accounting", counts});
  payload.push_back({"next_rotation_at", next ? Value(next->at) : Value()});
  payload.push_back({"next_rotation_due", next ? Value(next->due) : Value()});
  return Document(std::move(payload));
}

}  // namespace brackenfen::sync

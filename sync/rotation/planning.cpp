// Planning a rotation: what the neighbours are asked, and what the disk must hold.
#include "sync/rotation/planning.hpp"

#include "sync/base/error.hpp"
#include "sync/base/files/paths.hpp"
#include "sync/base/values/convert.hpp"
#include "sync/base/values/integer_sum.hpp"
#include "sync/documents/local_files.hpp"
#include "sync/engine/sync_manager.hpp"
#include "sync/rotation/artifacts.hpp"
#include "sync/rotation/state_file.hpp"

namespace brackenfen::sync {
namespace {

Value integer_or_null(const Value& value) { return value.is_null() ? Value() : to_integer(value); }

}  // namespace

Value _rotation_feature_budget_bytes(const Value& feature_budget_gb) {
  if (feature_budget_gb.is_null() || is_full_download(feature_budget_gb)) return feature_budget_gb;
  std::int64_t bytes = 0;
  const auto whole = feature_budget_gb.if_integer();
  if (whole && !__builtin_mul_overflow(*whole, FEATURE_ROTATION_BYTES_PER_GB, &bytes)) return bytes;
  return to_integer(Value(to_real(feature_budget_gb) * static_cast<double>(FEATURE_ROTATION_BYTES_PER_GB)));
}

Document _rotation_scoped_files_to_download(const Value& files, const std::vector<ArtifactDescriptor>& selected_artifacts,
                                            const TextSet& existing_relative_paths) {
  const Document* entries = files.if_document();
  std::vector<Member> wanted;
  for (const ArtifactDescriptor& artifact : selected_artifacts) {
    if (contains(existing_relative_paths, artifact.relative_path)) continue;
    const Value* entry = entries ? entries->find(artifact.relative_path) : nullptr;
    if (entry && entry->truthy()) {
      wanted.push_back({artifact.relative_path, *entry});
      continue;
    }
    wanted.push_back({artifact.relative_path, Value(Document{{"kind", artifact.kind},
                                                             {"artifact_kind", artifact.artifact_kind},
                                                             {"size_bytes", artifact.size_bytes},
                                                             {"mandatory", artifact.mandatory},
                                                             {"market", artifact.market},
                                                             {"named_universe", artifact.named_universe},
                                                             {"family", artifact.family},
                                                             {"subfamily", artifact.subfamily}})});
  }
  return Document(std::move(wanted));
}

void _apply_rotation_result_fields(SyncResult& result, const RotationSelection& selection) {
  result.active_relative_paths = selection.active_relative_paths;
  result.mandatory_relative_paths = selection.mandatory_relative_paths;
  result.skipped_relative_paths = selection.skipped_relative_paths;
  result.rotation_seed = integer_or_null(selection.seed);
  result.feature_budget_bytes = integer_or_null(selection.feature_budget_bytes);
}

SyncManager::RotationSettingsForManifest SyncManager::_feature_rotation_settings_for_manifest(NeighbourSet& neighbours, Manifest& manifest,
                                                                                              std::int64_t free_disk_bytes) {
  RotationSettingsForManifest both{load_rotation_settings(neighbours, manifest), {}};
  const LoadedRotationSettings& settings = both.settings;
  const bool limited_by_disk = settings.feature_budget_gb.is_null() || is_full_download(settings.feature_budget_gb);
  both.rotation_settings = {.scoped = true,
                            .algorithm = settings.algorithm,
                            .seed = settings.rotation_seed,
                            .scope = {settings.market, settings.named_universes, settings.family, settings.subfamily},
                            .feature_budget_bytes = _rotation_feature_budget_bytes(settings.feature_budget_gb),
                            .free_disk_bytes = limited_by_disk ? Value(free_disk_bytes) : Value(),
                            .loaded = settings.own};
  return both;
}

bool SyncManager::_feature_rotation_should_rotate(NeighbourSet& neighbours, Manifest& manifest) {
  const RotationStateRef active = _active_rotation_state.get();
  if (!_rotation_artifacts_require_scoped_settings(*_rotation_manifest_artifacts(neighbours, manifest)))
    return active && !active->active_relative_paths().empty();
  if (!active) return true;
  return rotation_is_due(neighbours, load_rotation_settings(neighbours, manifest), active);
}

bool SyncManager::_feature_rotation_needs_sync_for_manifest(NeighbourSet& neighbours, Manifest& manifest) {
  const RotationStateRef active = _active_rotation_state.get();
  if (!_rotation_artifacts_require_scoped_settings(*_rotation_manifest_artifacts(neighbours, manifest)))
    return active && !active->active_relative_paths().empty();
  if (!active || !path_exists(feature_rotation_state_path(_data_dir.get()))) return true;
  return _feature_rotation_should_rotate(neighbours, manifest);
}

SyncManager::PlannedRotation SyncManager::_plan_feature_rotation_for_manifest(NeighbourSet& neighbours, Manifest& manifest,
                                                                              std::int64_t free_disk_bytes, bool force_new_candidate) {
  return plan_rotation(neighbours, manifest, free_disk_bytes, force_new_candidate,
                       _normalize_active_rotation_state_for_manifest(neighbours, manifest));
}

SyncManager::PlannedRotation SyncManager::plan_rotation(NeighbourSet& neighbours, Manifest& manifest, std::int64_t free_disk_bytes,
                                                        bool force_new_candidate, const RotationStateRef& active) {
  const ArtifactsRef artifacts = _rotation_manifest_artifacts(neighbours, manifest);
  const ArtifactRotation& rotation = neighbours.artifact_rotation();
  ArtifactRotationSettings rotation_settings;
  PlanningFacts facts;
  facts.free_disk_bytes = free_disk_bytes;
  facts.now_seconds = static_cast<std::int64_t>(seams_.clock->wall_seconds());
  bool explicit_rotation_budget = false;
  if (_rotation_artifacts_require_scoped_settings(*artifacts)) {
    const RotationSettingsForManifest both = _feature_rotation_settings_for_manifest(neighbours, manifest, free_disk_bytes);
    rotation_settings = both.rotation_settings;
    explicit_rotation_budget = !both.settings.feature_budget_gb.is_null();
    if (active && force_new_candidate && &rotation == &ArtifactRotation::builtin()) {
      facts.frequency_seconds = _rotation_frequency_seconds(neighbours.rotation_settings().model_dump(both.settings));
      facts.rotation_due = rotation_is_due(neighbours, both.settings, active);
    }
  }

  const std::shared_ptr<Manifest> local = _manifest.get();
  LocalFiles local_files(_data_dir.get());
  facts.present = [&](const Text& path, std::int64_t size_bytes, const Value& sha256) {
    return is_present(local_files, local.get(), path, size_bytes, sha256);
  };
  if (!active || force_new_candidate)
    return {rotation.plan_rotation(artifacts, rotation_settings, active, "sync", facts), explicit_rotation_budget};
  try {
    return {rotation.plan_from_active_rotation_state(artifacts, rotation_settings, active, facts), explicit_rotation_budget};
  } catch (const Error& error) {
    if (!error.is(rotation.active_rotation_state_error_class())) throw;
    throw SyncError(error.text());
  }
}

void SyncManager::_precheck_rotation_disk_budget(NeighbourSet& neighbours, const RotationSelection& selection, std::int64_t free_disk_bytes,
                                                 bool /*enforce_default_cap*/) {
  const std::int64_t half_free = free_disk_bytes / 2 - (free_disk_bytes % 2 < 0 ? 1 : 0);
  const Value mandatory_bytes = to_integer(selection.mandatory_bytes);
  if (compare_integers(mandatory_bytes, half_free) > 0)
    throw neighbours.artifact_rotation().mandatory_artifacts_too_large_error(mandatory_bytes, half_free);
  const Value feature_budget = selection.feature_budget_bytes.truthy() ? to_integer(selection.feature_budget_bytes) : Value(0);
  const Value total_needed = add_integers(mandatory_bytes, feature_budget);
  if (compare_integers(total_needed, free_disk_bytes) > 0) {
    throw DiskSpaceError("Insufficient disk space: need " + to_text(total_needed) + " bytes, have " + std::to_string(free_disk_bytes) +
                         " bytes available");
  }
}

LoadedRotationSettings SyncManager::load_rotation_settings(NeighbourSet& neighbours, Manifest& manifest) {
  const RotationStateRef active = _active_rotation_state.get();
  const Document context = rotation_catalog(neighbours, manifest).context;
  const Value seed = active ? active->seed() : planned_seed_.get();
  LoadedRotationSettings settings = neighbours.rotation_settings().load_rotation_settings(_data_dir.get(), context, seed);
  if (settings.rotation_seed.is_null()) settings.rotation_seed = seed.is_null() ? random_rotation_seed() : seed;
  planned_seed_.set(settings.rotation_seed);
  return settings;
}

bool SyncManager::rotation_is_due(NeighbourSet& neighbours, const LoadedRotationSettings& settings, const RotationStateRef& active) {
  return _rotation_is_due(*seams_.files, *seams_.clock, _data_dir.get(), neighbours.rotation_settings().model_dump(settings), active);
}

bool SyncManager::is_present(LocalFiles& local_files, const Manifest* local, const Text& path, std::int64_t size_bytes,
                             const Value& sha256) {
  std::optional<FileStat> stat;
  try {
    stat = local_files.stat(path);
  } catch (const Error& error) {
    if (!error.is(error_class::ManifestError)) throw;  // the pass that comes to the path refuses it
  }
  if (!stat || stat->is_directory || stat->size_bytes != size_bytes) return false;
  const auto digest = sha256.if_text();
  if (!digest || digest->empty() || _hash_cache.holds(path, *stat, *digest)) return true;
  const Value promised = local ? local->file(path) : Value();
  const Document* entry = promised.if_document();
  return entry && entry->get("sha256") == sha256;
}

}  // namespace brackenfen::sync

// From a candidate that has its files to the active state: the state file, the searches, the clean-up.
#include "sync/base/error.hpp"
#include "sync/base/files/paths.hpp"
#include "sync/base/log.hpp"
#include "sync/base/values/convert.hpp"
#include "sync/engine/sync_manager.hpp"
#include "sync/neighbours/rotation_state.hpp"
#include "sync/rotation/artifacts.hpp"
#include "sync/rotation/cleanup.hpp"
#include "sync/rotation/state_file.hpp"

namespace brackenfen::sync {
namespace {

void require_state(const RotationStateRef& state) {
  if (!state) throw AttributeError("'NoneType' object has no attribute 'active_relative_paths'");
}

/// Whether `promoted` belongs to the rotation of `active`, as far as the built-in states tell.
bool same_rotation(const RotationStateRef& active, const RotationStateRef& promoted) {
  const bool both_built_in = dynamic_cast<const BuiltinRotationState*>(active.get()) != nullptr &&
                             dynamic_cast<const BuiltinRotationState*>(promoted.get()) != nullptr;
  return both_built_in && active->generation() == promoted->generation();
}

}  // namespace

RotationStateRef SyncManager::_promote_rotation_candidate(NeighbourSet& neighbours, const RotationStateRef& candidate_state,
                                                          const std::vector<Text>& available_relative_paths) {
  require_state(candidate_state);
  RotationStateRef promoted =
      neighbours.artifact_rotation().promote_rotation_candidate(_active_rotation_state.get(), candidate_state, available_relative_paths);
  _write_promoted_rotation_state(neighbours, promoted);
  return promoted;
}

void SyncManager::_write_promoted_rotation_state(NeighbourSet& neighbours, const RotationStateRef& promoted) {
  if (!promoted) return;
  const std::string data_dir = _data_dir.get();
  const std::string path = feature_rotation_state_path(data_dir);
  const RotationStateRef active = _active_rotation_state.get();
  if (equal_states(promoted, active) && path_exists(path)) return;
  const std::optional<FileStat> before = seams_.files->stat(path);
  write_feature_rotation_state(neighbours, *seams_.files, *seams_.clock, data_dir, promoted);
  if (before && same_rotation(active, promoted)) {
    // Other paths within one rotation: the next one stays where it was.
    try {
      seams_.files->set_mtime(path, before->mtime_ns);
    } catch (const Error& error) {
      log_debug("the time of the last rotation could not be kept: %s", error.text());
    }
  }
  _active_rotation_state.set(promoted);
}

RotationStateRef SyncManager::_normalize_active_rotation_state_for_manifest(NeighbourSet& neighbours, const Manifest& manifest) {
  RotationStateRef active = _active_rotation_state.get();
  RotationStateRef cleaned = _drop_retired_unsupported_runtime_paths_from_state(active, manifest.files());
  if (equal_states(cleaned, active)) return active;
  _write_promoted_rotation_state(neighbours, cleaned);
  return cleaned;
}

void SyncManager::adopt_later_rotation(NeighbourSet& neighbours) {
  const std::string data_dir = _data_dir.get();
  const std::optional<FileStat> found = seams_.files->stat(feature_rotation_state_path(data_dir));
  const std::optional<FileStat> seen = rotation_state_seen_.get();
  if (!found || (seen && seen->inode == found->inode && seen->ctime_ns == found->ctime_ns)) return;
  rotation_state_seen_.set(found);
  try {
    const RotationStateRef stored = load_feature_rotation_state(neighbours, data_dir);
    const RotationStateRef active = _active_rotation_state.get();
    if (stored && (!active || compare_integers(to_integer(stored->generation()), to_integer(active->generation())) > 0))
      _active_rotation_state.set(stored);
  } catch (const Error& error) {
    log_warning("the rotation state on disk is unusable, the one in memory goes on: %s", error.text());
  }
}

std::vector<Text> SyncManager::add_active_feature_paths(const std::vector<Text>& relative_paths) {
  require_own_process();
  if (relative_paths.empty()) return {};
  const std::shared_ptr<NeighbourSet> neighbours = seams_.neighbours->bind();
  const RotationStateRef state = load_feature_rotation_state(*neighbours, _data_dir.get());
  if (!state) return {};
  const std::vector<Text> old_paths = state->active_relative_paths();
  std::vector<Text> active_paths;
  TextSet seen;
  for (const std::vector<Text>* paths : {&old_paths, &relative_paths}) {
    for (const Text& path : *paths) {
      if (seen.insert(path).second) active_paths.push_back(path);
    }
  }
  if (active_paths != old_paths) _write_promoted_rotation_state(*neighbours, state->with_active_relative_paths(active_paths));
  return active_paths;
}

std::vector<SearchRefreshPayload> SyncManager::_rotation_search_refresh_payloads(
    NeighbourSet& neighbours, const RotationStateRef& rotation_state, const Value& vocabulary, const std::shared_ptr<Manifest>& manifest,
    const std::optional<std::vector<SearchConsumerRef>>& consumers) {
  const std::vector<SearchConsumerRef> searches = consumers ? *consumers : _rotation_search_consumer_snapshot();
  if (searches.empty()) return {};
  require_state(rotation_state);
  const ArtifactRotation& rotation = neighbours.artifact_rotation();
  const std::shared_ptr<Manifest> manifest_for_scope = manifest ? manifest : _manifest.get();
  const ArtifactsRef artifacts =
      manifest_for_scope ? _rotation_manifest_artifacts(neighbours, *manifest_for_scope) : rotation.artifact_descriptors({});
  const TextSet active_paths = set_of(rotation_state->active_relative_paths());
  std::vector<SearchRefreshPayload> payloads;
  for (const SearchConsumerRef& consumer : searches) {
    SearchRefresh refresh = consumer->refresh_rotation_scope();
    if (!refresh) continue;
    const Document consumer_vocabulary = _rotation_vocabulary_for_consumer(rotation, vocabulary, *consumer);
    ScopedVocabulary scoped = rotation.scope_vocabulary_to_active_rotation(consumer_vocabulary, active_paths, *artifacts);
    payloads.push_back({std::move(refresh), rotation_state, std::move(scoped)});
  }
  return payloads;
}

void SyncManager::_cleanup_inactive_rotation_artifacts(NeighbourSet& neighbours, const Manifest& manifest,
                                                       const std::vector<Text>& active_relative_paths) {
  TextSet protected_paths = set_of(active_relative_paths);
  for (const std::string& path : _prefetched_features._prefetched_feature_keep_paths(neighbours, manifest))
    protected_paths.insert(Text(path));
  const std::vector<Text> metadata{"manifest.json", "shuffle_seed.enc", "shuffle_seed.enc.meta.json", FEATURE_ROTATION_STATE_FILENAME};
  const Value files = manifest.files();
  const TextSet keep = neighbours.artifact_rotation().rotation_cleanup_keep_paths(files.is_document() ? files : Value(Document()),
                                                                                  std::move(protected_paths), metadata);
  delete_files_not_kept(*seams_.files, _data_dir.get(), keep);
}

RotationStateRef SyncManager::_complete_rotation_promotion(NeighbourSet& neighbours, const RotationStateRef& candidate_state,
                                                           const std::vector<Text>& available_relative_paths,
                                                           const std::shared_ptr<Manifest>& manifest) {
  if (!candidate_state) {  // nothing rotates here, and no search has a scope that could change
    _cleanup_inactive_rotation_artifacts(neighbours, *manifest, available_relative_paths);
    return nullptr;
  }
  RotationStateRef promoted =
      neighbours.artifact_rotation().promote_rotation_candidate(_active_rotation_state.get(), candidate_state, available_relative_paths);
  const std::shared_ptr<const Document> vocabulary = _vocabulary.get();
  const std::vector<SearchRefreshPayload> refresh_payloads =
      _rotation_search_refresh_payloads(neighbours, promoted, vocabulary ? Value(*vocabulary) : Value(), manifest);
  _write_promoted_rotation_state(neighbours, promoted);
  _cleanup_inactive_rotation_artifacts(neighbours, *manifest, promoted->active_relative_paths());
  _deliver_rotation_search_refresh_payloads(refresh_payloads);
  return promoted;
}

void SyncManager::refresh_running_searches_for_rotation(const RotationStateRef& rotation_state, const Value& vocabulary,
                                                        const std::shared_ptr<Manifest>& manifest) {
  require_own_process();
  const std::shared_ptr<NeighbourSet> neighbours = seams_.neighbours->bind();
  _deliver_rotation_search_refresh_payloads(_rotation_search_refresh_payloads(*neighbours, rotation_state, vocabulary, manifest));
}

}  // namespace brackenfen::sync

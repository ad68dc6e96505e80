// From a candidate that has its files to the active state: the state file, the searches, the clean-up.
#include "sync/base/error.hpp"
#include "sync/base/files/paths.hpp"
#include "sync/base/log.hpp"
#include "sync/base/values/convert.hpp"
#include "sync/documents/manifest_file.hpp"
#include "sync/documents/shuffle_seed.hpp"
#include "sync/engine/sync_manager.hpp"
#include "sync/rotation/artifacts.hpp"
#include "sync/rotation/cleanup.hpp"
#include "sync/rotation/search_scope.hpp"
#include "sync/rotation/state_file.hpp"

namespace brackenfen::sync {
namespace {

void require_state(const RotationStateRef& state) {
  if (!state) throw AttributeError("'NoneType' object has no attribute 'active_relative_paths'");
}

}  // namespace

RotationStateRef SyncManager::_promote_rotation_candidate(NeighbourSet& neighbours, const RotationStateRef& candidate_state,
                                                          const TextList& available_relative_paths) {
  require_state(candidate_state);
  RotationStateRef promoted =
      neighbours.artifact_rotation().promote_rotation_candidate(_active_rotation_state.get(), candidate_state, available_relative_paths);
  _write_promoted_rotation_state(neighbours, promoted);
  return promoted;
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

TextSet SyncManager::paths_to_keep(NeighbourSet& neighbours, const Manifest& manifest, const TextList& active_relative_paths,
                                   const std::vector<std::string>& prefetched) {
  TextSet protected_paths = set_of(active_relative_paths);
  for (const std::string& path : prefetched) protected_paths.insert(Text(path));
  const std::vector<Text> metadata{MANIFEST_FILENAME, SHUFFLE_SEED_FILENAME, SHUFFLE_SEED_META_FILENAME, FEATURE_ROTATION_STATE_FILENAME};
  const Value files = manifest.files();
  TextSet keep = neighbours.artifact_rotation().rotation_cleanup_keep_paths(files.is_document() ? files : Value(Document()),
                                                                            std::move(protected_paths), metadata);
  for (const Text& path : rotation_state_changes_.added()) keep.insert(path);
  return keep;
}

std::vector<std::string> SyncManager::_cleanup_inactive_rotation_artifacts(NeighbourSet& neighbours, const Manifest& manifest,
                                                                           const TextList& active_relative_paths, const Manifest* before) {
  const auto lists = [](const Value& files, std::string_view path) {
    const Document* const entries = files.if_document();
    return entries != nullptr && entries->contains(path);
  };
  const TextSet keep =
      paths_to_keep(neighbours, manifest, active_relative_paths, _prefetched_features._prefetched_feature_keep_paths(neighbours, manifest));
  const Value files = manifest.files();
  const Value files_before = before != nullptr ? before->files() : Value();
  int strangers = 0;
  std::vector<std::string> without_staging = delete_files_not_kept(*seams_.files, _data_dir.get(), keep, [&](std::string_view path) {
    const bool is_staging = path.ends_with(".tmp");  // of a download that was broken off
    if (is_staging || lists(files, path) || lists(files_before, path) || _hash_cache.knows(path)) return;
    ++strangers;
    log_debug("Deleted a file that this library had not put there: %s", path);
  });
  if (strangers > 0) log_info("Deleted %d files that this library had not put below its folders of artifacts", strangers);
  return without_staging;
}

SyncManager::Promotion SyncManager::_complete_rotation_promotion(NeighbourSet& neighbours, const RotationStateRef& candidate_state,
                                                                 const TextList& available_relative_paths,
                                                                 const std::shared_ptr<Manifest>& manifest, const Manifest* before) {
  RotationStateRef promoted;
  if (candidate_state) {
    promoted =
        neighbours.artifact_rotation().promote_rotation_candidate(_active_rotation_state.get(), candidate_state, available_relative_paths);
  }
  const RotationStateRef scope = with_added_paths(search_scope(neighbours, promoted, available_relative_paths, *manifest));
  const std::shared_ptr<const Document> vocabulary = _vocabulary.get();
  const std::vector<SearchRefreshPayload> refresh_payloads =
      _rotation_search_refresh_payloads(neighbours, scope, vocabulary ? Value(*vocabulary) : Value(), manifest);
  if (promoted) promoted = store_rotation_state(neighbours, promoted);
  std::vector<std::string> without_staging =
      _cleanup_inactive_rotation_artifacts(neighbours, *manifest, scope->active_relative_paths(), before);
  _deliver_rotation_search_refresh_payloads(refresh_payloads);
  return {std::move(promoted), std::move(without_staging)};
}

void SyncManager::refresh_running_searches_for_rotation(const RotationStateRef& rotation_state, const Value& vocabulary,
                                                        const std::shared_ptr<Manifest>& manifest) {
  require_own_process();
  const std::shared_ptr<NeighbourSet> neighbours = seams_.neighbours->bind();
  _deliver_rotation_search_refresh_payloads(_rotation_search_refresh_payloads(*neighbours, rotation_state, vocabulary, manifest));
}

}  // namespace brackenfen::sync

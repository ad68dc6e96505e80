// The stages of a pass that do nothing yet. Each keeps its place and its interface, and answers "nothing
// done": no document is fetched, none counts as validated, and no rotation is due or promoted.
#include "sync/engine/sync_manager.hpp"

namespace brackenfen::sync {

bool SyncManager::_download_signals_index(NeighbourSet&, Manifest&, SyncResult&) { return false; }

bool SyncManager::_load_manifest_signals_index(NeighbourSet&, Manifest&) { return false; }

std::pair<Document, std::optional<SyncManager::ScrubUpdate>> SyncManager::_scrub_missing_found_pnl_paths_from_signals_index(
    const Document& manifest_data) {
  return {manifest_data, std::nullopt};
}

bool SyncManager::_download_vocabulary(NeighbourSet&, Manifest&) { return false; }

std::optional<Document> SyncManager::_validate_manifest_vocabulary_files(NeighbourSet&, Manifest&) { return std::nullopt; }

bool SyncManager::_download_shuffle_seed(NeighbourSet&, Manifest&) { return false; }

bool SyncManager::_validate_shuffle_seed_file(NeighbourSet&, Manifest&) { return false; }

bool SyncManager::_feature_rotation_should_rotate(NeighbourSet&, Manifest&) { return false; }

SyncManager::PlannedRotation SyncManager::_plan_feature_rotation_for_manifest(NeighbourSet& neighbours, Manifest& manifest, std::int64_t,
                                                                              bool) {
  return {plan_all_files(neighbours, manifest), false};
}

void SyncManager::_precheck_rotation_disk_budget(const RotationSelection&, std::int64_t, bool) {}

void SyncManager::_complete_rotation_promotion(const RotationPlan&, Manifest&) {}

}  // namespace brackenfen::sync

// The stages of a pass that do nothing yet. Each keeps its place and its interface, and answers "nothing
// done": no rotation is due or promoted.
#include "sync/engine/sync_manager.hpp"

namespace brackenfen::sync {

bool SyncManager::_feature_rotation_should_rotate(NeighbourSet&, Manifest&) { return false; }

bool SyncManager::_feature_rotation_needs_sync_for_manifest(NeighbourSet&, Manifest&) { return false; }

SyncManager::PlannedRotation SyncManager::_plan_feature_rotation_for_manifest(NeighbourSet& neighbours, Manifest& manifest, std::int64_t,
                                                                              bool) {
  return {plan_all_files(neighbours, manifest), false};
}

void SyncManager::_precheck_rotation_disk_budget(const RotationSelection&, std::int64_t, bool) {}

void SyncManager::_complete_rotation_promotion(const RotationPlan&, Manifest&) {}

}  // namespace brackenfen::sync

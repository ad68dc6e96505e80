#include "sync/rotation/search_scope.hpp"

#include <memory>

#include "sync/neighbours/rotation_state.hpp"
#include "sync/rotation/artifacts.hpp"

namespace brackenfen::sync {

RotationStateRef search_scope(NeighbourSet& neighbours, const RotationStateRef& promoted, const TextList& available_relative_paths,
                              Manifest& manifest) {
  const bool rotates = _rotation_artifacts_require_scoped_settings(*_rotation_manifest_artifacts(neighbours, manifest));
  if (promoted && (rotates || !promoted->active_relative_paths().empty())) return promoted;
  if (promoted) return promoted->with_active_relative_paths(available_relative_paths);
  auto none = std::make_shared<BuiltinRotationState>();
  none->active_paths = available_relative_paths;
  none->generation_number = 0;
  none->seed_number = 0;
  return none;
}

}  // namespace brackenfen::sync

// The rotation plan of a pass: which manifest paths are active for this client.
//
// No selection is made yet: every file that is not excluded is active, no budget is set, nothing is due and
// no state is promoted.
#pragma once

#include <cstdint>
#include <memory>
#include <optional>
#include <vector>

#include "sync/documents/manifest.hpp"

namespace brackenfen::sync {

struct RotationSelection {
  // Paths share their texts with the manifest.
  std::vector<Text> active_relative_paths;
  std::vector<Text> mandatory_relative_paths;
  std::vector<Text> skipped_relative_paths;
  std::optional<std::int64_t> seed;
  std::optional<std::int64_t> feature_budget_bytes;
};

struct RotationPlan {
  RotationSelection selection;
  std::shared_ptr<const RotationState> candidate_state;  ///< null while nothing is promoted
};

/// All paths of the manifest that are not excluded, in manifest order; none where `files` is no document. The
/// path of an entry that is no document is active: the pass that comes to it refuses the manifest.
[[nodiscard]] RotationPlan plan_all_files(NeighbourSet& neighbours, const Manifest& manifest);

}  // namespace brackenfen::sync

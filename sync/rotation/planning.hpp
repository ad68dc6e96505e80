// What a plan means for budgets, download sets and results.
#pragma once

#include <cstdint>
#include <vector>

#include "sync/base/values/text_set.hpp"
#include "sync/base/values/value.hpp"
#include "sync/neighbours/artifact_rotation.hpp"

namespace brackenfen::sync {

struct SyncResult;

inline constexpr std::int64_t FEATURE_ROTATION_BYTES_PER_GB = 1073741824;

/// Bytes of a budget in units of 2^30, cut towards zero; null and FULL_DOWNLOAD stay what they are.
[[nodiscard]] Value _rotation_feature_budget_bytes(const Value& feature_budget_gb);

/// The entries of the selected artifacts that do not exist yet; one that `files` lacks is described by its artifact.
[[nodiscard]] Document _rotation_scoped_files_to_download(const Value& files, const std::vector<ArtifactDescriptor>& selected_artifacts,
                                                          const TextSet& existing_relative_paths);

/// Seed and budget are converted to integers; what the selection does not state stays null.
void _apply_rotation_result_fields(SyncResult& result, const RotationSelection& selection);

}  // namespace brackenfen::sync

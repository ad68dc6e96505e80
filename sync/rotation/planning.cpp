#include "sync/rotation/planning.hpp"

#include "sync/documents/manifest_filters.hpp"

namespace brackenfen::sync {

RotationPlan plan_all_files(NeighbourSet& neighbours, const Manifest& manifest) {
  RotationPlan plan;
  const Value files = manifest.files();
  const Document* entries = files.if_document();
  if (entries == nullptr) return plan;
  std::vector<Text>& active = plan.selection.active_relative_paths;
  active.reserve(entries->size());
  for (const auto& [path, file_info] : *entries) {
    if (file_info.is_document() && _manifest_file_is_sync_excluded(neighbours, file_info)) continue;
    active.push_back(path);
  }
  return plan;
}

}  // namespace brackenfen::sync

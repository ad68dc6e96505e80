// What operators are shown of a directory's rotation.
#pragma once

#include <memory>
#include <string_view>

#include "sync/documents/manifest.hpp"
#include "sync/transport/files.hpp"

namespace brackenfen::sync {

/// The record of manifest.json; null where there is none. Throws FeatureRotationStateError for one that is unusable.
[[nodiscard]] std::shared_ptr<Manifest> _load_feature_rotation_status_manifest(NeighbourSet& neighbours, std::string_view data_dir);

/// The status document; docs/rotation.md tells its keys. Throws FeatureRotationStateError for a state file or manifest.json
/// that is unusable, ManifestError for a path that is refused.
[[nodiscard]] Document feature_rotation_status_payload(NeighbourSet& neighbours, Files& files, Clock& clock, std::string_view data_dir,
                                                       const Value& settings_payload = {}, const OwnRecordRef& own_settings = nullptr);

}  // namespace brackenfen::sync

// What follows from a rotation: what a clean-up keeps, what a status counts, what a search still finds in its vocabulary.
// The built-in rules.
#pragma once

#include "sync/neighbours/artifact_rotation.hpp"

namespace brackenfen::sync {

/// A scope that many artifacts are held against.
class ScopeFilter {
 public:
  explicit ScopeFilter(SelectionScope scope);
  /// Whether the artifact is in the scope. One that says nothing of a limited field is.
  [[nodiscard]] bool admits(const ArtifactDescriptor& artifact) const;

 private:
  SelectionScope scope_;
  TextSet universes_;  ///< where the scope lists them
};

/// The protected paths, the metadata, and every file of the manifest that is not of kind "feature".
[[nodiscard]] TextSet builtin_cleanup_keep_paths(const ArtifactRotation& rotation, const Value& files, TextSet protected_paths,
                                                 const std::vector<Text>& metadata_relative_paths);

[[nodiscard]] RotationStatusAccounting builtin_status_accounting(const Artifacts& artifacts, const RotationStateRef& state,
                                                                 const Value& settings_payload,
                                                                 const std::vector<Text>& existing_relative_paths);

/// The vocabulary without the features of which artifacts are known and none is active; itself where there are none.
[[nodiscard]] Document builtin_scoped_vocabulary(const Document& vocabulary, const TextSet& active_relative_paths,
                                                 const Artifacts& artifacts);

}  // namespace brackenfen::sync

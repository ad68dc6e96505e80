// The artifacts of a manifest, as the rotation neighbour describes them.
#pragma once

#include <vector>

#include "sync/documents/manifest.hpp"
#include "sync/neighbours/neighbours.hpp"

namespace brackenfen::sync {

/// The rows of the manifest's `artifacts` list, each laid over the file entry of its path; without such a list, the
/// entries of `files` by path.
[[nodiscard]] std::vector<ArtifactRow> _rotation_artifact_rows(const Value& manifest_data, const Value& files);

/// The two functions below on a manifest. Made once for each state of the manifest and neighbour.
[[nodiscard]] RotationCatalog rotation_catalog(NeighbourSet& neighbours, Manifest& manifest);
/// Its artifacts alone.
[[nodiscard]] ArtifactsRef _rotation_manifest_artifacts(NeighbourSet& neighbours, Manifest& manifest);

/// Descriptors of the rows that are documents and not excluded here.
[[nodiscard]] ArtifactsRef _rotation_manifest_artifacts(NeighbourSet& neighbours, const Value& manifest_data, const Value& files);

/// Whether anything here rotates at all.
[[nodiscard]] bool _rotation_artifacts_require_scoped_settings(const Artifacts& artifacts);

/// What the settings may choose from: `current_market`, `market`, `current_universes`, `named_universes`, `families`.
[[nodiscard]] Document _rotation_catalog_context_from_manifest(const Document& manifest_data, const Artifacts& artifacts);

}  // namespace brackenfen::sync

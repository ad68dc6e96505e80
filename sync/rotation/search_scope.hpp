// What running searches are told of where there may be nothing that rotates.
#pragma once

#include "sync/documents/manifest.hpp"
#include "sync/neighbours/neighbours.hpp"

namespace brackenfen::sync {

/// The state that searches are told and the clean-up keeps: the promoted one; where nothing rotates, and that is null or
/// lists no paths, one with all that is available.
[[nodiscard]] RotationStateRef search_scope(NeighbourSet& neighbours, const RotationStateRef& promoted,
                                            const TextList& available_relative_paths, Manifest& manifest);

}  // namespace brackenfen::sync

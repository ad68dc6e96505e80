// Per-universe vocabularies: telling their paths.
#pragma once

#include <optional>
#include <string>

#include "sync/base/value.hpp"
#include "sync/neighbours/neighbours.hpp"

namespace brackenfen::sync {

/// The name stripped. Throws SyncError where it is empty or no single safe path segment.
[[nodiscard]] std::string _validate_named_universe(const Value& named_universe);

/// The universe of a vocabulary path; absent for any other path. Throws SyncError where the path has the
/// shape of a vocabulary with an unsafe universe.
[[nodiscard]] std::optional<std::string> _vocabulary_named_universe_from_path(NeighbourSet& neighbours, const Value& file_path);

}  // namespace brackenfen::sync

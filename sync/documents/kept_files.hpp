// Which files a pass leaves as they are although a new manifest of the same era states other bytes for them.
#pragma once

#include "sync/base/values/value.hpp"
#include "sync/neighbours/neighbours.hpp"

namespace brackenfen::sync {

/// Vocabularies have a stage of their own where their bytes are validated; excluded files never land.
[[nodiscard]] bool is_checked_elsewhere(NeighbourSet& neighbours, const Text& file_path, const Value& file_info);

/// Within an era, a file that still is what the local manifest promised is kept, whatever the new entry says. But for
/// runtime modules and the catalogue: the vocabularies are merged with it, and must be right together when the new
/// manifest is committed.
[[nodiscard]] bool counts_as_promised(const Text& file_path, const Document& file_info);

[[nodiscard]] bool states_other_bytes(const Document& file_info, const Document& promised);

/// The whole rule, for a client that holds the file as `promised`, the entry of the manifest before, states it.
[[nodiscard]] bool keeps_other_bytes(NeighbourSet& neighbours, const Text& file_path, const Document& file_info, const Document& promised);

}  // namespace brackenfen::sync

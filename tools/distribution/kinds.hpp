// What a file of the data set is, told from its path alone, and which paths may be published at all.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace brackenfen::sync::distribution {

inline constexpr std::string_view SHUFFLE_SEED_NAME = "shuffle_seed.enc";
inline constexpr std::string_view FUNCTIONS_NAME = "functions.json";

struct ArtifactKind {
  std::string kind;
  std::optional<std::string> platform;  ///< of a runtime module: the platform it was built for
};

/// `path` is "/"-separated and relative to the data directory. A path that fits no rule is of kind "data".
[[nodiscard]] ArtifactKind classify_artifact(std::string_view path);

/// The universe of `named_universes/{universe}/vocabulary.json`; absent for any other path.
[[nodiscard]] std::optional<std::string> vocabulary_universe(std::string_view path);

/// What keeps clients from fetching a file of this path, or absent where nothing does. Clients put paths into
/// URLs as they stand, so a path holds only characters that mean themselves there.
[[nodiscard]] std::optional<std::string> path_objection(std::string_view path);

/// Files that a client's data directory holds for its own use: a folder that once was one can be published,
/// but these are left out. The same goes for hidden files and for temporary ones.
[[nodiscard]] bool is_private_to_clients(std::string_view path);

}  // namespace brackenfen::sync::distribution

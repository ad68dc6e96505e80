// What the rotation neighbour knows of manifest entries.
#pragma once

#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "sync/base/value.hpp"

namespace brackenfen::sync {

/// A rotation state is the neighbour's own record; the library carries it and reads these fields.
class RotationState {
 public:
  virtual ~RotationState() = default;
  [[nodiscard]] virtual std::vector<std::string> active_relative_paths() const = 0;
};

class ArtifactRotation {
 public:
  virtual ~ArtifactRotation() = default;
  /// The entry's kind as text; empty where it has none or is no document.
  [[nodiscard]] virtual std::string manifest_file_kind(const Value& file_info) const = 0;
  /// The universe of `named_universes/{universe}/vocabulary.json`; absent for any other path.
  [[nodiscard]] virtual std::optional<std::string> vocabulary_named_universe_from_path(std::string_view relative_path) const = 0;

  static const ArtifactRotation& builtin();
};

}  // namespace brackenfen::sync

// The built-in rotation state, and its form in the state file.
#pragma once

#include <memory>
#include <string>

#include "sync/neighbours/artifact_rotation.hpp"

namespace brackenfen::sync {

struct BuiltinRotationState final : RotationState {
  TextList active_paths;
  Value generation_number;  ///< an integer; the first rotation makes 1
  Value seed_number;        ///< an integer of any size
  std::string generator;    ///< of which the order of this generation follows, and the next one's
  Value rotated_at;         ///< seconds since the epoch, or null where that is not known

  [[nodiscard]] TextList active_relative_paths() const override { return active_paths; }
  [[nodiscard]] Value generation() const override { return generation_number; }
  [[nodiscard]] Value seed() const override { return seed_number; }
  [[nodiscard]] std::string rng_state() const override { return generator; }
  /// False for a state of any other kind.
  [[nodiscard]] bool equals(const RotationState& other) const override;
  [[nodiscard]] RotationStateRef with_active_relative_paths(TextList paths) const override;
};

/// Throws RotationStatePayloadError for a state that could not be read again.
[[nodiscard]] Document builtin_rotation_state_payload(const RotationState& state, int schema_version);
/// Throws RotationStatePayloadError "invalid feature rotation state at {source}: ...".
[[nodiscard]] RotationStateRef builtin_rotation_state_from_payload(const Value& payload, const std::string& source, int schema_version);

}  // namespace brackenfen::sync

// feature-rotation-state.json: what is active, and since when.
//
// The file's modification time is the moment of the last rotation, from which the next one is reckoned.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "sync/documents/parsed_file.hpp"
#include "sync/neighbours/neighbours.hpp"
#include "sync/transport/files.hpp"

namespace brackenfen::sync {

inline constexpr const char* FEATURE_ROTATION_STATE_FILENAME = "feature-rotation-state.json";
inline constexpr int FEATURE_ROTATION_STATE_VERSION = 1;

[[nodiscard]] std::string feature_rotation_state_path(std::string_view data_dir);
/// Null where there is no file. Throws FeatureRotationStateError for one that cannot be read or is none.
[[nodiscard]] RotationStateRef load_feature_rotation_state(NeighbourSet& neighbours, std::string_view data_dir);
/// The same of the file at `path`, which was read before.
[[nodiscard]] RotationStateRef feature_rotation_state_in(NeighbourSet& neighbours, const ParsedFile& file, const std::string& path);
/// What the file holds of a state: JSON, keys sorted. Throws FeatureRotationStateError for a state that has no such form.
[[nodiscard]] std::string rotation_state_document(NeighbourSet& neighbours, const RotationStateRef& state);
/// Writes the file atomically, flushed to stable storage: no manager is made of an empty one. Returns its path. Throws
/// FeatureRotationStateError, and os_error.
std::string write_feature_rotation_state(NeighbourSet& neighbours, Files& files, Clock& clock, std::string_view data_dir,
                                         const RotationStateRef& state);

/// The state without retired runtime modules of this platform that `files` no longer lists; the same one where it names none.
[[nodiscard]] RotationStateRef _drop_retired_unsupported_runtime_paths_from_state(const RotationStateRef& state, const Value& files);

/// Seconds between two rotations: "weekly" or "PT{hours}H"; absent for anything else.
[[nodiscard]] std::optional<std::int64_t> _rotation_frequency_seconds(const Value& settings_payload);

struct NextRotation {
  std::string at;  ///< UTC, such as "2026-03-01T12:00:00Z"
  bool due = false;
};
/// Absent where the frequency is unknown or no state file exists. Throws os_error.
[[nodiscard]] std::optional<NextRotation> _rotation_next_at(Files& files, Clock& clock, std::string_view data_dir,
                                                            const Value& settings_payload);
/// A directory without an active state is always due.
[[nodiscard]] bool _rotation_is_due(Files& files, Clock& clock, std::string_view data_dir, const Value& settings_payload,
                                    const RotationStateRef& active_state);

/// Those of the paths that exist, in their order. Throws ManifestError for a refused path.
[[nodiscard]] std::vector<Text> _existing_rotation_paths(std::string_view data_dir, const std::vector<Text>& relative_paths);

/// int(era_number), or null where it does not convert.
[[nodiscard]] Value _manifest_era_id_or_none(const Value& era_number);

}  // namespace brackenfen::sync

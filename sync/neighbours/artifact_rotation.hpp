// The rotation neighbour: what an artifact is, which of them a client selects, and what a rotation state is.
//
// The records it makes are its own. The library carries them, hands them back, and reads the fields that stand below.
// A host's module makes objects of its own classes: what is read of them is read once, and the object itself travels
// along as an OwnRecord. docs/rotation.md tells what the built-in one decides, and why.
#pragma once

#include <cstdint>
#include <functional>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "sync/base/error.hpp"
#include "sync/base/values/text_list.hpp"
#include "sync/base/values/text_set.hpp"
#include "sync/base/values/value.hpp"

namespace brackenfen::sync {

/// The host's own object behind a record; the boundary defines what it holds.
class OwnRecord {
 public:
  virtual ~OwnRecord() = default;
};
using OwnRecordRef = std::shared_ptr<const OwnRecord>;

/// Immutable, so any thread may read. A host's object is asked at each call, which may throw what the host raises.
class RotationState {
 public:
  virtual ~RotationState() = default;
  /// Manifest paths of the active artifacts, mandatory ones included.
  [[nodiscard]] virtual TextList active_relative_paths() const = 0;
  [[nodiscard]] virtual Value generation() const = 0;
  [[nodiscard]] virtual Value seed() const = 0;
  [[nodiscard]] virtual std::string rng_state() const = 0;
  [[nodiscard]] virtual bool equals(const RotationState& other) const = 0;
  /// A copy with other active paths.
  [[nodiscard]] virtual std::shared_ptr<const RotationState> with_active_relative_paths(TextList paths) const = 0;
};
using RotationStateRef = std::shared_ptr<const RotationState>;

/// The same, where either may be absent.
[[nodiscard]] bool equal_states(const RotationStateRef& left, const RotationStateRef& right);

inline constexpr std::string_view FEATURE_KIND = "feature";

/// What the library reads of an artifact's descriptor. Texts are empty where the descriptor says nothing.
struct ArtifactDescriptor {
  Text relative_path;
  Text kind;
  Text artifact_kind;  ///< "feature" for what rotates
  Value size_bytes;    ///< as stated, of any type
  bool mandatory = false;
  Text market;
  Text named_universe;
  Text family;
  Text subfamily;
  Value sha256;  ///< as stated; known to built-in descriptors alone

  /// Whether a rotation may leave it out.
  [[nodiscard]] bool is_optional_feature() const noexcept { return !mandatory && artifact_kind.view() == FEATURE_KIND; }
};

/// One row of a manifest: a path and what is known of it.
struct ArtifactRow {
  Text relative_path;
  Value file_info;
};

/// The descriptors of one manifest's artifacts, in the order of its rows.
struct Artifacts {
  std::vector<ArtifactDescriptor> descriptors;
  OwnRecordRef own;
};
using ArtifactsRef = std::shared_ptr<const Artifacts>;

/// Which optional features are considered at all; null for no limit.
struct SelectionScope {
  Value market;
  Value named_universes;  ///< a list of texts
  Value family;
  Value subfamily;
};

/// The budget without a limit of its own: "everything that fits".
inline constexpr const char* FULL_DOWNLOAD = "FULL_DOWNLOAD";
[[nodiscard]] inline bool is_full_download(const Value& budget) { return budget.if_text() == FULL_DOWNLOAD; }

struct ArtifactRotationSettings {
  /// False where the data set holds nothing that rotates: then nothing below is stated.
  bool scoped = false;
  Value algorithm;
  Value seed;
  SelectionScope scope;
  Value feature_budget_bytes;  ///< an integer, FULL_DOWNLOAD or null
  Value free_disk_bytes;       ///< null where the budget is explicit
  OwnRecordRef loaded;         ///< the host's own settings that these come from
};

struct RotationSelection {
  /// What an artifact of `artifacts` is in this selection.
  enum class Role : std::uint8_t { OutOfScope, Mandatory, Selected, Skipped };

  TextList active_relative_paths;  ///< texts shared with the manifest
  TextList mandatory_relative_paths;
  TextList skipped_relative_paths;  ///< eligible, and not active
  Value mandatory_bytes = 0;
  Value feature_budget_bytes;
  Value seed;

  // Of a built-in selection only, for those who ask for its artifacts.
  ArtifactsRef artifacts;
  std::vector<Role> roles;  ///< one for each of `artifacts`

  OwnRecordRef own;
};

struct RotationPlan {
  RotationSelection selection;
  RotationStateRef candidate_state;  ///< null where the data set holds nothing that rotates and no state exists
  OwnRecordRef own;
};

/// What only the built-in planner is told: a host's is called with the given arguments alone.
struct PlanningFacts {
  std::optional<std::int64_t> frequency_seconds;  ///< between two rotations; absent where it is not known
  bool rotation_due = false;                      ///< by the time of the state file
  std::int64_t free_disk_bytes = 0;               ///< whatever the budget
  std::int64_t now_seconds = 0;                   ///< since the epoch
  /// Whether the file lies here with that size, and with that digest as far as is known without reading it.
  std::function<bool(const Text& relative_path, std::int64_t size_bytes, const Value& sha256)> present;
};

struct RotationStatusAccounting {
  std::vector<Text> eligible_relative_paths;
  std::vector<Text> selected_relative_paths;
  std::vector<Text> skipped_relative_paths;
  std::vector<Text> departed_relative_paths;
  std::vector<Text> missing_active_relative_paths;
};

/// A vocabulary cut down to what a rotation holds.
struct ScopedVocabulary {
  Document document;  ///< empty where `own` is what counts
  OwnRecordRef own;
};

class ArtifactRotation {
 public:
  virtual ~ArtifactRotation() = default;

  /// The entry's kind as text; empty where it has none or is no document.
  [[nodiscard]] virtual std::string manifest_file_kind(const Value& file_info) const = 0;
  /// The universe of `named_universes/{universe}/vocabulary.json`; absent for any other path.
  [[nodiscard]] virtual std::optional<std::string> vocabulary_named_universe_from_path(std::string_view relative_path) const = 0;

  /// Tells one neighbour from another, as long as something it made is alive.
  [[nodiscard]] virtual const void* identity() const noexcept = 0;
  /// artifact_descriptor_from_manifest_file of each row, whose records are documents.
  [[nodiscard]] virtual ArtifactsRef artifact_descriptors(std::vector<ArtifactRow> rows) const = 0;

  /// `previous_state` may be null.
  [[nodiscard]] virtual RotationPlan plan_rotation(const ArtifactsRef& artifacts, const ArtifactRotationSettings& settings,
                                                   const RotationStateRef& previous_state, std::string_view reason,
                                                   const PlanningFacts& facts) const = 0;
  /// Throws active_rotation_state_error_class() where no plan can be made of the state.
  [[nodiscard]] virtual RotationPlan plan_from_active_rotation_state(const ArtifactsRef& artifacts,
                                                                     const ArtifactRotationSettings& settings,
                                                                     const RotationStateRef& active_state,
                                                                     const PlanningFacts& facts) const = 0;
  /// `active_state` may be null, `candidate_state` not.
  [[nodiscard]] virtual RotationStateRef promote_rotation_candidate(const RotationStateRef& active_state,
                                                                    const RotationStateRef& candidate_state,
                                                                    const TextList& available_relative_paths) const = 0;

  /// What is written to the state file. Throws rotation_state_payload_error_class(), as does the reverse.
  [[nodiscard]] virtual Value rotation_state_payload(const RotationStateRef& state, int schema_version) const = 0;
  [[nodiscard]] virtual RotationStateRef rotation_state_from_payload(const Value& payload, const std::string& source,
                                                                     int schema_version) const = 0;

  /// `state` may be null, and so may `settings_payload`; `own_settings` is the host's object that it was read of, if any.
  [[nodiscard]] virtual RotationStatusAccounting rotation_status_accounting(const Artifacts& artifacts, const RotationStateRef& state,
                                                                            const Value& settings_payload, const OwnRecordRef& own_settings,
                                                                            const std::vector<Text>& existing_relative_paths) const = 0;
  /// What a clean-up leaves alone.
  [[nodiscard]] virtual TextSet rotation_cleanup_keep_paths(const Value& files, TextSet protected_paths,
                                                            const std::vector<Text>& metadata_relative_paths) const = 0;
  /// Throws vocabulary_scope_error where that cannot be done.
  [[nodiscard]] virtual ScopedVocabulary scope_vocabulary_to_active_rotation(const Document& vocabulary,
                                                                             const TextSet& active_relative_paths,
                                                                             const Artifacts& artifacts) const = 0;

  // The classes to catch by, and errors for the caller to throw.
  [[nodiscard]] virtual const ErrorClass& rotation_state_payload_error_class() const = 0;
  [[nodiscard]] virtual const ErrorClass& active_rotation_state_error_class() const = 0;
  [[nodiscard]] virtual Error vocabulary_scope_error(std::string text) const = 0;
  [[nodiscard]] virtual Error mandatory_artifacts_too_large_error(const Value& mandatory_bytes, const Value& available_bytes) const = 0;

  static const ArtifactRotation& builtin();
};

namespace error_class {
// The built-in classes, used where the host has none.
extern const ErrorClass RotationStatePayloadError, ActiveRotationStateError, VocabularyScopeError, MandatoryArtifactsTooLargeError;
}  // namespace error_class

}  // namespace brackenfen::sync

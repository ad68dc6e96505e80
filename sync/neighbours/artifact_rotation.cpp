#include "sync/neighbours/artifact_rotation.hpp"

#include <utility>

#include "sync/base/text/text.hpp"
#include "sync/base/values/convert.hpp"
#include "sync/neighbours/rotation_planner.hpp"
#include "sync/neighbours/rotation_scope.hpp"
#include "sync/neighbours/rotation_state.hpp"

namespace brackenfen::sync {
namespace {

constexpr std::string_view VOCABULARY_ROOT = "named_universes/";
constexpr std::string_view VOCABULARY_NAME = "/vocabulary.json";
constexpr std::string_view FEATURE_ROOT = "features/";

constexpr const ErrorClass* VALUE_ERROR_PARENTS[] = {&error_class::ValueError};
constexpr const ErrorClass* SYNC_ERROR_PARENTS[] = {&error_class::SyncError};
constexpr const ErrorClass* DISK_SPACE_ERROR_PARENTS[] = {&error_class::DiskSpaceError};

/// Texts that repeat from one artifact to the next are made once.
class Repeated {
 public:
  const Text& of(std::string_view text) {
    if (last_.view() != text) last_ = Text(text);
    return last_;
  }

 private:
  Text last_;
};

/// Makes the descriptors of one manifest.
class Describer {
 public:
  explicit Describer(const ArtifactRotation& rotation) : rotation_(rotation) {}

  ArtifactDescriptor describe(ArtifactRow row) {
    const Document* record = row.file_info.if_document();
    const Document info = record == nullptr ? Document() : *record;
    ArtifactDescriptor artifact;
    const std::optional<std::string_view> plain_kind = info.get("kind").if_text();
    artifact.kind = kind_.of(plain_kind ? std::string(*plain_kind) : rotation_.manifest_file_kind(row.file_info));
    artifact.artifact_kind = artifact.kind;
    artifact.size_bytes = info.get("size_bytes");
    const Value& mandatory = info.get("mandatory");
    artifact.mandatory = mandatory.is_null() ? artifact.kind.view() != FEATURE_KIND : mandatory.truthy();
    const NameParts name = parts_of(row.relative_path);
    artifact.market = market_.of(text_or(info, "market", ""));
    artifact.named_universe = universe_.of(text_or(info, "named_universe", name.universe));
    artifact.family = family_.of(text_or(info, "family", name.family));
    artifact.subfamily = subfamily_.of(text_or(info, "subfamily", name.subfamily));
    artifact.sha256 = info.get("sha256");
    artifact.relative_path = std::move(row.relative_path);
    return artifact;
  }

 private:
  struct NameParts {
    std::string_view universe, family, subfamily;
  };

  /// features/{universe}/.../{family}__{subfamily}__... ; what a path does not tell stays empty.
  static NameParts parts_of(std::string_view path) {
    NameParts parts;
    if (!path.starts_with(FEATURE_ROOT)) return parts;
    const std::size_t universe_end = path.find('/', FEATURE_ROOT.size());
    const std::size_t name = path.rfind('/') + 1;
    if (universe_end != std::string_view::npos && universe_end + 1 < name)
      parts.universe = path.substr(FEATURE_ROOT.size(), universe_end - FEATURE_ROOT.size());
    const std::size_t family_end = path.find("__", name);
    if (family_end == std::string_view::npos) return parts;
    const std::size_t subfamily_end = path.find("__", family_end + 2);
    if (subfamily_end == std::string_view::npos) return parts;
    parts.family = path.substr(name, family_end - name);
    parts.subfamily = path.substr(family_end + 2, subfamily_end - family_end - 2);
    return parts;
  }

  static std::string_view text_or(const Document& info, const char* key, std::string_view otherwise) {
    const std::string_view stated = stripped_text(info.get(key));
    return stated.empty() ? otherwise : stated;
  }

  const ArtifactRotation& rotation_;
  Repeated kind_, market_, universe_, family_, subfamily_;
};

class BuiltinArtifactRotation final : public ArtifactRotation {
 public:
  std::string manifest_file_kind(const Value& file_info) const override {
    const Document* entry = file_info.if_document();
    const Value* kind = entry == nullptr ? nullptr : entry->find("kind");
    if (kind == nullptr || kind->is_null()) return {};
    if (const std::optional<std::string_view> text = kind->if_text()) return std::string(*text);
    return to_text(*kind);
  }

  std::optional<std::string> vocabulary_named_universe_from_path(std::string_view relative_path) const override {
    if (!relative_path.ends_with(VOCABULARY_NAME) || !relative_path.starts_with(VOCABULARY_ROOT)) return std::nullopt;
    if (relative_path.size() <= VOCABULARY_ROOT.size() + VOCABULARY_NAME.size()) return std::nullopt;
    relative_path.remove_prefix(VOCABULARY_ROOT.size());
    relative_path.remove_suffix(VOCABULARY_NAME.size());
    if (relative_path.find('/') != std::string_view::npos) return std::nullopt;
    return std::string(relative_path);
  }

  const void* identity() const noexcept override { return this; }

  ArtifactsRef artifact_descriptors(std::vector<ArtifactRow> rows) const override {
    auto artifacts = std::make_shared<Artifacts>();
    artifacts->descriptors.reserve(rows.size());
    Describer describer(*this);
    for (ArtifactRow& row : rows) artifacts->descriptors.push_back(describer.describe(std::move(row)));
    return artifacts;
  }

  RotationPlan plan_rotation(const ArtifactsRef& artifacts, const ArtifactRotationSettings& settings,
                             const RotationStateRef& previous_state, std::string_view, const PlanningFacts& facts) const override {
    return builtin_plan_rotation(artifacts, settings, previous_state, facts);
  }
  RotationPlan plan_from_active_rotation_state(const ArtifactsRef& artifacts, const ArtifactRotationSettings& settings,
                                               const RotationStateRef& active_state, const PlanningFacts& facts) const override {
    return builtin_plan_from_active_rotation_state(artifacts, settings, active_state, facts);
  }

  RotationStateRef promote_rotation_candidate(const RotationStateRef&, const RotationStateRef& candidate_state,
                                              const TextList& available_relative_paths) const override {
    const TextList candidates = candidate_state->active_relative_paths();
    if (candidates == available_relative_paths) return candidate_state;
    const TextSet available = set_of(available_relative_paths);
    TextList here = kept_of(candidates, [&](const Text& path) { return contains(available, path); });
    return here.size() == candidates.size() ? candidate_state : candidate_state->with_active_relative_paths(std::move(here));
  }

  Value rotation_state_payload(const RotationStateRef& state, int schema_version) const override {
    return builtin_rotation_state_payload(*state, schema_version);
  }
  RotationStateRef rotation_state_from_payload(const Value& payload, const std::string& source, int schema_version) const override {
    return builtin_rotation_state_from_payload(payload, source, schema_version);
  }

  RotationStatusAccounting rotation_status_accounting(const Artifacts& artifacts, const RotationStateRef& state,
                                                      const Value& settings_payload, const OwnRecordRef&,
                                                      const std::vector<Text>& existing_relative_paths) const override {
    return builtin_status_accounting(artifacts, state, settings_payload, existing_relative_paths);
  }
  TextSet rotation_cleanup_keep_paths(const Value& files, TextSet protected_paths,
                                      const std::vector<Text>& metadata_relative_paths) const override {
    return builtin_cleanup_keep_paths(*this, files, std::move(protected_paths), metadata_relative_paths);
  }
  ScopedVocabulary scope_vocabulary_to_active_rotation(const Document& vocabulary, const TextSet& active_relative_paths,
                                                       const Artifacts& artifacts) const override {
    return {builtin_scoped_vocabulary(vocabulary, active_relative_paths, artifacts), nullptr};
  }

  const ErrorClass& rotation_state_payload_error_class() const override { return error_class::RotationStatePayloadError; }
  const ErrorClass& active_rotation_state_error_class() const override { return error_class::ActiveRotationStateError; }
  Error vocabulary_scope_error(std::string text) const override { return Error(error_class::VocabularyScopeError, std::move(text)); }
  Error mandatory_artifacts_too_large_error(const Value& mandatory_bytes, const Value& available_bytes) const override {
    return Error(error_class::MandatoryArtifactsTooLargeError,
                 "mandatory artifacts need " + to_text(mandatory_bytes) + " more bytes, and only half of the free space, " +
                     to_text(available_bytes) + " bytes, may be used for them",
                 Document{{"mandatory_bytes", mandatory_bytes}, {"available_bytes", available_bytes}, {"selected_paths", List()}});
  }
};

}  // namespace

namespace error_class {
constinit const ErrorClass RotationStatePayloadError("RotationStatePayloadError", VALUE_ERROR_PARENTS);
constinit const ErrorClass ActiveRotationStateError("ActiveRotationStateError", VALUE_ERROR_PARENTS);
constinit const ErrorClass VocabularyScopeError("VocabularyScopeError", SYNC_ERROR_PARENTS);
constinit const ErrorClass MandatoryArtifactsTooLargeError("MandatoryArtifactsTooLargeError", DISK_SPACE_ERROR_PARENTS);
}  // namespace error_class

const ArtifactRotation& ArtifactRotation::builtin() {
  static const ArtifactRotation& rotation = *new BuiltinArtifactRotation;
  return rotation;
}

}  // namespace brackenfen::sync

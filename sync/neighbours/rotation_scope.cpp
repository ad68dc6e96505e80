#include "sync/neighbours/rotation_scope.hpp"

#include <algorithm>
#include <utility>

#include "sync/base/text/keyed_hash.hpp"

namespace brackenfen::sync {
namespace {

constexpr std::string_view ARROW = ".arrow";

bool allows(const Value& limit, const Text& stated) { return !limit.truthy() || stated.view().empty() || limit.if_text() == stated.view(); }

std::string_view feature_name(std::string_view relative_path) {
  std::string_view name = relative_path.substr(relative_path.rfind('/') + 1);
  if (name.ends_with(ARROW)) name.remove_suffix(ARROW.size());
  return name;
}

/// The name that an element of a list of features stands for; empty where it names none.
std::string_view listed_name(const Value& element) {
  if (const Document* entry = element.if_document()) return entry->get("name").if_text().value_or("");
  return element.if_text().value_or("");
}

}  // namespace

ScopeFilter::ScopeFilter(SelectionScope scope) : scope_(std::move(scope)) {
  if (const List* choices = scope_.named_universes.if_list()) {
    for (const Value& choice : *choices) {
      if (const auto universe = choice.if_text()) universes_.insert(Text(*universe));
    }
  }
}

bool ScopeFilter::admits(const ArtifactDescriptor& artifact) const {
  const Value& universes = scope_.named_universes;
  const Text& universe = artifact.named_universe;
  const bool in_universe =
      !universes.is_list() ? allows(universes, universe) : !universes.truthy() || universe.view().empty() || contains(universes_, universe);
  return in_universe && allows(scope_.market, artifact.market) && allows(scope_.family, artifact.family) &&
         allows(scope_.subfamily, artifact.subfamily);
}

TextSet builtin_cleanup_keep_paths(const ArtifactRotation& rotation, const Value& files, TextSet protected_paths,
                                   const std::vector<Text>& metadata_relative_paths) {
  TextSet keep = std::move(protected_paths);
  keep.insert(metadata_relative_paths.begin(), metadata_relative_paths.end());
  if (const Document* entries = files.if_document()) {
    for (const Member& file : *entries) {
      const Document* entry = file.value.if_document();
      const bool plainly_feature = entry != nullptr && entry->get("kind").if_text() == FEATURE_KIND;
      if (!plainly_feature && rotation.manifest_file_kind(file.value) != FEATURE_KIND) keep.insert(file.key);
    }
  }
  return keep;
}

RotationStatusAccounting builtin_status_accounting(const Artifacts& artifacts, const RotationStateRef& state, const Value& settings_payload,
                                                   const std::vector<Text>& existing_relative_paths) {
  SelectionScope stated;
  if (const Document* settings = settings_payload.if_document()) {
    stated = {settings->get("market"), settings->get("named_universes"), settings->get("family"), settings->get("subfamily")};
  }
  const ScopeFilter scope(std::move(stated));
  const TextList active_paths = state ? state->active_relative_paths() : TextList();
  const TextSet active = set_of(active_paths);
  const TextSet existing = set_of(existing_relative_paths);
  TextSet listed;
  RotationStatusAccounting accounting;
  for (const ArtifactDescriptor& artifact : artifacts.descriptors) {
    const Text& path = artifact.relative_path;
    listed.insert(path);
    if (!artifact.is_optional_feature() || !scope.admits(artifact)) continue;
    accounting.eligible_relative_paths.push_back(path);
    (contains(active, path) ? accounting.selected_relative_paths : accounting.skipped_relative_paths).push_back(path);
  }
  for (const Text& path : active_paths) {
    if (!contains(listed, path)) {
      accounting.departed_relative_paths.push_back(path);
    } else if (!contains(existing, path)) {
      accounting.missing_active_relative_paths.push_back(path);
    }
  }
  return accounting;
}

Document builtin_scoped_vocabulary(const Document& vocabulary, const TextSet& active_relative_paths, const Artifacts& artifacts) {
  const std::string_view universe = vocabulary.get("named_universe").if_text().value_or("");
  ViewMap<bool> holds;  // by the name of a feature that has artifacts
  for (const ArtifactDescriptor& artifact : artifacts.descriptors) {
    const bool elsewhere = !universe.empty() && !artifact.named_universe.view().empty() && artifact.named_universe.view() != universe;
    if (artifact.artifact_kind.view() != FEATURE_KIND || elsewhere) continue;
    bool& held = holds[feature_name(artifact.relative_path)];
    held = held || contains(active_relative_paths, artifact.relative_path);
  }
  const auto is_kept = [&](std::string_view name) {
    const auto found = holds.find(name);
    return found == holds.end() || found->second;
  };
  const Value& features = vocabulary.get("features");
  if (const Document* named = features.if_document()) {
    std::vector<Member> kept;
    std::ranges::copy_if(*named, std::back_inserter(kept), [&](const Member& feature) { return is_kept(feature.key); });
    return kept.size() == named->size() ? vocabulary : vocabulary.with("features", Document(std::move(kept)));
  }
  if (const List* listed = features.if_list()) {
    std::vector<Value> kept;
    std::ranges::copy_if(*listed, std::back_inserter(kept), [&](const Value& feature) { return is_kept(listed_name(feature)); });
    return kept.size() == listed->size() ? vocabulary : vocabulary.with("features", List(std::move(kept)));
  }
  return vocabulary;
}

}  // namespace brackenfen::sync

#include "sync/rotation/artifacts.hpp"

#include <algorithm>
#include <map>
#include <set>
#include <utility>

#include "sync/base/values/convert.hpp"
#include "sync/documents/manifest_filters.hpp"

namespace brackenfen::sync {
namespace {

std::vector<ArtifactRow> rows_of_list(const List& artifacts, const Document* entries) {
  std::vector<ArtifactRow> rows;
  rows.reserve(artifacts.size());
  for (const Value& element : artifacts) {
    const std::optional<std::string> path = artifact_row_path(element);
    if (!path) continue;
    const Text file_path(*path);
    const Value* entry = entries == nullptr ? nullptr : entries->find(file_path);
    const Document* record = entry == nullptr ? nullptr : entry->if_document();
    std::vector<Member> merged;
    if (record != nullptr) merged.assign(record->begin(), record->end());
    merged.insert(merged.end(), element.if_document()->begin(), element.if_document()->end());
    merged.push_back({"relative_path", file_path});
    rows.push_back({file_path, Document(std::move(merged))});
  }
  return rows;
}

std::vector<ArtifactRow> rows_of_files(const Document& entries) {
  std::vector<ArtifactRow> rows;
  rows.reserve(entries.size());
  for (const auto& [path, record] : entries) rows.push_back({path, record});
  if (!std::ranges::is_sorted(rows, {}, &ArtifactRow::relative_path)) std::ranges::sort(rows, {}, &ArtifactRow::relative_path);
  return rows;
}

/// The distinct texts of a field, in order. Neighbouring artifacts mostly say the same.
class Names {
 public:
  void add(const Text& name) {
    if (name.view().empty() || name == last_) return;
    last_ = name;
    names_.insert(name);
  }
  [[nodiscard]] List list() const { return List(std::vector<Value>(names_.begin(), names_.end())); }
  [[nodiscard]] Value first() const { return names_.empty() ? Value("") : Value(*names_.begin()); }

 private:
  Text last_;
  std::set<Text> names_;
};

List texts_of(const Value& names) {
  std::vector<Value> texts;
  if (const List* list = names.if_list()) {
    for (const Value& name : *list) texts.emplace_back(to_text(name));
  } else {
    texts.emplace_back(to_text(names));
  }
  return List(std::move(texts));
}

}  // namespace

std::vector<ArtifactRow> _rotation_artifact_rows(const Value& manifest_data, const Value& files) {
  const Document* entries = files.if_document();
  const Document* data = manifest_data.if_document();
  if (const List* artifacts = data == nullptr ? nullptr : data->get("artifacts").if_list()) return rows_of_list(*artifacts, entries);
  return entries == nullptr ? std::vector<ArtifactRow>() : rows_of_files(*entries);
}

RotationCatalog rotation_catalog(NeighbourSet& neighbours, Manifest& manifest) {
  const void* identity = neighbours.artifact_rotation().identity();
  if (std::optional<RotationCatalog> remembered = manifest.rotation_catalog(identity)) return *std::move(remembered);
  const Document data = manifest.data();
  const ArtifactsRef artifacts = _rotation_manifest_artifacts(neighbours, Value(data), manifest.files());
  RotationCatalog catalog{artifacts, _rotation_catalog_context_from_manifest(data, *artifacts)};
  manifest.remember_rotation_catalog(identity, data, catalog);
  return catalog;
}

ArtifactsRef _rotation_manifest_artifacts(NeighbourSet& neighbours, Manifest& manifest) {
  return rotation_catalog(neighbours, manifest).artifacts;
}

ArtifactsRef _rotation_manifest_artifacts(NeighbourSet& neighbours, const Value& manifest_data, const Value& files) {
  std::vector<ArtifactRow> rows = _rotation_artifact_rows(manifest_data, files);
  std::erase_if(rows, [&](const ArtifactRow& row) {
    return !row.file_info.is_document() || _manifest_file_is_sync_excluded(neighbours, row.file_info);
  });
  return neighbours.artifact_rotation().artifact_descriptors(std::move(rows));
}

bool _rotation_artifacts_require_scoped_settings(const Artifacts& artifacts) {
  return std::ranges::any_of(artifacts.descriptors, &ArtifactDescriptor::is_optional_feature);
}

Document _rotation_catalog_context_from_manifest(const Document& manifest_data, const Artifacts& artifacts) {
  Names markets, universes;
  std::map<Text, std::set<Text>> families;
  const ArtifactDescriptor* last = nullptr;
  for (const ArtifactDescriptor& artifact : artifacts.descriptors) {
    if (!artifact.is_optional_feature()) continue;
    markets.add(artifact.market);
    universes.add(artifact.named_universe);
    const bool repeats = last != nullptr && last->family == artifact.family && last->subfamily == artifact.subfamily;
    last = &artifact;
    if (repeats || artifact.family.view().empty()) continue;
    std::set<Text>& subfamilies = families[artifact.family];
    if (!artifact.subfamily.view().empty()) subfamilies.insert(artifact.subfamily);
  }
  std::vector<Member> family_members;
  family_members.reserve(families.size());
  for (const auto& [family, subfamilies] : families)
    family_members.push_back({family, List(std::vector<Value>(subfamilies.begin(), subfamilies.end()))});

  const Document* rotation = manifest_data.get("rotation").if_document();
  const Document* stated_scope = rotation == nullptr ? nullptr : rotation->get("scope").if_document();
  const Document scope = stated_scope == nullptr ? Document() : *stated_scope;
  const Value market = scope.get("market").truthy() ? Value(to_text(scope.get("market"))) : markets.first();
  const Value& stated_universes = scope.get("named_universes").is_null() ? scope.get("named_universe") : scope.get("named_universes");
  const List named_universes = stated_universes.is_null() ? universes.list() : texts_of(stated_universes);
  return {{"current_market", market},
          {"market", market},
          {"current_universes", named_universes},
          {"named_universes", named_universes},
          {"families", Document(std::move(family_members))}};
}

}  // namespace brackenfen::sync

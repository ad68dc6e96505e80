#include "sync/documents/signals_index.hpp"

#include <algorithm>
#include <utility>

#include "sync/base/values/convert.hpp"
#include "sync/documents/manifest_filters.hpp"
#include "sync/documents/manifest_paths.hpp"
#include "sync/documents/removal.hpp"

namespace brackenfen::sync {
namespace {

struct PnlPath {
  std::string_view root;
  std::string_view ending;
  std::string_view section;
  std::string_view kind;  ///< whose loss is recoverable in that section
};

constexpr PnlPath PNL_PATHS[] = {
    {"found_signals/", "/signal_is/pnl.arrow", "found_signals", FOUND_SIGNAL_PNL_KIND},
    {"found_strategies/", "/strategy_is/pnl.arrow", "found_strategies", FOUND_STRATEGY_EPOCH_PNL_KIND},
    {"useful_signals/", "/signal_os/pnl.arrow", "useful_signals", USEFUL_SIGNAL_OS_PNL_KIND},
    {"useful_signals/", "/strategy_is/pnl.arrow", "useful_signals", USEFUL_SIGNAL_STRATEGY_IS_PNL_KIND},
};

/// nullptr for a path that is no PnL artifact's.
const PnlPath* find_pnl_path(std::string_view file_path) {
  const auto* found = std::ranges::find_if(
      PNL_PATHS, [file_path](const PnlPath& pnl) { return file_path.starts_with(pnl.root) && file_path.ends_with(pnl.ending); });
  return found == std::end(PNL_PATHS) ? nullptr : found;
}

void add_found_pnl_path(const Value& file_path, std::set<std::string>& paths) {
  std::string normalised;
  try {
    normalised = _safe_manifest_relative_path(file_path.is_text() ? file_path : Value(to_text(file_path)));
  } catch (const ManifestError&) {
    return;
  }
  if (_found_pnl_section_for_path(normalised)) paths.insert(std::move(normalised));
}

}  // namespace

bool is_found_pnl_file_kind(std::string_view kind) {
  return std::ranges::find(FOUND_PNL_FILE_KINDS, kind) != std::end(FOUND_PNL_FILE_KINDS);
}

std::optional<std::string_view> pnl_kind_for_path(std::string_view file_path) {
  const PnlPath* pnl = find_pnl_path(file_path);
  return pnl == nullptr ? std::nullopt : std::optional(pnl->kind);
}

std::optional<std::string_view> _found_pnl_section_for_path(std::string_view file_path) {
  const PnlPath* pnl = find_pnl_path(file_path);
  return pnl == nullptr ? std::nullopt : std::optional(pnl->section);
}

bool _is_manifest_found_pnl_file(std::string_view file_path, const Value& file_info) {
  const std::optional<std::string_view> section = _found_pnl_section_for_path(file_path);
  const Document* entry = file_info.if_document();
  if (!section || entry == nullptr) return false;
  const std::optional<std::string_view> kind = entry->get("kind").if_text();
  return kind && std::ranges::any_of(PNL_PATHS, [&](const PnlPath& pnl) { return pnl.section == *section && pnl.kind == *kind; });
}

std::set<std::string> _normalize_found_pnl_paths(const std::vector<Value>& file_paths) {
  std::set<std::string> paths;
  for (const Value& file_path : file_paths) add_found_pnl_path(file_path, paths);
  return paths;
}

Value _drop_found_pnl_paths_from_membership(const Value& section_data, const std::set<std::string>& missing_paths) {
  const Document* section = section_data.if_document();
  if (section == nullptr) return section_data;
  return membership_without_files(*section, [&missing_paths](const Value& file) { return missing_paths.contains(to_text(file)); });
}

Document _drop_missing_found_pnl_paths(const Document& manifest_data, const std::set<std::string>& missing_paths) {
  std::set<std::string> missing;
  for (const std::string& path : missing_paths) add_found_pnl_path(path, missing);
  if (missing.empty()) return manifest_data;

  Document result = manifest_data;
  if (const Document* files = manifest_data.get("files").if_document()) {
    Document kept = without_members(*files, [&missing](const Text& path, const Value&) {
      return _found_pnl_section_for_path(path) && missing.contains(path.str());  // the cheap question first
    });
    if (!kept.same_as(*files)) result = result.with("files", std::move(kept));
  }
  if (const List* artifacts = manifest_data.get("artifacts").if_list()) {
    std::vector<Value> kept;
    kept.reserve(artifacts->size());
    for (const Value& row : *artifacts) {
      const std::optional<std::string> path = artifact_row_path(row);
      if (!path || !missing.contains(*path)) kept.push_back(row);
    }
    if (kept.size() != artifacts->size()) result = result.with("artifacts", List(std::move(kept)));
  }
  for (const std::string_view section_name : SIGNALS_INDEX_SECTIONS) {
    const Value& section = manifest_data.get(section_name);
    Value cleaned = _drop_found_pnl_paths_from_membership(section, missing);
    if (!cleaned.same_as(section)) result = result.with(section_name, std::move(cleaned));
  }
  return result;
}

std::optional<std::string> _missing_found_pnl_download_path(const Error& error, const Document& files_to_download) {
  if (!error.is(error_class::PermanentDownloadError) || error.fields().get("status") != Value(404)) return std::nullopt;
  const std::optional<std::string_view> file_path = error.fields().get("file_path").if_text();
  if (!file_path || !_is_manifest_found_pnl_file(*file_path, files_to_download.get(*file_path))) return std::nullopt;
  return std::string(*file_path);
}

std::set<std::string> _membership_referenced_files(const Value& membership) {
  std::set<std::string> referenced;
  const Document* entries = membership.if_document();
  if (entries == nullptr) return referenced;
  for (const Member& member : *entries) {
    const Document* entry = member.value.if_document();
    const List* files = entry == nullptr ? nullptr : entry->get("files").if_list();
    if (files == nullptr) continue;
    for (const Value& file : *files) {
      if (const std::optional<std::string_view> path = file.if_text()) referenced.emplace(*path);
    }
  }
  return referenced;
}

void _validate_membership_referenced_found_pnl_kinds(const Manifest& manifest) {
  const Manifest::Sections sections = manifest.sections();
  const Value files = manifest.files();
  const auto require_kinds = [&files](std::string_view section, std::string_view expected_kind, const Document& membership) {
    for (const std::string& file_path : _membership_referenced_files(membership)) {
      const std::optional<std::string_view> path_section = _found_pnl_section_for_path(file_path);
      if (!path_section) continue;
      const Document* entries = files.if_document();
      const Document* entry = entries == nullptr ? nullptr : entries->get(file_path).if_document();
      if (path_section == section && entry != nullptr && entry->get("kind").if_text() == expected_kind) continue;
      throw ManifestError("membership-referenced found PnL file " + to_quoted(file_path) + " in " + std::string(section) +
                          " has missing or unclassifiable kind; expected " + std::string(expected_kind) + " for " +
                          std::string(*path_section) + "; allowed found PnL kinds are " + std::string(FOUND_SIGNAL_PNL_KIND) + ", " +
                          std::string(FOUND_STRATEGY_EPOCH_PNL_KIND));
    }
  };
  require_kinds("found_signals", FOUND_SIGNAL_PNL_KIND, sections.found_signals);
  require_kinds("found_strategies", FOUND_STRATEGY_EPOCH_PNL_KIND, sections.found_strategies);
}

}  // namespace brackenfen::sync

#include "sync/documents/manifest_filters.hpp"

#include <algorithm>
#include <utility>
#include <vector>

#include "sync/base/error.hpp"
#include "sync/base/text/keyed_hash.hpp"
#include "sync/base/values/convert.hpp"
#include "sync/documents/manifest.hpp"
#include "sync/documents/removal.hpp"

namespace brackenfen::sync {
namespace {

constexpr std::string_view RETIRED_UNSUPPORTED_RUNTIME_MODULE_NAMES[] = {"backtester", "risk_model"};
constexpr std::string_view RUNTIME_MODULE_EXTENSION_SUFFIXES[] = {".so", ".pyd"};
constexpr std::string_view RETIRED_FOUND_PNL_ROOTS[] = {"found_signals", "found_strategies"};
constexpr std::string_view RETIRED_FOUND_PNL_NAMES[] = {"pnl_long.arrow", "pnl.long.arrow"};

/// Manifests written elsewhere may separate with either slash.
constexpr bool is_slash(char character) { return character == '/' || character == '\\'; }

const Document* files_of(const Document& manifest_data) { return manifest_data.get("files").if_document(); }

/// The neighbours that know runtime modules, looked up once per walk.
class RuntimeModules {
 public:
  explicit RuntimeModules(NeighbourSet& neighbours)
      : rotation_(neighbours.artifact_rotation()), freshness_(neighbours.runtime_module_freshness()) {}

  bool is_unsupported(const Value& file_info) const { return is_unsupported_kind(rotation_.manifest_file_kind(file_info)); }

  bool is_for_another_platform(const Value& file_info) const {
    return names_another_platform(file_info) && freshness_.is_runtime_module_kind(rotation_.manifest_file_kind(file_info));
  }

  bool is_sync_excluded(const Value& file_info) const {
    const std::string kind = rotation_.manifest_file_kind(file_info);
    return is_unsupported_kind(kind) || (names_another_platform(file_info) && freshness_.is_runtime_module_kind(kind));
  }

 private:
  bool is_unsupported_kind(std::string_view kind) const {
    return kind.ends_with(freshness_.runtime_module_kind_suffix()) && !freshness_.is_runtime_module_kind(kind);
  }

  static bool names_another_platform(const Value& file_info) {
    const Document* entry = file_info.if_document();
    const Value* platform = entry == nullptr ? nullptr : entry->find("platform");
    if (platform == nullptr || platform->is_null()) return false;
    if (const std::optional<std::string_view> text = platform->if_text()) return !text->empty() && *text != current_platform();
    return to_text(*platform) != current_platform();
  }

  const ArtifactRotation& rotation_;
  const RuntimeModuleFreshness& freshness_;
};

}  // namespace

Document _sanitize_manifest_data_for_sync(NeighbourSet& neighbours, const Value& manifest_data) {
  const Document* document = manifest_data.if_document();
  if (document == nullptr) {
    throw AttributeError("the manifest is not a JSON object: '" + std::string(type_name(manifest_data)) +
                         "' object has no attribute 'get'");
  }
  // Nearly every manifest holds none of what is dropped; then one walk tells.
  const RuntimeModules modules(neighbours);
  const auto is_dropped = [&](const Member& file) {
    return _is_agent_bundle_declaration_file(file.key, file.value) || modules.is_unsupported(file.value) ||
           _is_retired_found_pnl_long_file(file.key);
  };
  const Document* files = files_of(*document);
  if (!document->get("artifacts").is_list() && (files == nullptr || std::ranges::none_of(*files, is_dropped))) return *document;
  return _drop_retired_found_pnl_long_files(
      _drop_unsupported_runtime_module_files(neighbours, _drop_agent_bundle_declaration_files(*document)));
}

bool _is_agent_bundle_declaration_file(std::string_view file_path, const Value& file_info) {
  if (file_path.ends_with(".pxd")) return true;
  const Document* entry = file_info.if_document();
  if (entry == nullptr) return false;
  const std::optional<std::string_view> kind = entry->get("kind").if_text();
  return kind && (*kind == "vault_declaration" || *kind == "backtester_declaration");
}

Document _drop_agent_bundle_declaration_files(const Document& manifest_data) {
  const Document* files = files_of(manifest_data);
  if (files == nullptr) return manifest_data;
  Document kept =
      without_members(*files, [](const Text& path, const Value& info) { return _is_agent_bundle_declaration_file(path, info); });
  return kept.same_as(*files) ? manifest_data : manifest_data.with("files", std::move(kept));
}

bool _is_unsupported_runtime_module_file(NeighbourSet& neighbours, std::string_view, const Value& file_info) {
  return RuntimeModules(neighbours).is_unsupported(file_info);
}

Document _drop_unsupported_runtime_module_files(NeighbourSet& neighbours, const Document& manifest_data) {
  const RuntimeModules modules(neighbours);
  Document result = manifest_data;
  if (const Document* files = files_of(manifest_data)) {
    Document kept = without_members(*files, [&modules](const Text&, const Value& info) { return modules.is_unsupported(info); });
    if (!kept.same_as(*files)) result = result.with("files", std::move(kept));
  }
  if (const List* artifacts = manifest_data.get("artifacts").if_list()) {
    std::vector<Value> kept;
    kept.reserve(artifacts->size());
    for (const Value& row : *artifacts) {
      if (!row.is_document() || !modules.is_unsupported(row)) kept.push_back(row);
    }
    if (kept.size() != artifacts->size()) result = result.with("artifacts", List(std::move(kept)));
  }
  return result;
}

std::optional<std::string> _retired_unsupported_runtime_module_name_from_path(std::string_view file_path) {
  for (const std::string_view extension : RUNTIME_MODULE_EXTENSION_SUFFIXES) {
    if (!file_path.ends_with(extension)) continue;
    const std::string_view file_name = file_path.substr(file_path.find_last_of("/\\") + 1);  // npos + 1 is 0
    const std::string suffix = "-" + current_platform() + std::string(extension);
    if (!file_name.ends_with(suffix)) continue;
    const std::string_view name = file_name.substr(0, file_name.size() - suffix.size());
    if (std::ranges::find(RETIRED_UNSUPPORTED_RUNTIME_MODULE_NAMES, name) != std::end(RETIRED_UNSUPPORTED_RUNTIME_MODULE_NAMES)) {
      return std::string(name);
    }
  }
  return std::nullopt;
}

bool _is_retired_unsupported_runtime_module_path(std::string_view file_path) {
  return _retired_unsupported_runtime_module_name_from_path(file_path).has_value();
}

bool _is_retired_found_pnl_long_file(std::string_view file_path) {
  while (!file_path.empty() && is_slash(file_path.back())) file_path.remove_suffix(1);
  // Nearly every path of a manifest ends the test here.
  const auto* name = std::ranges::find_if(RETIRED_FOUND_PNL_NAMES, [file_path](std::string_view end) { return file_path.ends_with(end); });
  if (name == std::end(RETIRED_FOUND_PNL_NAMES)) return false;
  while (!file_path.empty() && is_slash(file_path.front())) file_path.remove_prefix(1);

  const std::size_t first_slash = file_path.find_first_of("/\\");
  const std::size_t last_slash = file_path.find_last_of("/\\");
  if (last_slash == std::string_view::npos || file_path.substr(last_slash + 1) != *name) return false;
  return std::ranges::count_if(file_path, is_slash) == 4 &&
         std::ranges::find(RETIRED_FOUND_PNL_ROOTS, file_path.substr(0, first_slash)) != std::end(RETIRED_FOUND_PNL_ROOTS);
}

Document _drop_retired_found_pnl_long_files(const Document& manifest_data) {
  const Document* files = files_of(manifest_data);
  if (files == nullptr) return manifest_data;
  ViewSet retired;  // views into `files`
  Document kept = without_members(*files, [&retired](const Text& path, const Value&) {
    if (!_is_retired_found_pnl_long_file(path)) return false;
    retired.insert(path.view());
    return true;
  });
  if (retired.empty()) return manifest_data;

  // A file's text form can only be a retired path where the file is a text itself.
  const auto is_retired = [&retired](const Value& file) {
    const std::optional<std::string_view> path = file.if_text();
    return path && retired.contains(*path);
  };
  Document result = manifest_data.with("files", std::move(kept));
  for (const std::string_view section_name : RETIRED_FOUND_PNL_ROOTS) {
    const Document* section = manifest_data.get(section_name).if_document();
    if (section != nullptr) result = result.with(section_name, membership_without_files(*section, is_retired));
  }
  return result;
}

bool _manifest_has_agent_bundle_declarations(const Value& files) {
  const Document* entries = files.if_document();
  return entries != nullptr &&
         std::ranges::any_of(*entries, [](const Member& file) { return _is_agent_bundle_declaration_file(file.key, file.value); });
}

bool _manifest_has_retired_found_pnl_long_files(const Value& files) {
  const Document* entries = files.if_document();
  return entries != nullptr && std::ranges::any_of(*entries, [](const Member& file) { return _is_retired_found_pnl_long_file(file.key); });
}

std::optional<std::string> artifact_row_path(const Value& row) {
  const Document* stated = row.if_document();
  if (stated == nullptr) return std::nullopt;
  const Value& path = stated->get("relative_path").truthy() ? stated->get("relative_path") : stated->get("path");
  return path.truthy() ? std::optional(to_text(path)) : std::nullopt;
}

Document without_stamps(const Document& file_info) {
  return without_members(file_info, [](std::string_view key, const Value&) { return key.starts_with("_manifest_"); });
}

bool is_vault_module(const Document& file_info) { return file_info.get("kind").if_text() == "vault_module"; }

bool _rotation_file_is_platform_excluded(NeighbourSet& neighbours, const Value& file_info) {
  return RuntimeModules(neighbours).is_for_another_platform(file_info);
}

bool _manifest_file_is_sync_excluded(NeighbourSet& neighbours, const Value& file_info) {
  return RuntimeModules(neighbours).is_sync_excluded(file_info);
}

}  // namespace brackenfen::sync

// Taking out of a manifest what this library must never fetch, verify or count.
//
// No filter changes the document it is given: with nothing to remove it returns the same one, otherwise a
// new one that shares every value it did not replace. Values of the wrong type stay unfiltered.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "sync/base/values/value.hpp"
#include "sync/neighbours/neighbours.hpp"

namespace brackenfen::sync {

class Manifest;

/// The three filters below, in their order. Throws AttributeError where `manifest_data` is no document.
[[nodiscard]] Document _sanitize_manifest_data_for_sync(NeighbourSet& neighbours, const Value& manifest_data);

[[nodiscard]] bool _is_agent_bundle_declaration_file(std::string_view file_path, const Value& file_info);
[[nodiscard]] Document _drop_agent_bundle_declaration_files(const Document& manifest_data);

/// True for a runtime module of a kind that is no longer supported.
[[nodiscard]] bool _is_unsupported_runtime_module_file(NeighbourSet& neighbours, std::string_view file_path, const Value& file_info);
[[nodiscard]] Document _drop_unsupported_runtime_module_files(NeighbourSet& neighbours, const Document& manifest_data);

[[nodiscard]] std::optional<std::string> _retired_unsupported_runtime_module_name_from_path(std::string_view file_path);
[[nodiscard]] bool _is_retired_unsupported_runtime_module_path(std::string_view file_path);

[[nodiscard]] bool _is_retired_found_pnl_long_file(std::string_view file_path);
[[nodiscard]] Document _drop_retired_found_pnl_long_files(const Document& manifest_data);

/// Whether `files` (a manifest's, of any type) still lists what the filters remove.
[[nodiscard]] bool _manifest_has_agent_bundle_declarations(const Value& files);
[[nodiscard]] bool _manifest_has_retired_found_pnl_long_files(const Value& files);

/// The path that a row of the manifest's `artifacts` list is about; absent for a row that names none.
[[nodiscard]] std::optional<std::string> artifact_row_path(const Value& row);

/// An entry without the keys "_manifest_*", by which the library stamps its own copies: a server's have no say.
[[nodiscard]] Document without_stamps(const Document& file_info);

/// A runtime module of the kind that is built in. Its digest is never remembered: each look reads it.
[[nodiscard]] bool is_vault_module(const Document& file_info);
/// A runtime module that was built for another platform.
[[nodiscard]] bool _rotation_file_is_platform_excluded(NeighbourSet& neighbours, const Value& file_info);
/// A file that is listed but never fetched here.
[[nodiscard]] bool _manifest_file_is_sync_excluded(NeighbourSet& neighbours, const Value& file_info);

}  // namespace brackenfen::sync

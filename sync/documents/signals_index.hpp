// The signals index and the PnL artifacts it names.
//
// A PnL artifact that the manifest lists but storage has lost must not fail a pass: it is excluded, and the
// pass runs again without it. The index itself is not fetched or applied yet; see the stages below.
#pragma once

#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <vector>

#include "sync/base/error.hpp"
#include "sync/base/value.hpp"

namespace brackenfen::sync {

inline constexpr std::string_view SIGNALS_INDEX_RELATIVE_PATH = "signals_index.json";
inline constexpr std::string_view SIGNALS_INDEX_SECTIONS[] = {"found_signals", "found_strategies", "useful_signals"};
inline constexpr std::string_view FOUND_SIGNAL_PNL_KIND = "found_signal_is_pnl";
inline constexpr std::string_view FOUND_STRATEGY_EPOCH_PNL_KIND = "found_strategy_is_epoch_pnl";
inline constexpr std::string_view USEFUL_SIGNAL_OS_PNL_KIND = "useful_signal_os_pnl";
inline constexpr std::string_view USEFUL_SIGNAL_STRATEGY_IS_PNL_KIND = "useful_signal_strategy_is_pnl";
inline constexpr std::string_view FOUND_PNL_FILE_KINDS[] = {FOUND_SIGNAL_PNL_KIND, FOUND_STRATEGY_EPOCH_PNL_KIND};

[[nodiscard]] bool is_found_pnl_file_kind(std::string_view kind);

/// The kind of a PnL artifact, told from its path alone; absent for any other path.
[[nodiscard]] std::optional<std::string_view> pnl_kind_for_path(std::string_view file_path);
/// The section whose PnL artifact a path is, by its root and its ending; absent for any other path.
[[nodiscard]] std::optional<std::string_view> _found_pnl_section_for_path(std::string_view file_path);
/// Whether path and kind both say that a missing file is recoverable.
[[nodiscard]] bool _is_manifest_found_pnl_file(std::string_view file_path, const Value& file_info);
/// The PnL paths among `file_paths`, normalised; everything else is discarded.
[[nodiscard]] std::set<std::string> _normalize_found_pnl_paths(const std::vector<Value>& file_paths);
/// The section without the missing files and without entities that end with no files.
[[nodiscard]] Value _drop_found_pnl_paths_from_membership(const Value& section_data, const std::set<std::string>& missing_paths);
/// The manifest document without the missing paths; the same one where nothing was removed.
[[nodiscard]] Document _drop_missing_found_pnl_paths(const Document& manifest_data, const std::set<std::string>& missing_paths);
/// The path of a recoverable download failure (a 404 on a PnL artifact), or absent.
[[nodiscard]] std::optional<std::string> _missing_found_pnl_download_path(const Error& error, const Document& files_to_download);

}  // namespace brackenfen::sync

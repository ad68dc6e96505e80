// The signals index, which says what belongs to an era, and the PnL artifacts it names.
//
// A PnL artifact that the manifest lists but storage has lost must not fail a pass: it is excluded, and the
// pass runs again without it. manifest.json and the local index are then rewritten so that both agree with
// what is on disk.
#pragma once

#include <optional>
#include <set>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "sync/base/error.hpp"
#include "sync/base/values/value.hpp"
#include "sync/documents/manifest.hpp"
#include "sync/transport/files.hpp"

namespace brackenfen::sync {

inline constexpr std::string_view SIGNALS_INDEX_RELATIVE_PATH = "signals_index.json";
inline constexpr std::string_view SIGNALS_INDEX_SECTIONS[] = {"found_signals", "found_strategies", "useful_signals"};
inline constexpr std::string_view FOUND_SIGNAL_PNL_KIND = "found_signal_is_pnl";
inline constexpr std::string_view FOUND_STRATEGY_EPOCH_PNL_KIND = "found_strategy_is_epoch_pnl";
inline constexpr std::string_view USEFUL_SIGNAL_OS_PNL_KIND = "useful_signal_os_pnl";
inline constexpr std::string_view USEFUL_SIGNAL_STRATEGY_IS_PNL_KIND = "useful_signal_strategy_is_pnl";
inline constexpr std::string_view FOUND_PNL_FILE_KINDS[] = {FOUND_SIGNAL_PNL_KIND, FOUND_STRATEGY_EPOCH_PNL_KIND};

// ---- PnL artifacts and membership: signals_index.cpp -----------------------------------------------------

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
/// The manifest document without the missing paths, rows of an `artifacts` list included; the same one where nothing was
/// removed.
[[nodiscard]] Document _drop_missing_found_pnl_paths(const Document& manifest_data, const std::set<std::string>& missing_paths);
/// The path of a recoverable download failure (a 404 on a PnL artifact), or absent.
[[nodiscard]] std::optional<std::string> _missing_found_pnl_download_path(const Error& error, const Document& files_to_download);
/// Every text that the entries of a section list as a file. An entry of another shape lists none.
[[nodiscard]] std::set<std::string> _membership_referenced_files(const Value& membership);
/// Throws ManifestError for the first found PnL artifact, in the order of paths, that lies in another section
/// than its path tells or has another kind than that section's.
void _validate_membership_referenced_found_pnl_kinds(const Manifest& manifest);

// ---- the document: signals_index_document.cpp ------------------------------------------------------------

/// SIGNALS_INDEX_RELATIVE_PATH where the manifest points at it or lists it, else absent. Throws ManifestError
/// where the pointer names another path or a file that is not listed.
[[nodiscard]] std::optional<std::string> _manifest_signals_index_path(const Manifest& manifest);
/// The same look-up before there is a record: the path, normalised, whatever it is.
[[nodiscard]] std::optional<std::string> _manifest_data_signals_index_path(const Value& manifest_data);

/// Sets the sections of `manifest`: all three, or none where it throws. ManifestError for a wrong shape,
/// EraError for another era.
void _apply_manifest_signals_index(Manifest& manifest, const Value& index_data);
/// Parses and applies. Throws ManifestError or EraError.
void _validate_signals_index_bytes(std::string_view body, Manifest& manifest);
/// Applies the index of `data_dir`, or of `fallback_data_dir` where the former has none. False where the
/// manifest has no index. Throws SyncError for a missing file and what applying throws; text that is no UTF-8
/// is a UnicodeDecodeError.
bool _load_manifest_signals_index(const std::string& data_dir, Manifest& manifest,
                                  const std::optional<std::string>& fallback_data_dir = std::nullopt);

/// The local index as rewritten.
struct SignalsIndexUpdate {
  std::string relative_path;
  std::string local_path;
  Value kind;
  std::string sha256;
  std::optional<FileStat> landed;  ///< as _atomic_write returned it
};
/// Takes the missing paths out of the local index. Where that changes it, the file is written anew and the
/// manifest document's entry takes its size and digest, so that later checks compare with what lies here.
/// Returns the document to keep. Throws ManifestError for a file that is no index, and os_error.
[[nodiscard]] std::pair<Document, std::optional<SignalsIndexUpdate>> _scrub_missing_found_pnl_paths_from_signals_index(
    Files& files, Clock& clock, const std::string& data_dir, const Document& manifest_data, const std::set<std::string>& missing_paths);

}  // namespace brackenfen::sync

// sync-progress.json, and the temporary files that interrupted downloads leave behind.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "sync/base/values/value.hpp"
#include "sync/transport/files.hpp"

namespace brackenfen::sync {

class SyncProgress;

inline constexpr const char* SYNC_PROGRESS_FILENAME = "sync-progress.json";

[[nodiscard]] std::string _sync_progress_path(std::string_view data_dir);
/// For writing it: in the directory as it stands, since one that was removed meanwhile must not come back. Throws os_error.
[[nodiscard]] Place sync_progress_place(std::string_view data_dir);
/// Phase "syncing": era, version, sizes and the files to download. Throws os_error.
void _write_sync_progress_json(Files& files, Clock& clock, const SyncProgress& sync_progress, std::string_view data_dir,
                               const Value& era_number, const Value& version, const Document& files_to_download);
/// Never fails: what stands in the way is logged at debug level.
void _remove_sync_progress_json(Files& files, std::string_view data_dir);
/// Removes the staging file of one manifest path. Never fails: what stands in the way is logged.
void _remove_manifest_tmp_file(Files& files, std::string_view data_dir, const Value& file_path);
/// Removes every name ending in ".tmp" below `data_dir`, except the staging files of the paths given.
/// Links are not followed, and the folders `without_staging` not read, which a search of the same pass found to hold no
/// such name. Never fails.
void _cleanup_sync_tmp_files(Files& files, std::string_view data_dir, const std::vector<Value>& preserve_relative_paths = {},
                             const std::vector<std::string>& without_staging = {});

}  // namespace brackenfen::sync

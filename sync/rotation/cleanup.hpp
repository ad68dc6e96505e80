// Finding and deleting what a directory holds and no rotation keeps.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "sync/base/values/text_set.hpp"
#include "sync/transport/files.hpp"

namespace brackenfen::sync {

/// Where a file lies, and its path in the data directory.
using FoundFile = std::function<void(const Place& place, std::string_view relative_path)>;

/// Hands on every file below the six folders of artifacts whose path is not in `keep`. Folders whose name begins with "."
/// are left alone with all below them, links to folders are left alone and not followed, and other links are files. Throws
/// os_error of a folder that cannot be read, what `found` throws, and Interrupted.
///
/// Returns the folders, as relative paths, below which it has seen every name and none that ends in ".tmp", so that the
/// search for staging files need not read them again.
std::vector<std::string> find_files_not_kept(std::string_view data_dir, const TextSet& keep, const FoundFile& found);
/// Deletes them, and leaves empty folders. `deleted` is told of each relative path. Throws os_error of a file that cannot be
/// deleted, too.
std::vector<std::string> delete_files_not_kept(Files& files, std::string_view data_dir, const TextSet& keep,
                                               const std::function<void(std::string_view relative_path)>& deleted = {});

}  // namespace brackenfen::sync

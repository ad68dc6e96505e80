// Deleting what a directory holds and no rotation keeps.
#pragma once

#include <functional>
#include <string>
#include <string_view>
#include <vector>

#include "sync/base/values/text_set.hpp"
#include "sync/transport/files.hpp"

namespace brackenfen::sync {

/// Deletes every file below the six folders of artifacts whose path is not in `keep`. Folders whose name begins with "."
/// are left alone with all below them, links to folders are left alone and not followed, other links are files, and
/// empty folders stay. `deleted` is told of each relative path. Throws os_error of a folder that cannot be read or a file
/// that cannot be deleted, and Interrupted.
///
/// Returns the folders, as relative paths, below which it has seen every name and none that ends in ".tmp", so that the
/// search for staging files need not read them again.
std::vector<std::string> delete_files_not_kept(Files& files, std::string_view data_dir, const TextSet& keep,
                                               const std::function<void(std::string_view relative_path)>& deleted = {});

}  // namespace brackenfen::sync

// Whole directory trees: measured and removed. No link is ever followed.
#pragma once

#include <cstdint>
#include <string>
#include <vector>

#include "sync/base/files/descriptor.hpp"

namespace brackenfen::sync {

/// Whether `path` still leads to the open `directory`, and not to another one that was made under its name since.
[[nodiscard]] bool is_directory_at(const Descriptor& directory, const std::string& path) noexcept;

/// The names of the real directories directly inside `directory`, in the order of the file system. Throws os_error.
[[nodiscard]] std::vector<std::string> child_directories(const std::string& directory);

/// The sizes of all regular files at any depth, added up. Throws os_error.
[[nodiscard]] std::int64_t tree_size_bytes(const std::string& directory);

/// Removes whatever stands at `path`: a tree, a file, or a link but not what it points at. Nothing there is no
/// error, nor what vanishes meanwhile. Throws os_error and, where it may be interrupted, Interrupted, with a part of the
/// tree gone.
enum class Removal : char { Interruptible, ToTheEnd };
void remove_tree(const std::string& path, Removal removal = Removal::Interruptible);
/// The same of an open directory, whose name it takes too unless that leads to another one by then, which stays.
void remove_tree(const Descriptor& directory, const std::string& path, Removal removal = Removal::Interruptible);

/// Deletes every file below `directory`, at any depth, whose name ends in ".tmp". Throws os_error at the first that
/// cannot be deleted, such as a directory of that name.
void delete_tmp_files(const std::string& directory);

}  // namespace brackenfen::sync

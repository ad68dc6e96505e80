// Which process holds a lock, from the system's own table of them. Nothing here fails, or waits for a lock.
#pragma once

#include <sys/types.h>

#include <cstddef>
#include <optional>
#include <string>

#include "sync/base/files/place.hpp"

namespace brackenfen::sync {

inline constexpr std::size_t LONGEST_COMMAND_BYTES = 4096;

struct LockHolder {
  std::optional<pid_t> pid;  ///< absent where the table does not tell
  /// Its command line, or the first LONGEST_COMMAND_BYTES; absent where it may not be read.
  std::optional<std::string> command;
};

/// Who holds the flock of a file. Absent where nobody does, and where the table does not tell: a file system of the network,
/// a process outside of this one's namespace. Reads a few small files of /proc.
[[nodiscard]] std::optional<LockHolder> find_lock_holder(const FileId& locked_file);

/// Who is at work on a data directory; absent for nobody. Tries the directory's locks for a moment without blocking, so that a
/// holder counts whom the table does not show.
[[nodiscard]] std::optional<LockHolder> lock_holder(const std::string& data_dir);

}  // namespace brackenfen::sync

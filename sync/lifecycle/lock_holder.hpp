// Which process holds a lock, from the system's own table of them. Nothing here fails, or waits for a lock.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

#include "sync/base/files/place.hpp"

namespace brackenfen::sync {

struct LockHolder {
  std::optional<pid_t> pid;            ///< absent where the table does not tell
  std::optional<std::string> command;  ///< its command line; absent where it may not be read, or the process has gone
};

/// Who holds the flock of a file. Absent where nobody does, and where the table does not tell: a file system of the network,
/// a process outside of this one's namespace. Reads a few small files of /proc.
[[nodiscard]] std::optional<LockHolder> find_lock_holder(const FileId& locked_file);

/// Who is at work on a data directory; absent for nobody. Tries the directory's locks for a moment without blocking, so that a
/// holder counts whom the table does not show.
[[nodiscard]] std::optional<LockHolder> lock_holder(const std::string& data_dir);

}  // namespace brackenfen::sync

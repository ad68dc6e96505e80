// Which process holds a lock, from the system's own table of them.
#pragma once

#include <sys/types.h>

#include <optional>
#include <string>

#include "sync/base/files/place.hpp"

namespace brackenfen::sync {

struct LockHolder {
  pid_t pid = 0;
  std::optional<std::string> command;  ///< its command line; absent where it may not be read, or the process has gone
};

/// Who holds the flock of a file. Absent where nobody does, and where the table does not tell: a file system of the network,
/// a process outside of this one's namespace. Reads a few small files of /proc, and waits for nothing.
[[nodiscard]] std::optional<LockHolder> find_lock_holder(const FileId& locked_file);

}  // namespace brackenfen::sync

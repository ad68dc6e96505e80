#include "sync/lifecycle/lock_holder.hpp"

#include <sys/sysmacros.h>

#include <algorithm>
#include <cinttypes>
#include <cstdio>

#include "sync/base/error.hpp"
#include "sync/base/files/descriptor.hpp"
#include "sync/base/text/text.hpp"

namespace brackenfen::sync {
namespace {

constexpr const char* LOCK_TABLE = "/proc/locks";
constexpr std::size_t LONGEST_TABLE_BYTES = 1048576;
constexpr std::size_t LONGEST_COMMAND_BYTES = 65536;

std::optional<std::string> command_of(pid_t pid) {
  try {
    std::string command = read_file("/proc/" + std::to_string(pid) + "/cmdline", LONGEST_COMMAND_BYTES);
    std::replace(command.begin(), command.end(), '\0', ' ');
    const std::string_view shown = strip(command);
    return shown.empty() ? std::nullopt : std::optional<std::string>(shown);
  } catch (const Error&) {
    return std::nullopt;
  }
}

}  // namespace

std::optional<LockHolder> find_lock_holder(const FileId& locked_file) {
  std::string table;
  try {
    table = read_file(LOCK_TABLE, LONGEST_TABLE_BYTES);
  } catch (const Error&) {
    return std::nullopt;
  }
  pid_t of_inode = 0;  // some file systems state another device in the table than in a stat
  for (const std::string_view line : split(table, "\n")) {
    // "1: FLOCK  ADVISORY  WRITE 1234 08:01:5678 0 EOF"; a process that waits has "->" before its kind.
    const std::string text(line);
    int pid = 0;
    unsigned major_number = 0, minor_number = 0;
    std::uint64_t inode = 0;
    if (std::sscanf(text.c_str(), "%*u: FLOCK %*s WRITE %d %x:%x:%" SCNu64, &pid, &major_number, &minor_number, &inode) != 4) continue;
    if (inode != locked_file.inode || pid <= 0) continue;
    of_inode = pid;
    if (makedev(major_number, minor_number) == locked_file.device) break;
  }
  if (of_inode == 0) return std::nullopt;
  return LockHolder{of_inode, command_of(of_inode)};
}

}  // namespace brackenfen::sync

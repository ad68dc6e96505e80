#include "sync/lifecycle/lock_holder.hpp"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>

#include <algorithm>
#include <cerrno>
#include <cinttypes>
#include <csignal>
#include <cstdio>
#include <vector>

#include "sync/base/error.hpp"
#include "sync/base/files/descriptor.hpp"
#include "sync/base/files/directory_reader.hpp"
#include "sync/base/files/paths.hpp"
#include "sync/base/text/text.hpp"
#include "sync/lifecycle/directory_lock.hpp"

namespace brackenfen::sync {
namespace {

constexpr const char* LOCK_TABLE = "/proc/locks";
constexpr std::size_t LONGEST_TABLE_BYTES = 1048576;

std::optional<std::string> command_of(pid_t pid) {
  try {
    const std::string path = "/proc/" + std::to_string(pid) + "/cmdline";
    std::string command(LONGEST_COMMAND_BYTES, '\0');
    command.resize(read_some(open_file(path, O_RDONLY), command.data(), command.size(), path));
    std::replace(command.begin(), command.end(), '\0', ' ');
    const std::string_view shown = strip(command);
    return shown.empty() ? std::nullopt : std::optional<std::string>(shown);
  } catch (const Error&) {
    return std::nullopt;
  }
}

/// The table goes on naming a process that has left its lock to a child, and its number may be another's one day.
bool has_ended(pid_t pid) { return ::kill(pid, 0) != 0 && errno == ESRCH; }

/// Whether a process has a lock on this very file; false too where the process may not be looked at.
bool has_locked(pid_t pid, const FileId& file) {
  const std::string process = "/proc/" + std::to_string(pid);
  const std::string folder = process + "/fd/";
  try {
    DirectoryReader descriptors(folder);
    while (const dirent* const entry = descriptors.next()) {
      // A look at any other file may wait for a server of files.
      if (read_file(process + "/fdinfo/" + entry->d_name, LONGEST_TABLE_BYTES).find("FLOCK") == std::string::npos) continue;
      struct statx found {};
      if (::statx(AT_FDCWD, (folder + entry->d_name).c_str(), AT_STATX_DONT_SYNC, STATX_INO, &found) != 0) continue;
      if (FileId{makedev(found.stx_dev_major, found.stx_dev_minor), found.stx_ino} == file) return true;
    }
  } catch (const Error&) {  // it has ended, or is another user's
  }
  return false;
}

}  // namespace

std::optional<LockHolder> find_lock_holder(const FileId& locked_file) {
  std::string table;
  try {
    table = read_file(LOCK_TABLE, LONGEST_TABLE_BYTES);
  } catch (const Error&) {
    return std::nullopt;
  }
  std::optional<pid_t> holder;
  std::vector<pid_t> of_inode;  // some file systems state another device in the table than in a stat
  for (const std::string_view line : split(table, "\n")) {
    // "1: FLOCK  ADVISORY  WRITE 1234 08:01:5678 0 EOF"; a process that waits has "->" before its kind.
    const std::string text(line);
    int pid = 0;
    unsigned major_number = 0, minor_number = 0;
    std::uint64_t inode = 0;
    if (std::sscanf(text.c_str(), "%*u: FLOCK %*s WRITE %d %x:%x:%" SCNu64, &pid, &major_number, &minor_number, &inode) != 4) continue;
    if (inode != locked_file.inode || pid <= 0 || has_ended(pid)) continue;
    if (makedev(major_number, minor_number) == locked_file.device) {
      holder = pid;
      break;
    }
    of_inode.push_back(pid);
  }
  // Or it is the lock of a file that has the same number elsewhere.
  for (auto pid = of_inode.begin(); !holder && pid != of_inode.end(); ++pid)
    if (has_locked(*pid, locked_file)) holder = *pid;
  if (!holder) return std::nullopt;
  return LockHolder{*holder, command_of(*holder)};
}

std::optional<LockHolder> lock_holder(const std::string& data_dir) {
  std::optional<LockHolder> hidden;
  for (const std::string& path : {data_dir, join_path(data_dir, FLOCK_FILENAME)}) {
    // What is no regular file there is not waited for.
    const Descriptor file(::open(path.c_str(), O_RDONLY | O_NONBLOCK | O_CLOEXEC));
    const std::optional<FileId> id = file ? file_id(file) : std::nullopt;
    if (!id) continue;
    if (::flock(file.get(), LOCK_SH | LOCK_NB) == 0) {
      ::flock(file.get(), LOCK_UN);  // a child that was forked meanwhile keeps none either
      continue;
    }
    const bool is_held = errno == EWOULDBLOCK;  // else locks cannot be tried here
    if (std::optional<LockHolder> found = find_lock_holder(*id)) return found;
    if (is_held) hidden.emplace();
  }
  return hidden;
}

}  // namespace brackenfen::sync

#include "sync/base/files/root_directory.hpp"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <string_view>
#include <utility>
#include <vector>

#include "sync/base/files/paths.hpp"
#include "sync/base/text/text.hpp"
#include "sync/base/threads/interrupt.hpp"

namespace brackenfen::sync {
namespace {

constexpr int FOLDER_FLAGS = O_PATH | O_DIRECTORY;

/// False from the first refusal on, by a kernel before 5.6 or a filter that does not know the call.
std::atomic<bool> kernel_walks{true};

/// One step, which is refused as a link where it is one.
int open_step(int folder, const std::string& name, int flags) noexcept {
  const int opened = ::openat(folder, name.c_str(), flags | O_NOFOLLOW | O_CLOEXEC);
  struct stat status {};
  if (opened < 0 && errno == ENOTDIR && ::fstatat(folder, name.c_str(), &status, AT_SYMLINK_NOFOLLOW) == 0) {
    errno = S_ISLNK(status.st_mode) ? ELOOP : ENOTDIR;
  }
  return opened;
}

/// Goes to `relative_path` name by name; `enter(folder, name)` gives the next folder, or -1 with errno set.
template <typename Enter>
int walk_by_name(int folder, std::string_view relative_path, Enter enter) {
  Descriptor reached;
  for (const std::string_view name : split(relative_path, "/")) {
    const int next = enter(reached ? reached.get() : folder, std::string(name));
    if (next < 0) return -1;
    reached = Descriptor(next);
  }
  return std::exchange(reached, Descriptor()).release();
}

}  // namespace

int open_beneath(int folder, const std::string& relative_path, int flags, FolderWalk walk) noexcept {
  if (relative_path.empty()) return ::openat(folder, ".", flags | O_CLOEXEC);
  if (walk == FolderWalk::Kernel && kernel_walks.load(std::memory_order_relaxed)) {
    open_how how{};
    how.flags = static_cast<unsigned>(flags | O_CLOEXEC);
    how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS;
    const long opened = ::syscall(SYS_openat2, folder, relative_path.c_str(), &how, sizeof how);
    if (opened >= 0 || (errno != ENOSYS && errno != EPERM && errno != EAGAIN)) return static_cast<int>(opened);
    if (errno != EAGAIN) kernel_walks.store(false, std::memory_order_relaxed);
  }
  return walk_by_name(folder, relative_path, [flags](int parent, const std::string& name) { return open_step(parent, name, flags); });
}

RootDirectory::RootDirectory(std::string path)
    : path_(std::move(path)), directory_(std::make_shared<const Descriptor>(::open(path_.c_str(), FOLDER_FLAGS | O_CLOEXEC))) {}

std::shared_ptr<const Descriptor> RootDirectory::folder(const std::string& relative_path) const {
  if (!*directory_) {
    errno = ENOENT;
    return nullptr;
  }
  if (relative_path.empty()) return directory_;
  const int opened = open_beneath(directory_->get(), relative_path, FOLDER_FLAGS);
  return opened < 0 ? nullptr : std::make_shared<const Descriptor>(opened);
}

std::shared_ptr<const Descriptor> RootDirectory::make_folder(const std::string& relative_path) const {
  if (auto found = folder(relative_path)) return found;
  if (errno != ENOENT || !*directory_) throw os_error(errno, join_path(path_, relative_path));
  const int made = walk_by_name(directory_->get(), relative_path, [](int parent, const std::string& name) {
    const int found = open_step(parent, name, FOLDER_FLAGS);
    if (found >= 0 || errno != ENOENT) return found;
    if (::mkdirat(parent, name.c_str(), 0777) != 0 && errno != EEXIST) return -1;
    return open_step(parent, name, FOLDER_FLAGS);
  });
  if (made < 0) throw os_error(errno, join_path(path_, relative_path));
  return std::make_shared<const Descriptor>(made);
}

void RootDirectory::walk(const Visit& visit, const std::function<void(const Error&)>& failed) const {
  if (!*directory_) return failed(os_error(ENOENT, path_));
  std::vector<std::string> pending{""};      // relative, with a slash behind each
  std::shared_ptr<const Descriptor> parent;  // the folder read last, from which those in it open in one step
  std::string parent_path;
  while (!pending.empty()) {
    const std::string folder_path = std::move(pending.back());
    pending.pop_back();
    check_interrupt();
    try {
      const std::string relative_path(rstrip_char(folder_path, '/'));
      const bool is_child = parent && relative_path.rfind('/') + 1 == parent_path.size() && relative_path.starts_with(parent_path);
      const auto folder = std::make_shared<const Descriptor>(open_beneath(
          is_child ? parent->get() : get(), is_child ? relative_path.substr(parent_path.size()) : relative_path, O_RDONLY | O_DIRECTORY));
      const std::string prefix = path_ + "/" + folder_path;
      if (!*folder) throw os_error(errno, prefix);
      DirectoryReader reader(*folder, prefix);
      while (const dirent* const entry = reader.next()) {
        if (reader.is_directory(*entry)) pending.push_back(folder_path + entry->d_name + "/");
        visit(Place(folder, prefix + entry->d_name), reader, *entry);
      }
      parent = folder;
      parent_path = folder_path;
    } catch (const Error& error) {
      failed(error);
    }
  }
}

}  // namespace brackenfen::sync

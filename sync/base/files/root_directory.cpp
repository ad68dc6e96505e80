#include "sync/base/files/root_directory.hpp"

#include <fcntl.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <algorithm>
#include <atomic>
#include <cerrno>
#include <iterator>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

#include "sync/base/files/paths.hpp"
#include "sync/base/text/text.hpp"
#include "sync/base/threads/interrupt.hpp"
#include "sync/base/threads/parallel.hpp"

namespace brackenfen::sync {
namespace {

constexpr int FOLDER_FLAGS = O_PATH | O_DIRECTORY;

/// How far a search goes down on its own, before it shares out what lies below.
constexpr int LEVELS_READ_FIRST = 3;
constexpr std::size_t TOPS_WORTH_SHARING = 16;

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

/// What a search found in one folder; paths are relative to the root.
struct RootDirectory::Reading {
  std::string folder;
  std::vector<std::string> picked = {};
  std::vector<std::string> folders = {};
  std::optional<Error> failure = std::nullopt;
};

/// A folder and what lies below, or nothing yet: children open in one step from the folder that was read last.
class RootDirectory::Descent {
 public:
  Descent(const RootDirectory& root, const Search& search) : root_(root), search_(search) {}

  [[nodiscard]] Reading read(std::string folder) {
    check_interrupt();
    Reading reading{std::move(folder)};
    try {
      Descriptor opened = open(reading.folder);
      const std::string prefix = reading.folder.empty() ? "" : reading.folder + "/";
      if (!opened) throw os_error(errno, root_.path_ + "/" + prefix);
      DirectoryReader reader(opened, root_.path_ + "/" + prefix);
      std::string path = prefix;
      while (const dirent* const entry = reader.next()) {
        path.replace(prefix.size(), std::string::npos, entry->d_name);
        if (reader.is_directory(*entry) && is_entered(path, *entry)) reading.folders.push_back(path);
        if (search_.picks(path, reader, *entry)) reading.picked.push_back(path);
      }
      last_ = std::move(opened);
      last_prefix_ = prefix;
    } catch (const Error& error) {
      reading.failure = error;
    }
    return reading;
  }

  /// Everything below, without the folders in which nothing was picked.
  [[nodiscard]] std::vector<Reading> read_all(const std::string& top) {
    std::vector<Reading> readings;
    std::vector<std::string> pending{top};
    while (!pending.empty()) {
      std::string folder = std::move(pending.back());
      pending.pop_back();
      Reading reading = read(std::move(folder));
      std::ranges::move(std::exchange(reading.folders, {}), std::back_inserter(pending));
      if (reading.failure || !reading.picked.empty()) readings.push_back(std::move(reading));
    }
    return readings;
  }

 private:
  [[nodiscard]] bool is_entered(const std::string& path, const dirent& entry) const {
    return (search_.hidden_folders || entry.d_name[0] != '.') && std::ranges::find(search_.left_out, path) == search_.left_out.end();
  }

  [[nodiscard]] Descriptor open(const std::string& folder) const {
    const bool is_child = last_ && folder.rfind('/') + 1 == last_prefix_.size() && folder.starts_with(last_prefix_);
    return Descriptor(is_child ? open_beneath(last_.get(), folder.substr(last_prefix_.size()), O_RDONLY | O_DIRECTORY)
                               : open_beneath(root_.get(), folder, O_RDONLY | O_DIRECTORY));
  }

  const RootDirectory& root_;
  const Search& search_;
  Descriptor last_;
  std::string last_prefix_;  ///< with the slash behind it
};

void RootDirectory::search(const Search& search) const {
  if (!*directory_) return search.failed(os_error(ENOENT, path_), "");
  std::vector<Reading> above;
  std::vector<std::string> tops = search.folders;
  for (int level = 0; level < LEVELS_READ_FIRST && tops.size() < TOPS_WORTH_SHARING; ++level) {
    Descent descent(*this, search);
    std::vector<std::string> next;
    for (std::string& top : tops) {
      above.push_back(descent.read(std::move(top)));
      std::ranges::move(above.back().folders, std::back_inserter(next));
    }
    tops = std::move(next);
  }
  std::vector<std::vector<Reading>> below(tops.size());
  const auto make_work = [&]() -> IndexWork {
    return [&, descent = std::make_shared<Descent>(*this, search)](std::size_t index) {
      below[index] = descent->read_all(tops[index]);
      return true;
    };
  };
  static_cast<void>(for_each_index(tops.size(), make_work));

  const auto tell = [&](const Reading& reading) {
    if (reading.failure) search.failed(*reading.failure, reading.folder);
    const std::shared_ptr<const Descriptor> opened = reading.picked.empty() ? nullptr : folder(reading.folder);
    for (const std::string& path : reading.picked) {
      if (opened) search.found(Place(opened, join_path(path_, path)));
    }
  };
  std::ranges::for_each(above, tell);
  for (const std::vector<Reading>& readings : below) std::ranges::for_each(readings, tell);
}

}  // namespace brackenfen::sync

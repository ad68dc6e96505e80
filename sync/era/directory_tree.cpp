#include "sync/era/directory_tree.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <system_error>

#include "sync/base/error.hpp"
#include "sync/base/files/directory_reader.hpp"
#include "sync/base/files/paths.hpp"
#include "sync/base/files/root_directory.hpp"
#include "sync/base/threads/interrupt.hpp"

namespace brackenfen::sync {
namespace {

namespace fs = std::filesystem;

void throw_on(const std::error_code& failure, const std::string& path) {
  if (failure) throw os_error(failure.value(), path);
}

/// Calls `visit(entry)` for everything below `directory`, parents first.
template <typename Visit>
void walk(const std::string& directory, Visit visit) {
  std::error_code failure;
  fs::recursive_directory_iterator entries(directory, failure);
  throw_on(failure, directory);
  while (entries != fs::recursive_directory_iterator()) {
    check_interrupt();
    visit(*entries);
    entries.increment(failure);
    throw_on(failure, directory);
  }
}

/// Empties a directory beneath its descriptor, so that no name leads elsewhere, whatever is renamed meanwhile. Needs two
/// descriptors however deep the tree is.
class TreeRemoval {
 public:
  TreeRemoval(const std::string& path, Removal removal)
      : path_(path), removal_(removal), top_(open_file(path, O_RDONLY | O_DIRECTORY | O_NOFOLLOW)) {}

  void run() {
    enter("");
    while (true) {
      if (!open_.back().folders.empty()) {
        std::string name = std::move(open_.back().folders.back());
        open_.back().folders.pop_back();
        enter(std::move(name));
        continue;
      }
      look_up();
      const std::string name = std::move(open_.back().name);
      open_.pop_back();
      if (open_.empty()) return;
      if (const Descriptor parent = open_current()) remove(parent, name, AT_REMOVEDIR);
    }
  }

 private:
  static constexpr std::size_t FILES_PER_CHECK = 256;

  struct Folder {
    std::string name;
    std::vector<std::string> folders;  ///< still to be removed
  };

  void enter(std::string name) {
    open_.push_back({std::move(name), {}});
    Descriptor directory = open_current();
    if (!directory) return;
    std::vector<std::string> files;  // deleted once the folder is read: some file systems skip names otherwise
    DirectoryReader reader(directory, path_);
    while (const dirent* const entry = reader.next())
      (reader.is_directory(*entry) ? open_.back().folders : files).emplace_back(entry->d_name);
    for (std::size_t index = 0; index < files.size(); ++index) {
      if (index % FILES_PER_CHECK == 0) look_up();
      remove(directory, files[index], 0);
    }
  }

  void look_up() const {
    if (removal_ == Removal::Interruptible) check_interrupt();
  }

  /// The innermost of the open folders; empty where it has vanished.
  [[nodiscard]] Descriptor open_current() const {
    std::string relative_path;
    for (const Folder& folder : open_) relative_path = join_path(relative_path, folder.name);
    Descriptor directory(open_.size() < 2 ? ::openat(top_.get(), ".", O_RDONLY | O_DIRECTORY | O_CLOEXEC)
                                          : open_beneath(top_.get(), relative_path, O_RDONLY | O_DIRECTORY));
    if (!directory && errno != ENOENT) throw os_error(errno, path_);
    return directory;
  }

  void remove(const Descriptor& directory, const std::string& name, int flags) const {
    if (::unlinkat(directory.get(), name.c_str(), flags) != 0 && errno != ENOENT) throw os_error(errno, path_);
  }

  const std::string& path_;
  const Removal removal_;
  const Descriptor top_;
  std::vector<Folder> open_;  // from the top to the one that is being emptied
};

}  // namespace

bool is_directory_at(const Descriptor& directory, const std::string& path) noexcept {
  struct stat open {};
  struct stat found {};
  if (::fstat(directory.get(), &open) != 0 || ::lstat(path.c_str(), &found) != 0) return false;
  return S_ISDIR(found.st_mode) && open.st_dev == found.st_dev && open.st_ino == found.st_ino;
}

std::vector<std::string> child_directories(const std::string& directory) {
  std::vector<std::string> names;
  DirectoryReader reader(real_path(directory));
  while (const dirent* const entry = reader.next()) {
    if (reader.is_directory(*entry)) names.emplace_back(entry->d_name);
  }
  return names;
}

std::int64_t tree_size_bytes(const std::string& directory) {
  std::int64_t bytes = 0;
  walk(directory, [&](const fs::directory_entry& entry) {
    std::error_code failure;
    const bool is_file = entry.symlink_status(failure).type() == fs::file_type::regular;
    throw_on(failure, entry.path());
    if (!is_file) return;
    bytes += static_cast<std::int64_t>(entry.file_size(failure));
    throw_on(failure, entry.path());
  });
  return bytes;
}

void remove_tree(const std::string& path, Removal removal) {
  if (::unlink(path.c_str()) == 0 || errno == ENOENT) return;
  if (errno != EISDIR && errno != EPERM) throw os_error(errno, path);
  TreeRemoval(path, removal).run();
  if (::rmdir(path.c_str()) != 0 && errno != ENOENT) throw os_error(errno, path);
}

void delete_tmp_files(const std::string& directory) {
  RootDirectory(real_path(directory))
      .search({.picks = [](const std::string& path, const DirectoryReader&, const dirent&) { return path.ends_with(".tmp"); },
               .found =
                   [](const Place& place) {
                     if (::unlinkat(place.folder(), place.name(), 0) != 0) throw os_error(errno, place.path());
                   },
               .failed = [](const Error& error, const std::string&) { throw error; }});
}

}  // namespace brackenfen::sync

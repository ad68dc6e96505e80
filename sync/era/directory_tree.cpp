#include "sync/era/directory_tree.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <optional>

#include "sync/base/error.hpp"
#include "sync/base/files/directory_reader.hpp"
#include "sync/base/files/paths.hpp"
#include "sync/base/files/root_directory.hpp"
#include "sync/base/threads/interrupt.hpp"

namespace brackenfen::sync {
namespace {

/// Empties a directory beneath its descriptor, so that no name leads elsewhere, whatever is renamed meanwhile. Needs two
/// descriptors however deep the tree is.
class TreeRemoval {
 public:
  TreeRemoval(const Descriptor& top, const std::string& path, Removal removal) : path_(path), removal_(removal), top_(top) {}

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
  const Descriptor& top_;
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
  RootDirectory(real_path(directory))
      .search({.picks = [](const std::string&, const DirectoryReader& reader, const dirent& entry) { return !reader.is_directory(entry); },
               .found =
                   [&bytes](const Place& place) {
                     const std::optional<struct stat> file = look_at(place);
                     if (!file) throw os_error(ENOENT, place.path());
                     if (S_ISREG(file->st_mode)) bytes += file->st_size;
                   },
               .failed = [](const Error& error, const std::string&) { throw error; }});
  return bytes;
}

void remove_tree(const std::string& path, Removal removal) {
  if (::unlink(path.c_str()) == 0 || errno == ENOENT) return;
  if (errno != EISDIR && errno != EPERM) throw os_error(errno, path);
  remove_tree(open_file(path, O_RDONLY | O_DIRECTORY | O_NOFOLLOW), path, removal);
}

void remove_tree(const Descriptor& directory, const std::string& path, Removal removal) {
  TreeRemoval(directory, path, removal).run();
  if (is_directory_at(directory, path) && ::rmdir(path.c_str()) != 0 && errno != ENOENT) throw os_error(errno, path);
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

#include "sync/documents/local_files.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <functional>
#include <utility>

#include "sync/base/error.hpp"
#include "sync/base/files/path_below.hpp"
#include "sync/base/files/paths.hpp"
#include "sync/documents/manifest_paths.hpp"

namespace brackenfen::sync {
namespace {

/// Of a link that others make and remove again.
constexpr int MOST_TRIES = 8;

}  // namespace

LocalFiles::LocalFiles(std::string_view data_dir) : LocalFiles(data_dir, RootDirectory(real_path(expand_user(data_dir)))) {}

LocalFiles::LocalFiles(std::string_view data_dir, RootDirectory root) : data_dir_(data_dir), root_(std::move(root)), base_(root_.path()) {}

std::optional<FileStat> LocalFiles::stat(std::string_view file_path) {
  FileStat found;
  const Look result = is_plain_relative_path(file_path) ? look(file_path, found) : look(_safe_manifest_relative_path(file_path), found);
  if (result == Look::Found) return found;
  if (result == Look::Missing) return std::nullopt;
  struct stat status {};
  if (::stat(_manifest_local_path(data_dir_, file_path).c_str(), &status) != 0) return std::nullopt;
  return file_stat(status);
}

std::optional<LocalFiles::Opened> LocalFiles::open(std::string_view file_path) {
  const bool is_plain = is_plain_relative_path(file_path);
  const int folder = root_.get() < 0 ? -1 : open_parent(is_plain ? file_path : std::string_view(_safe_manifest_relative_path(file_path)));
  if (folder < 0) return std::nullopt;
  // Not blocking, since a pipe would wait here for its other end.
  Opened opened{Descriptor(::openat(folder, name_.c_str(), O_RDONLY | O_NOFOLLOW | O_NONBLOCK | O_CLOEXEC)), {}};
  struct stat status {};
  if (!opened.file || ::fstat(opened.file.get(), &status) != 0 || !S_ISREG(status.st_mode)) return std::nullopt;
  opened.stat = file_stat(status);
  return opened;
}

std::string LocalFiles::local_path(std::string_view file_path) {
  FileStat found;
  const std::string relative_path = _safe_manifest_relative_path(file_path);
  if (look(relative_path, found) == Look::NotDecided) return _manifest_local_path(data_dir_, file_path);
  return join_path(base_, relative_path);
}

LocalFiles::Look LocalFiles::look(std::string_view relative_path, FileStat& found) {
  if (root_.get() < 0) return Look::NotDecided;
  const int folder = open_parent(relative_path);
  if (folder < 0) return errno == ENOENT ? Look::Missing : Look::NotDecided;
  struct stat status {};
  if (::fstatat(folder, name_.c_str(), &status, AT_SYMLINK_NOFOLLOW) != 0) return errno == ENOENT ? Look::Missing : Look::NotDecided;
  if (S_ISLNK(status.st_mode)) return Look::NotDecided;
  found = file_stat(status);
  return Look::Found;
}

int LocalFiles::open_parent(std::string_view relative_path) {
  const std::size_t slash = relative_path.rfind('/');
  const bool in_folder = slash != std::string_view::npos;
  name_.assign(in_folder ? relative_path.substr(slash + 1) : relative_path);
  return in_folder ? open_folder(relative_path.substr(0, slash)) : root_.get();
}

int LocalFiles::open_folder(std::string_view folder_path) {
  Folder& folder = folders_[std::hash<std::string_view>()(folder_path) % MAX_OPEN_FOLDERS];
  if (folder.descriptor && folder.path == folder_path) return folder.descriptor.get();
  folder.descriptor = Descriptor();
  folder.path.assign(folder_path);
  folder.descriptor = Descriptor(open_beneath(root_.get(), folder.path, O_PATH | O_DIRECTORY));
  return folder.descriptor.get();
}

Place LocalFiles::place(std::string_view file_path, Parents parents) {
  last_place_folder_.reset();
  return next_place(file_path, parents);
}

std::shared_ptr<const Descriptor> LocalFiles::place_folder(const std::string& folder_path) {
  if (!last_place_folder_ || last_place_folder_path_ != folder_path) {
    last_place_folder_ = root_.folder(folder_path);
    last_place_folder_path_ = folder_path;
  }
  return last_place_folder_;
}

Place LocalFiles::next_place(std::string_view file_path, Parents parents) { return find_place(file_path, parents, nullptr); }

bool LocalFiles::still_leads_to(const Place& place, std::string_view file_path) {
  last_place_folder_.reset();
  return in_same_folder(place, find_place(file_path, Parents::Make, &place));
}

Place LocalFiles::find_place(std::string_view file_path, Parents parents, const Place* known) {
  std::string relative_path = _safe_manifest_relative_path(file_path);
  for (int tries = 1;; ++tries) {
    const std::string folder_path = directory_of(relative_path);
    const std::shared_ptr<const Descriptor> folder = place_folder(folder_path);
    const int reason = errno;
    if (folder) {
      Place place(folder, join_path(base_, relative_path));
      const bool is_known = known != nullptr && known->path() == place.path();
      const std::optional<struct stat> found = is_known ? std::nullopt : look_at(place);
      // What a link leads to takes its place; a link that leads nowhere at all is one to be replaced.
      if (!found || !S_ISLNK(found->st_mode) || tries > 1) {
        if (own_files_.contains(relative_path)) throw own_file_refusal(file_path);
        return place;
      }
    } else if (reason == ENOENT && parents == Parents::Make) {
      if (own_files_.contains(relative_path)) throw own_file_refusal(file_path);
      return {root_.make_folder(folder_path), join_path(base_, relative_path)};
    } else if (reason != ELOOP || tries == MOST_TRIES) {
      throw os_error(reason, join_path(base_, folder_path));
    }
    const std::string resolved = _manifest_local_path(data_dir_, file_path);
    const std::optional<std::string_view> below = path_below(base_, resolved);
    if (!below || below->empty()) throw os_error(below ? EISDIR : ENOENT, resolved);
    relative_path = *below;
  }
}

}  // namespace brackenfen::sync

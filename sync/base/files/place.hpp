// Where a file lies: by its path, or as a name in a folder that is open.
//
// Between two uses of a path, a folder on it can turn into a link that leads somewhere else. A name in an open folder
// stays where it is, so what is written, moved or removed below a data directory goes by that.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>

#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <utility>

#include "sync/base/files/descriptor.hpp"

namespace brackenfen::sync {

class Place {
 public:
  /// Whatever the path leads to when it is used. A text stands for its place wherever one is asked for.
  Place(std::string path) : path_(std::move(path)) {}  // NOLINT(google-explicit-constructor)
  /// The last part of `path` in `folder`, which is shared. Errors name the path.
  Place(std::shared_ptr<const Descriptor> folder, std::string path)
      : path_(std::move(path)), folder_(std::move(folder)), name_at_(path_.rfind('/') + 1) {}

  [[nodiscard]] const std::string& path() const noexcept { return path_; }
  /// For the system's calls that take a folder and a name.
  [[nodiscard]] int folder() const noexcept { return folder_ ? folder_->get() : AT_FDCWD; }
  [[nodiscard]] const char* name() const noexcept { return path_.c_str() + name_at_; }
  [[nodiscard]] bool has_folder() const noexcept { return folder_ != nullptr; }
  /// The name with `ending` appended, in the same folder.
  [[nodiscard]] Place beside(std::string_view ending) const;

 private:
  std::string path_;
  std::shared_ptr<const Descriptor> folder_;
  std::size_t name_at_ = 0;
};

/// What tells one file or folder from any other that exists at the same time.
struct FileId {
  dev_t device = 0;
  ino_t inode = 0;
  bool operator==(const FileId&) const = default;
};
/// Of what `path` leads to, links followed; absent for nothing.
[[nodiscard]] std::optional<FileId> file_id(const std::string& path) noexcept;
[[nodiscard]] std::optional<FileId> file_id(const Descriptor& file) noexcept;

/// What stands there itself, a link included; absent where nothing does. Throws os_error.
[[nodiscard]] std::optional<struct stat> look_at(const Place& place);
/// The same where that is `file`; absent for anything else.
[[nodiscard]] std::optional<struct stat> look_for(const FileId& file, const Place& place) noexcept;
/// Whether both lie in one folder, by whichever descriptors.
[[nodiscard]] bool in_same_folder(const Place& one, const Place& other) noexcept;
/// openat(2) as open_file.
[[nodiscard]] Descriptor open_at(const Place& place, int flags, unsigned mode = 0666);
/// Opens a regular file that nobody reaches by another name, made empty where there is none. A link, a special file and
/// a file with further names give way; none is ever followed, written to or waited for. `id` becomes the file's. Throws
/// os_error, EISDIR for a folder.
[[nodiscard]] Descriptor open_own_file(const Place& place, int flags, FileId* id = nullptr);

}  // namespace brackenfen::sync

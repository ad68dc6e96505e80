#include "sync/base/files/directory_reader.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <cerrno>
#include <string_view>

#include "sync/base/error.hpp"

namespace brackenfen::sync {

DirectoryReader::DirectoryReader(const std::string& path) : path_(path) { read_from(open_file(path, O_RDONLY | O_DIRECTORY | O_NOFOLLOW)); }

DirectoryReader::DirectoryReader(const Descriptor& folder, const std::string& path) : path_(path) { read_from(duplicate(folder, path)); }

void DirectoryReader::read_from(Descriptor folder) {
  stream_.reset(::fdopendir(folder.get()));
  if (!stream_) throw os_error(errno, path_);
  static_cast<void>(folder.release());  // the stream closes it
}

const dirent* DirectoryReader::next() {
  for (;;) {
    errno = 0;
    const dirent* const entry = ::readdir(stream_.get());
    if (entry == nullptr && errno != 0) throw os_error(errno, path_);
    if (entry == nullptr) return nullptr;
    const std::string_view name = entry->d_name;
    if (name != "." && name != "..") return entry;
  }
}

bool DirectoryReader::is_directory(const dirent& entry) const noexcept {
  if (entry.d_type != DT_UNKNOWN) return entry.d_type == DT_DIR;
  struct stat found {};
  return ::fstatat(::dirfd(stream_.get()), entry.d_name, &found, AT_SYMLINK_NOFOLLOW) == 0 && S_ISDIR(found.st_mode);
}

bool DirectoryReader::links_to_directory(const dirent& entry) const noexcept {
  if (entry.d_type != DT_UNKNOWN && entry.d_type != DT_LNK) return false;
  struct stat found {};
  return !is_directory(entry) && ::fstatat(::dirfd(stream_.get()), entry.d_name, &found, 0) == 0 && S_ISDIR(found.st_mode);
}

}  // namespace brackenfen::sync

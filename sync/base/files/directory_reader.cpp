#include "sync/base/files/directory_reader.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <string_view>

#include "sync/base/error.hpp"

namespace brackenfen::sync {

DirectoryReader::DirectoryReader(const std::string& path) : path_(path) {
  const int number = ::open(path.c_str(), O_RDONLY | O_DIRECTORY | O_NOFOLLOW | O_CLOEXEC);
  if (number < 0) throw os_error(errno, path);
  stream_.reset(::fdopendir(number));
  if (!stream_) {
    const int reason = errno;
    ::close(number);
    throw os_error(reason, path);
  }
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

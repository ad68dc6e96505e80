#include "sync/base/files/place.hpp"

#include <unistd.h>

#include <cerrno>

#include "sync/base/error.hpp"

namespace brackenfen::sync {
namespace {

/// Of something that others put in the way again and again.
constexpr int MOST_TRIES = 100;

bool same_file(const struct stat& one, const struct stat& other) noexcept {
  return one.st_dev == other.st_dev && one.st_ino == other.st_ino;
}

bool is_own_file(const struct stat& status) noexcept { return S_ISREG(status.st_mode) && status.st_nlink <= 1; }

/// Absent where the name was made, removed or replaced since the look at it.
std::optional<Descriptor> open_as_seen(const Place& place, bool is_new, int flags) {
  try {
    return open_at(place, flags | O_NOFOLLOW | O_NONBLOCK | (is_new ? O_CREAT | O_EXCL : 0));
  } catch (const Error& error) {
    const Value& reason = error.fields().get("errno");
    if (reason != Value(is_new ? EEXIST : ENOENT) && reason != Value(ELOOP) && reason != Value(ENXIO)) throw;
    return std::nullopt;
  }
}

}  // namespace

Place Place::beside(std::string_view ending) const {
  Place other(*this);
  other.path_ += ending;
  return other;
}

std::optional<FileId> file_id(const std::string& path) noexcept {
  struct stat status {};
  if (::stat(path.c_str(), &status) != 0) return std::nullopt;
  return FileId{status.st_dev, status.st_ino};
}

std::optional<struct stat> look_at(const Place& place) {
  struct stat status {};
  if (::fstatat(place.folder(), place.name(), &status, AT_SYMLINK_NOFOLLOW) == 0) return status;
  if (errno == ENOENT) return std::nullopt;
  throw os_error(errno, place.path());
}

bool is_named(const Descriptor& file, const Place& place) noexcept {
  struct stat open {};
  struct stat named {};
  return ::fstat(file.get(), &open) == 0 && ::fstatat(place.folder(), place.name(), &named, AT_SYMLINK_NOFOLLOW) == 0 &&
         same_file(open, named);
}

bool in_same_folder(const Place& one, const Place& other) noexcept {
  struct stat first {};
  struct stat second {};
  return ::fstatat(one.folder(), "", &first, AT_EMPTY_PATH) == 0 && ::fstatat(other.folder(), "", &second, AT_EMPTY_PATH) == 0 &&
         same_file(first, second);
}

Descriptor open_at(const Place& place, int flags, unsigned mode) {
  // The system would stop reading at the NUL and open another file.
  if (place.path().find('\0') != std::string::npos) throw ValueError("embedded null byte");
  for (;;) {
    const int number = ::openat(place.folder(), place.name(), flags | O_CLOEXEC, mode);
    if (number >= 0) return Descriptor(number);
    if (errno != EINTR) throw os_error(errno, place.path());
  }
}

Descriptor open_own_file(const Place& place, int flags) {
  for (int tries = 0; tries < MOST_TRIES; ++tries) {
    const std::optional<struct stat> seen = look_at(place);
    if (!seen || is_own_file(*seen)) {
      std::optional<Descriptor> file = open_as_seen(place, !seen, flags);
      struct stat status {};
      if (file && ::fstat(file->get(), &status) == 0 && is_own_file(status)) return *std::move(file);
    } else if (S_ISDIR(seen->st_mode)) {
      throw os_error(EISDIR, place.path());
    } else if (::unlinkat(place.folder(), place.name(), 0) != 0 && errno != ENOENT) {
      throw os_error(errno, place.path());
    }
  }
  throw os_error(EBUSY, place.path());
}

}  // namespace brackenfen::sync

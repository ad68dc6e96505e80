#include "sync/base/files/place.hpp"

#include <unistd.h>

#include <cerrno>

#include "sync/base/error.hpp"
#include "sync/base/files/lease_wait.hpp"

namespace brackenfen::sync {
namespace {

/// Of something that others put in the way again and again.
constexpr int MOST_TRIES = 100;

FileId id_of(const struct stat& status) noexcept { return {status.st_dev, status.st_ino}; }

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
  return id_of(status);
}

std::optional<FileId> file_id(const Descriptor& file) noexcept {
  struct stat status {};
  if (::fstat(file.get(), &status) != 0) return std::nullopt;
  return id_of(status);
}

std::optional<struct stat> look_at(const Place& place) {
  struct stat status {};
  if (::fstatat(place.folder(), place.name(), &status, AT_SYMLINK_NOFOLLOW) == 0) return status;
  if (errno == ENOENT) return std::nullopt;
  throw os_error(errno, place.path());
}

std::optional<struct stat> look_for(const FileId& file, const Place& place) noexcept {
  struct stat status {};
  if (::fstatat(place.folder(), place.name(), &status, AT_SYMLINK_NOFOLLOW) != 0 || id_of(status) != file) return std::nullopt;
  return status;
}

bool in_same_folder(const Place& one, const Place& other) noexcept {
  struct stat first {};
  struct stat second {};
  return ::fstatat(one.folder(), "", &first, AT_EMPTY_PATH) == 0 && ::fstatat(other.folder(), "", &second, AT_EMPTY_PATH) == 0 &&
         id_of(first) == id_of(second);
}

Descriptor open_at(const Place& place, int flags, unsigned mode) {
  return open_patiently(place.path(), [&] { return ::openat(place.folder(), place.name(), flags | O_CLOEXEC, mode); });
}

Descriptor open_own_file(const Place& place, int flags, FileId* id) {
  for (int tries = 0; tries < MOST_TRIES; ++tries) {
    // Most often there is none, which the attempt to make one tells at once.
    const std::optional<struct stat> seen = tries > 0 ? look_at(place) : std::nullopt;
    if (!seen || is_own_file(*seen)) {
      std::optional<Descriptor> file = open_as_seen(place, !seen, flags);
      struct stat status {};
      if (file && ::fstat(file->get(), &status) == 0 && is_own_file(status)) {
        if (id != nullptr) *id = id_of(status);
        return *std::move(file);
      }
    } else if (S_ISDIR(seen->st_mode)) {
      throw os_error(EISDIR, place.path());
    } else if (::unlinkat(place.folder(), place.name(), 0) != 0 && errno != ENOENT) {
      throw os_error(errno, place.path());
    }
  }
  throw os_error(EBUSY, place.path());
}

}  // namespace brackenfen::sync

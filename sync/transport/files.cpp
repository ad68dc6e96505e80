#include "sync/transport/files.hpp"

#include <fcntl.h>
#include <pthread.h>
#include <sys/stat.h>
#include <sys/statvfs.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <limits>
#include <memory>
#include <utility>

#include "sync/base/error.hpp"
#include "sync/base/files/paths.hpp"
#include "sync/base/files/sha256.hpp"
#include "sync/base/threads/failure.hpp"
#include "sync/base/threads/interrupt.hpp"

namespace brackenfen::sync {
namespace {

/// Larger reads are no faster: they leave the processor's caches before they are hashed.
constexpr std::size_t HASH_BLOCK_BYTES = 512 * 1024;

std::int64_t nanoseconds(const timespec& time) { return static_cast<std::int64_t>(time.tv_sec) * 1'000'000'000 + time.tv_nsec; }

class SystemFiles final : public Files {
 public:
  void rename(const Place& from, const Place& to) override {
    while (::renameat(from.folder(), from.name(), to.folder(), to.name()) != 0) {
      const int reason = errno;
      if (reason != EISDIR || ::unlinkat(to.folder(), to.name(), AT_REMOVEDIR) != 0) throw os_error(reason, from.path(), to.path());
    }
  }

  void unlink(const Place& place) override {
    if (::unlinkat(place.folder(), place.name(), 0) != 0) throw os_error(errno, place.path());
  }

  void write_new(const Place& place, std::string_view data) override {
    Descriptor file = open_at(place, O_WRONLY | O_CREAT | O_EXCL | O_NOFOLLOW);
    write_all(file, data, place.path());
    file.close();
  }

  void flush(const Place& place) override {
    const Descriptor file = open_at(place, O_RDONLY | O_NOFOLLOW);
    while (::fsync(file.get()) != 0) {
      if (errno == EINVAL || errno == ENOTSUP) return;
      if (errno != EINTR) throw os_error(errno, place.path());
    }
  }

  std::optional<FileStat> stat(const std::string& path) override {
    struct stat found {};
    if (::stat(path.c_str(), &found) != 0) {
      if (errno == ENOENT || errno == ENOTDIR || errno == ELOOP || errno == ENAMETOOLONG) return std::nullopt;
      throw os_error(errno, path);
    }
    return file_stat(found);
  }

  std::int64_t free_bytes(const std::string& directory) override {
    struct statvfs volume {};
    int outcome = 0;
    do {
      outcome = ::statvfs(directory.c_str(), &volume);
    } while (outcome != 0 && errno == EINTR);
    if (outcome != 0) throw os_error(errno, directory);
    std::int64_t bytes = 0;
    const bool too_many = __builtin_mul_overflow(volume.f_bavail, volume.f_frsize, &bytes);
    return too_many ? std::numeric_limits<std::int64_t>::max() : bytes;
  }

  void set_mtime(const std::string& path, std::int64_t mtime_ns) override {
    constexpr std::int64_t NS_PER_SECOND = 1'000'000'000;
    const std::int64_t seconds = mtime_ns / NS_PER_SECOND - (mtime_ns % NS_PER_SECOND < 0 ? 1 : 0);
    const timespec times[] = {{0, UTIME_OMIT}, {seconds, mtime_ns - seconds * NS_PER_SECOND}};
    if (::utimensat(AT_FDCWD, path.c_str(), times, 0) != 0) throw os_error(errno, path);
  }
};

/// One block and one digest for each thread that hashes, for as long as the thread lives.
struct HashWorkspace {
  std::unique_ptr<char[]> block = std::make_unique_for_overwrite<char[]>(HASH_BLOCK_BYTES);
  Sha256 digest;
};

HashWorkspace& hash_workspace() {
  thread_local HashWorkspace workspace;
  return workspace;
}

}  // namespace

FileStat file_stat(const struct stat& status) noexcept {
  return {.size_bytes = status.st_size,
          .mtime_ns = nanoseconds(status.st_mtim),
          .ctime_ns = nanoseconds(status.st_ctim),
          .inode = static_cast<std::int64_t>(status.st_ino),
          .is_directory = S_ISDIR(status.st_mode),
          .is_regular = S_ISREG(status.st_mode),
          .device = static_cast<std::int64_t>(status.st_dev)};
}

std::optional<FileStat> stat_or_absent(Files& files, const std::string& path) {
  try {
    return files.stat(path);
  } catch (const Error& error) {
    if (error.is(error_class::OSError)) return std::nullopt;
    throw;
  }
}

std::optional<FileStat> stat_of_landed(Files& files, const std::string& path, const std::optional<FileStat>& before) {
  const std::optional<FileStat> landed = before ? stat_or_absent(files, path) : std::nullopt;
  if (!landed) return std::nullopt;
  FileStat expected = *before;
  expected.ctime_ns = landed->ctime_ns;
  return *landed == expected ? landed : std::nullopt;
}

Files& Files::real() {
  static Files& files = *new SystemFiles;
  return files;
}

std::optional<FileStat> _atomic_write(Files& files, Clock& clock, const Place& target, std::string_view data, Flush flush) {
  const Place temporary = target.beside("." + std::to_string(::getpid()) + "." + std::to_string(::pthread_self()) + "." +
                                        std::to_string(clock.monotonic_ns()) + ".tmp");
  if (!target.has_folder()) {
    if (const std::string directory = directory_of(target.path()); !directory.empty()) make_directories(directory);
  }
  try {
    files.write_new(temporary, data);
    std::optional<FileStat> written = stat_or_absent(files, temporary.path());
    if (written && written->size_bytes != static_cast<std::int64_t>(data.size())) written.reset();
    if (flush == Flush::Yes) files.flush(temporary);
    files.rename(temporary, target);
    // What has landed stays: a folder that cannot be flushed is none of the writer's failures.
    if (flush == Flush::Yes) drop_failure([&] { files.flush(directory_of(target.path())); });
    return stat_of_landed(files, target.path(), written);
  } catch (...) {
    drop_failure([&] { files.unlink(temporary); });  // the first failure is the one to tell
    throw;
  }
}

std::string _sha256_file(const std::string& filepath, std::int64_t chunk_bytes) {
  return sha256_of_open_file(open_regular_file(filepath), filepath, chunk_bytes);
}

std::string sha256_of_open_file(const Descriptor& file, const std::string& filepath, std::int64_t chunk_bytes) {
  const std::size_t block_bytes = chunk_bytes > 0 ? std::min(HASH_BLOCK_BYTES, static_cast<std::size_t>(chunk_bytes)) : HASH_BLOCK_BYTES;
  HashWorkspace& workspace = hash_workspace();
  workspace.digest.reset();
  bool advised = false;
  while (const std::size_t count = read_some(file, workspace.block.get(), block_bytes, filepath)) {
    // A file that one block holds needs no reading ahead.
    if (count == block_bytes && !std::exchange(advised, true)) ::posix_fadvise(file.get(), 0, 0, POSIX_FADV_SEQUENTIAL);
    workspace.digest.update(workspace.block.get(), count);
    check_interrupt();
  }
  return workspace.digest.hex_digest();
}

}  // namespace brackenfen::sync

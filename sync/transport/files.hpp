// Whole files: atomic writes, digests, and the file operations that tests make fail.
#pragma once

#include <sys/stat.h>

#include <cstdint>
#include <optional>
#include <string>
#include <string_view>

#include "sync/base/files/descriptor.hpp"
#include "sync/base/files/place.hpp"
#include "sync/base/threads/clock.hpp"

namespace brackenfen::sync {

inline constexpr std::int64_t SYNC_HASH_FILE_CHUNK_BYTES = 8388608;

/// The size and identity of a file. Times in nanoseconds since the epoch.
struct FileStat {
  std::int64_t size_bytes = 0;
  std::int64_t mtime_ns = 0;
  std::int64_t ctime_ns = 0;
  std::int64_t inode = 0;
  bool is_directory = false;
  bool is_regular = true;  ///< no directory, pipe, socket or device
  std::int64_t device = 0;

  /// One file, and unchanged.
  bool operator==(const FileStat&) const = default;
};
/// Of what stat(2) gave.
[[nodiscard]] FileStat file_stat(const struct stat& status) noexcept;

/// File operations as a seam: only what must be able to fail or be counted. All throw os_error.
class Files {
 public:
  virtual ~Files() = default;
  /// Replaces a file, a link, and also an empty folder.
  virtual void rename(const Place& from, const Place& to) = 0;
  virtual void unlink(const Place& place) = 0;
  /// Creates a file, which must not exist, and writes `data`; no flush to stable storage. A failed write leaves a
  /// part behind.
  virtual void write_new(const Place& place, std::string_view data) = 0;
  /// Waits until a file's bytes, or a folder's names, are on stable storage. Where the file system knows no such thing it is
  /// done at once.
  virtual void flush(const Place& place) = 0;
  /// Follows links. Absent where the file does not exist.
  [[nodiscard]] virtual std::optional<FileStat> stat(const std::string& path) = 0;
  /// Bytes that an unprivileged process may still write on the volume of `directory`.
  [[nodiscard]] virtual std::int64_t free_bytes(const std::string& directory) = 0;
  /// Sets the time of the last modification, in nanoseconds since the epoch.
  virtual void set_mtime(const std::string& path, std::int64_t mtime_ns) = 0;

  static Files& real();
};

/// Absent too where the file cannot be looked at.
[[nodiscard]] std::optional<FileStat> stat_or_absent(Files& files, const std::string& path);

/// What lies at `path` after a rename, where that is the file of `before`, which the rename changed in nothing but its
/// ctime. Absent where it is not, and without a `before`.
[[nodiscard]] std::optional<FileStat> stat_of_landed(Files& files, const std::string& path, const std::optional<FileStat>& before);

enum class Flush : bool { No, Yes };

/// Writes `data` to a name of its own beside `target` ("{target}.{pid}.{thread}.{monotonic ns}.tmp") and renames it over,
/// creating missing parents of a plain path. A reader sees the old content or the new, never a part.
/// Without `flush` it is atomic against readers and a crash of the process, not a power failure; with it the bytes are on
/// stable storage before the rename, and the new name as far as the folder can be flushed.
/// Throws os_error; the temporary file is gone then and the target untouched. Returns the stat of what was written, as
/// stat_of_landed gives it.
std::optional<FileStat> _atomic_write(Files& files, Clock& clock, const Place& target, std::string_view data, Flush flush = Flush::No);

/// Lower-case hexadecimal SHA-256 of a file, read in blocks: memory stays bounded by the smaller of
/// `chunk_bytes` and the block size that hashes fastest. Throws os_error, also for what is no regular file; Interrupted
/// between two blocks.
[[nodiscard]] std::string _sha256_file(const std::string& filepath, std::int64_t chunk_bytes = SYNC_HASH_FILE_CHUNK_BYTES);
/// The same for a file that is open at its beginning; errors name `filepath`.
[[nodiscard]] std::string sha256_of_open_file(const Descriptor& file, const std::string& filepath,
                                              std::int64_t chunk_bytes = SYNC_HASH_FILE_CHUNK_BYTES);

}  // namespace brackenfen::sync

#include "sync/engine/staging_file.hpp"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <mutex>
#include <vector>

#include "sync/base/error.hpp"
#include "sync/base/threads/fresh_after_fork.hpp"
#include "sync/base/threads/interrupt.hpp"

namespace brackenfen::sync {
namespace {

constexpr std::size_t READ_BLOCK_BYTES = 1048576;
/// The network hands over a few KiB at a time; written and digested in blocks of this size, which stay in the
/// processor's cache in between, or after a moment, so that a kill on a slow link loses little.
constexpr std::size_t WRITE_BLOCK_BYTES = 262144;
constexpr std::int64_t LONGEST_HELD_BACK_NS = 50'000'000;
/// Of opening a file that is replaced or removed each time before it is locked.
constexpr int MOST_TRIES = 100;

/// One for each file that is likely to be moved at the same time.
struct NameMutexes {
  std::array<std::mutex, 64> mutexes;
};

NameMutexes& name_mutexes() { return fresh_after_fork<NameMutexes>(); }
[[maybe_unused]] static const auto& made_at_load = name_mutexes();  // see at_fork_child

/// Held from a look at the name of this staging file until the name has changed, so that nobody of this process changes
/// it in between.
std::mutex& name_mutex(const FileId& file) {
  auto& mutexes = name_mutexes().mutexes;
  return mutexes[file.inode % mutexes.size()];
}

/// As read_some and write_all, at a place in the file: where the last read or write ended says nothing.
std::size_t read_at(const Descriptor& file, std::int64_t offset, char* buffer, std::size_t size, const std::string& path) {
  for (;;) {
    const ssize_t count = ::pread(file.get(), buffer, size, offset);
    if (count >= 0) return static_cast<std::size_t>(count);
    if (errno != EINTR) throw os_error(errno, path);
  }
}

void write_at(const Descriptor& file, std::int64_t offset, std::string_view bytes, const std::string& path) {
  while (!bytes.empty()) {
    const ssize_t count = ::pwrite(file.get(), bytes.data(), bytes.size(), offset);
    if (count >= 0) {
      bytes.remove_prefix(static_cast<std::size_t>(count));
      offset += count;
    } else if (errno != EINTR) {
      throw os_error(errno, path);
    }
  }
}

/// False where another download has the file open. File systems without such locks leave it at the look at the name.
bool try_lock(const Descriptor& file) noexcept { return ::flock(file.get(), LOCK_EX | LOCK_NB) == 0 || errno != EWOULDBLOCK; }

}  // namespace

void StagingFile::open(bool may_begin) {
  require_own_process();
  const std::optional<struct stat> named = file_ ? look_for(id_, place_) : std::nullopt;
  if (!named && !may_begin) throw os_error(ENOENT, place_.path());
  digest_prefix(named ? named->st_size : take_file());
}

std::int64_t StagingFile::take_file() {
  Descriptor other;  // the first that another download had open
  for (int tries = 0; tries < MOST_TRIES; ++tries) {
    Descriptor found;
    FileId id;
    try {
      found = open_own_file(place_, O_RDWR, &id);
    } catch (const Error& error) {
      // A folder that holds something belongs to somebody; while an empty one stays, no pass can succeed.
      const bool is_folder = error.fields().get("errno") == Value(EISDIR);
      if (!is_folder || ::unlinkat(place_.folder(), place_.name(), AT_REMOVEDIR) != 0) throw;
      continue;
    }
    if (!try_lock(found)) {
      take_name(id);
      if (!other) other = std::move(found);
    } else if (const std::optional<struct stat> named = look_for(id, place_)) {  // else it has just landed, or lost its name
      file_ = std::move(found);
      id_ = id;
      return other ? copy_from(other) : named->st_size;
    }
  }
  throw os_error(EBUSY, place_.path());
}

void StagingFile::take_name(const FileId& other) const {
  const std::lock_guard lock(name_mutex(other));
  if (!look_for(other, place_)) return;
  if (::unlinkat(place_.folder(), place_.name(), 0) != 0 && errno != ENOENT) throw os_error(errno, place_.path());
}

std::int64_t StagingFile::copy_from(const Descriptor& other) {
  std::vector<char> block(READ_BLOCK_BYTES);
  std::int64_t copied_bytes = 0;
  truncate(0);  // of what one that had the name in between has left
  while (const std::size_t count = read_some(other, block.data(), block.size(), place_.path())) {
    write_at(file_, copied_bytes, {block.data(), count}, place_.path());
    copied_bytes += static_cast<std::int64_t>(count);
    check_interrupt();
  }
  return copied_bytes;
}

void StagingFile::require_own_process() const {
  if (fork_generation_ != fork_generation()) throw StateError("this download began before fork(): it goes on in the parent alone");
}

void StagingFile::require_name() const {
  require_own_process();
  if (!look_for(id_, place_)) throw os_error(ENOENT, place_.path());
}

std::optional<FileStat> StagingFile::land(Files& files, const Place& target) {
  const Descriptor locked = duplicate(file_, place_.path());  // so that nobody takes the file over before it has moved
  file_.close();
  const std::optional<FileStat> written = move_to(files, target);
  return stat_of_landed(files, target.path(), written);
}

std::optional<FileStat> StagingFile::move_to(Files& files, const Place& target) const {
  const std::lock_guard lock(name_mutex(id_));
  const std::optional<struct stat> named = look_for(id_, place_);
  if (!named) throw os_error(ENOENT, place_.path());
  files.rename(place_, target);
  return named->st_size == bytes_.held ? std::optional(file_stat(*named)) : std::nullopt;
}

void StagingFile::digest_prefix(std::int64_t size_bytes) {
  forget_content();
  std::vector<char> block;  // none where there is nothing to read, as for most files
  while (bytes_.held < size_bytes) {
    if (block.empty()) block.resize(READ_BLOCK_BYTES);
    const auto wanted = static_cast<std::size_t>(std::min<std::int64_t>(size_bytes - bytes_.held, READ_BLOCK_BYTES));
    const std::size_t count = read_at(file_, bytes_.held, block.data(), wanted, place_.path());
    if (count == 0) return;
    digest_.update(block.data(), count);
    bytes_.held += static_cast<std::int64_t>(count);
    check_interrupt();
  }
}

void StagingFile::clear() {
  require_own_process();
  if (look_for(id_, place_)) truncate(0);
  forget_content();
}

void StagingFile::forget_content() {
  digest_.reset();
  bytes_.held = 0;
}

void StagingFile::expect(std::optional<std::uint64_t> partial_limit, std::optional<std::uint64_t> whole_limit) {
  partial_limit_ = partial_limit;
  whole_limit_ = whole_limit;
  start_bytes_ = bytes_.held;
  if (start_bytes_ > 0) (start_digest_ ? *start_digest_ : start_digest_.emplace()).assign(digest_);
  received_bytes_ = 0;
  overwrites_ = false;
}

std::uint64_t StagingFile::begin(int status) {
  require_own_process();
  if (status == 200 && whole_limit_) {
    overwrites_ = start_bytes_ > 0;
    forget_content();
    return *whole_limit_;
  }
  return status == 206 && partial_limit_ ? *partial_limit_ : 0;
}

void StagingFile::accept(std::string_view bytes) {
  const std::int64_t now_ns = clock_.monotonic_ns();
  if (block_.empty()) held_back_since_ns_ = now_ns;
  if (block_.size() + bytes.size() > WRITE_BLOCK_BYTES) flush();
  block_.append(bytes);
  bytes_.held += static_cast<std::int64_t>(bytes.size());
  if (now_ns - held_back_since_ns_ > LONGEST_HELD_BACK_NS) flush();
  received_bytes_ += bytes.size();
  bytes_.received += static_cast<std::int64_t>(bytes.size());
}

void StagingFile::flush() {
  if (block_.empty()) return;
  require_name();
  write_at(file_, bytes_.held - static_cast<std::int64_t>(block_.size()), block_, place_.path());
  digest_.update(block_);
  block_.clear();
}

void StagingFile::keep_whole() {
  if (start_bytes_ > bytes_.held) truncate(bytes_.held);
}

void StagingFile::roll_back() {
  block_.clear();
  truncate(start_bytes_);  // also what a failing write left behind
  if (overwrites_) {
    digest_prefix(start_bytes_);  // the same bytes again if the file has not changed; the checksum decides
  } else {
    start_bytes_ > 0 ? digest_.assign(*start_digest_) : digest_.reset();
    bytes_.held = start_bytes_;
  }
  received_bytes_ = 0;
  overwrites_ = false;
}

void StagingFile::truncate(std::int64_t size_bytes) {
  require_name();
  while (::ftruncate(file_.get(), size_bytes) < 0) {
    if (errno != EINTR) throw os_error(errno, place_.path());
  }
}

}  // namespace brackenfen::sync

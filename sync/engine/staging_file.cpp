#include "sync/engine/staging_file.hpp"

#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <limits>
#include <mutex>
#include <new>
#include <vector>

#include "sync/base/error.hpp"
#include "sync/base/threads/fork.hpp"
#include "sync/base/threads/interrupt.hpp"

namespace brackenfen::sync {
namespace {

constexpr std::size_t READ_BLOCK_BYTES = 1048576;
/// The network hands over a few KiB at a time; written and digested in blocks of this size, which stay in the
/// processor's cache in between, or after a moment, so that a kill on a slow link loses little.
constexpr std::size_t WRITE_BLOCK_BYTES = 262144;
constexpr std::int64_t LONGEST_HELD_BACK_NS = 50'000'000;
constexpr int OPEN_FLAGS = O_RDWR | O_CREAT | O_NOFOLLOW | O_NONBLOCK;  // a pipe would wait for its other end
/// Of opening a file that is replaced or removed each time before it is locked.
constexpr int MOST_TRIES = 100;

/// Held from a look at a staging file's name until the name has changed, so that nobody of this process changes it in
/// between. Leaked, and made anew in a forked child.
std::mutex& names_mutex() {
  alignas(std::mutex) static unsigned char storage[sizeof(std::mutex)];
  static std::mutex* const instance = [] {
    auto* made = new (storage) std::mutex;
    at_fork_child([] { new (storage) std::mutex; });
    return made;
  }();
  return *instance;
}

/// False where another download has the file open. File systems without such locks leave it at the look at the name.
bool try_lock(const Descriptor& file) noexcept { return ::flock(file.get(), LOCK_EX | LOCK_NB) == 0 || errno != EWOULDBLOCK; }

}  // namespace

void StagingFile::open(bool may_begin) {
  if (!file_ || !has_its_name(file_)) {
    if (!may_begin) throw os_error(ENOENT, path_);
    take_file();
  }
  digest_prefix(std::numeric_limits<std::int64_t>::max());
}

void StagingFile::take_file() {
  for (int tries = 1;; ++tries) {
    Descriptor found;
    struct stat status {};
    try {
      found = open_file(path_, OPEN_FLAGS);
      if (::fstat(found.get(), &status) != 0) throw os_error(errno, path_);
    } catch (const Error& error) {
      if (error.fields().get("errno") != Value(ELOOP)) throw;
    }
    // A link holds nothing of this download, and while it stays no pass can succeed; what is written to a file with
    // further names changes these too.
    if (!found || !S_ISREG(status.st_mode) || status.st_nlink > 1) {
      if (::unlink(path_.c_str()) != 0 && errno != ENOENT) throw os_error(errno, path_);
    } else if (!try_lock(found)) {
      return take_copy(found);
    } else if (has_its_name(found)) {  // and has not just landed
      file_ = std::move(found);
      return;
    }
    if (tries == MOST_TRIES) throw os_error(EBUSY, path_);
  }
}

void StagingFile::take_copy(const Descriptor& other) {
  {
    const std::lock_guard lock(names_mutex());
    if (::unlink(path_.c_str()) != 0 && errno != ENOENT) throw os_error(errno, path_);
    file_ = open_file(path_, OPEN_FLAGS | O_EXCL);
    static_cast<void>(try_lock(file_));
  }
  std::vector<char> block(READ_BLOCK_BYTES);
  while (const std::size_t count = read_some(other, block.data(), block.size(), path_)) {
    write_all(file_, {block.data(), count}, path_);
    check_interrupt();
  }
}

bool StagingFile::has_its_name(const Descriptor& file) const {
  struct stat own {};
  struct stat named {};
  return ::fstat(file.get(), &own) == 0 && ::lstat(path_.c_str(), &named) == 0 && own.st_dev == named.st_dev && own.st_ino == named.st_ino;
}

void StagingFile::require_name() const {
  if (!has_its_name(file_)) throw os_error(ENOENT, path_);
}

void StagingFile::land(Files& files, const std::string& target) {
  const Descriptor locked = duplicate(file_, path_);  // so that nobody takes the file over before it has moved
  file_.close();
  const std::lock_guard lock(names_mutex());
  if (!has_its_name(locked)) throw os_error(ENOENT, path_);
  files.rename(path_, target);
}

void StagingFile::digest_prefix(std::int64_t size_bytes) {
  digest_.reset();
  size_bytes_ = 0;
  seek(0);
  std::vector<char> block;
  while (size_bytes_ < size_bytes) {
    if (block.empty()) block.resize(READ_BLOCK_BYTES);
    const auto wanted = static_cast<std::size_t>(std::min<std::int64_t>(size_bytes - size_bytes_, READ_BLOCK_BYTES));
    const std::size_t count = read_some(file_, block.data(), wanted, path_);
    if (count == 0) return;
    digest_.update(block.data(), count);
    size_bytes_ += static_cast<std::int64_t>(count);
    check_interrupt();
  }
}

void StagingFile::clear() {
  if (has_its_name(file_)) truncate(0);
  seek(0);
  digest_.reset();
  size_bytes_ = 0;
}

void StagingFile::expect(std::optional<std::uint64_t> partial_limit, std::optional<std::uint64_t> whole_limit) {
  partial_limit_ = partial_limit;
  whole_limit_ = whole_limit;
  start_bytes_ = size_bytes_;
  start_digest_.assign(digest_);
  received_bytes_ = 0;
  overwrites_ = false;
}

std::uint64_t StagingFile::begin(int status) {
  if (status == 200 && whole_limit_) {
    overwrites_ = start_bytes_ > 0;
    seek(0);
    digest_.reset();
    size_bytes_ = 0;
    return *whole_limit_;
  }
  if (status == 206 && partial_limit_) {
    seek(start_bytes_);
    return *partial_limit_;
  }
  return 0;
}

void StagingFile::accept(std::string_view bytes) {
  const std::int64_t now_ns = clock_.monotonic_ns();
  if (block_.empty()) {
    block_.reserve(WRITE_BLOCK_BYTES);
    held_back_since_ns_ = now_ns;
  }
  if (block_.size() + bytes.size() > WRITE_BLOCK_BYTES) flush();
  block_.append(bytes);
  if (now_ns - held_back_since_ns_ > LONGEST_HELD_BACK_NS) flush();
  size_bytes_ += static_cast<std::int64_t>(bytes.size());
  received_bytes_ += bytes.size();
}

void StagingFile::flush() {
  if (block_.empty()) return;
  require_name();
  write_all(file_, block_, path_);
  digest_.update(block_);
  block_.clear();
}

void StagingFile::keep_whole() {
  if (start_bytes_ > size_bytes_) truncate(size_bytes_);
}

void StagingFile::roll_back() {
  block_.clear();
  truncate(start_bytes_);  // also what a failing write left behind
  if (overwrites_) {
    digest_prefix(start_bytes_);  // the same bytes again if the file has not changed; the checksum decides
  } else {
    digest_.assign(start_digest_);
    size_bytes_ = start_bytes_;
    seek(size_bytes_);
  }
  received_bytes_ = 0;
  overwrites_ = false;
}

void StagingFile::seek(std::int64_t offset) {
  if (::lseek(file_.get(), offset, SEEK_SET) < 0) throw os_error(errno, path_);
}

void StagingFile::truncate(std::int64_t size_bytes) {
  require_name();
  while (::ftruncate(file_.get(), size_bytes) < 0) {
    if (errno != EINTR) throw os_error(errno, path_);
  }
}

}  // namespace brackenfen::sync

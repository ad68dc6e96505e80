#include "sync/engine/staging_file.hpp"

#include <fcntl.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <limits>
#include <vector>

#include "sync/base/error.hpp"
#include "sync/base/threads/interrupt.hpp"

namespace brackenfen::sync {
namespace {

constexpr std::size_t READ_BLOCK_BYTES = 1048576;
/// The network hands over a few KiB at a time; written and digested in blocks of this size, which stay in the
/// processor's cache in between, or after a moment, so that a kill on a slow link loses little.
constexpr std::size_t WRITE_BLOCK_BYTES = 262144;
constexpr std::int64_t LONGEST_HELD_BACK_NS = 50'000'000;
constexpr int OPEN_FLAGS = O_RDWR | O_CREAT | O_NOFOLLOW;

}  // namespace

void StagingFile::open() {
  try {
    file_ = open_file(path_, OPEN_FLAGS);
  } catch (const Error& error) {
    // A link in the file's place holds nothing of this download, and while it stays no pass can succeed.
    if (error.fields().get("errno") != Value(ELOOP) || ::unlink(path_.c_str()) != 0) throw;
    file_ = open_file(path_, OPEN_FLAGS);
  }
  digest_prefix(std::numeric_limits<std::int64_t>::max());
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
  truncate(0);
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
  while (::ftruncate(file_.get(), size_bytes) < 0) {
    if (errno != EINTR) throw os_error(errno, path_);
  }
}

}  // namespace brackenfen::sync

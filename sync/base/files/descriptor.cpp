#include "sync/base/files/descriptor.hpp"

#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>

#include "sync/base/error.hpp"
#include "sync/base/files/lease_wait.hpp"

namespace brackenfen::sync {

Descriptor& Descriptor::operator=(Descriptor&& other) noexcept {
  Descriptor taken(std::move(other));  // so that what was held here is closed at once
  std::swap(number_, taken.number_);
  return *this;
}

Descriptor::~Descriptor() {
  if (number_ < 0) return;
  const int saved_errno = errno;
  ::close(number_);
  errno = saved_errno;
}

void Descriptor::close() {
  if (const int error_number = try_close(); error_number != 0) throw os_error(error_number);
}

int Descriptor::try_close() noexcept {
  const int number = std::exchange(number_, -1);
  // After EINTR the descriptor is closed on Linux; trying again could close another thread's.
  return number >= 0 && ::close(number) != 0 && errno != EINTR ? errno : 0;
}

Descriptor open_file(const std::string& path, int flags, unsigned mode) {
  return open_patiently(path, [&] { return ::open(path.c_str(), flags | O_CLOEXEC, mode); });
}

Descriptor duplicate(const Descriptor& file, const std::string& path) {
  const int number = ::fcntl(file.get(), F_DUPFD_CLOEXEC, 0);
  if (number < 0) throw os_error(errno, path);
  return Descriptor(number);
}

std::size_t read_some(const Descriptor& file, char* buffer, std::size_t size, const std::string& path) {
  for (;;) {
    const ssize_t count = ::read(file.get(), buffer, size);
    if (count >= 0) return static_cast<std::size_t>(count);
    if (errno != EINTR) throw os_error(errno, path);
  }
}

void write_all(const Descriptor& file, std::string_view bytes, const std::string& path) {
  while (!bytes.empty()) {
    const ssize_t count = ::write(file.get(), bytes.data(), bytes.size());
    if (count >= 0) {
      bytes.remove_prefix(static_cast<std::size_t>(count));
    } else if (errno != EINTR) {
      throw os_error(errno, path);
    }
  }
}

Descriptor open_regular_file(const std::string& path) {
  Descriptor file = open_file(path, O_RDONLY | O_NONBLOCK);  // a pipe would wait for its other end
  struct stat status {};
  if (::fstat(file.get(), &status) != 0) throw os_error(errno, path);
  if (!S_ISREG(status.st_mode)) throw os_error(S_ISDIR(status.st_mode) ? EISDIR : EINVAL, path);
  return file;
}

std::string read_file(const std::string& path, std::size_t most_bytes) {
  constexpr std::size_t STEP_BYTES = 64 * 1024;
  const Descriptor file = open_regular_file(path);
  struct stat status {};
  if (::fstat(file.get(), &status) != 0) throw os_error(errno, path);
  const auto size_bytes = static_cast<std::size_t>(status.st_size);
  std::string content;
  std::size_t filled = 0;
  // One byte more than the size, so that the end of an ordinary file shows without growing.
  std::size_t room = std::min(size_bytes, most_bytes) + 1;
  while (size_bytes <= most_bytes && filled <= most_bytes) {
    content.resize(filled + room);
    const std::size_t count = read_some(file, content.data() + filled, room, path);
    filled += count;
    if (count == 0) {
      content.resize(filled);
      return content;
    }
    room = room > count ? room - count : STEP_BYTES;
  }
  throw os_error(EFBIG, path);
}

}  // namespace brackenfen::sync

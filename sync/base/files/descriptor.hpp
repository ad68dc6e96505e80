// An owned file descriptor, and reading and writing it whole.
#pragma once

#include <cstddef>
#include <string>
#include <string_view>
#include <utility>

namespace brackenfen::sync {

/// Closes its descriptor; every descriptor of the library is opened close-on-exec.
class Descriptor {
 public:
  Descriptor() noexcept = default;
  explicit Descriptor(int number) noexcept : number_(number) {}
  Descriptor(Descriptor&& other) noexcept : number_(std::exchange(other.number_, -1)) {}
  Descriptor& operator=(Descriptor&& other) noexcept;
  ~Descriptor();

  [[nodiscard]] int get() const noexcept { return number_; }
  [[nodiscard]] explicit operator bool() const noexcept { return number_ >= 0; }
  /// Gives the descriptor away.
  [[nodiscard]] int release() noexcept { return std::exchange(number_, -1); }
  /// Closes now. Throws the system's error (errno kept) where close fails; the descriptor is gone all the same.
  void close();
  /// The same; 0, or the errno of the failure.
  [[nodiscard]] int try_close() noexcept;

 private:
  int number_ = -1;
};

/// open(2) with O_CLOEXEC added and EINTR looped. Throws os_error, or ValueError for a path with a NUL in it.
[[nodiscard]] Descriptor open_file(const std::string& path, int flags, unsigned mode = 0666);
/// Another descriptor of the same open file, close-on-exec. Throws os_error naming `path`.
[[nodiscard]] Descriptor duplicate(const Descriptor& file, const std::string& path);
/// Up to `size` bytes; 0 at the end. EINTR is looped. Throws os_error naming `path`.
[[nodiscard]] std::size_t read_some(const Descriptor& file, char* buffer, std::size_t size, const std::string& path);
/// All bytes, however many write(2) calls it takes. Throws os_error naming `path`.
void write_all(const Descriptor& file, std::string_view bytes, const std::string& path);
inline constexpr std::size_t LARGEST_READ_FILE_BYTES = 256 * 1024 * 1024;
/// Opens a regular file for reading. Throws os_error, also where something else stands there, which is never waited for.
[[nodiscard]] Descriptor open_regular_file(const std::string& path);
/// The whole of a regular file. Throws os_error, EFBIG for one with more than `most_bytes`.
[[nodiscard]] std::string read_file(const std::string& path, std::size_t most_bytes = LARGEST_READ_FILE_BYTES);

}  // namespace brackenfen::sync

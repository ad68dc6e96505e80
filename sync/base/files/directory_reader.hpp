// Reading the names in one directory.
#pragma once

#include <dirent.h>

#include <memory>
#include <string>

#include "sync/base/files/descriptor.hpp"

namespace brackenfen::sync {

/// An open directory and the way to it. One thread.
class DirectoryReader {
 public:
  /// Throws os_error, also where `path` is a link.
  explicit DirectoryReader(const std::string& path);
  /// Of an open folder, which must not be read by another at the same time; errors name `path`.
  DirectoryReader(const Descriptor& folder, const std::string& path);

  /// The next name but "." and ".."; nullptr at the end. Valid until the next call. Throws os_error.
  [[nodiscard]] const dirent* next();
  /// Whether the entry is a directory itself, and no link to one.
  [[nodiscard]] bool is_directory(const dirent& entry) const noexcept;
  /// Whether the entry is a link that leads to a directory.
  [[nodiscard]] bool links_to_directory(const dirent& entry) const noexcept;

 private:
  struct Close {
    void operator()(DIR* stream) const noexcept { ::closedir(stream); }
  };
  void read_from(Descriptor folder);

  std::string path_;
  std::unique_ptr<DIR, Close> stream_;
};

}  // namespace brackenfen::sync

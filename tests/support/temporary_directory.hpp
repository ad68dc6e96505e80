// A directory of its own for one test, gone with everything below it afterwards.
#pragma once

#include <string>
#include <string_view>
#include <vector>

namespace brackenfen::sync {

class TemporaryDirectory {
 public:
  TemporaryDirectory();
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;
  ~TemporaryDirectory();

  /// Absolute, without links.
  [[nodiscard]] const std::string& path() const noexcept { return path_; }
  /// The path of a name below.
  [[nodiscard]] std::string operator/(std::string_view name) const;
  /// Writes a file, with its parents, and returns its path.
  std::string write(std::string_view name, std::string_view content) const;
  /// The content of a file below.
  [[nodiscard]] std::string read(std::string_view name) const;
  [[nodiscard]] bool contains(std::string_view name) const;
  /// Everything below but directories, sorted, relative.
  [[nodiscard]] std::vector<std::string> files() const;

 private:
  std::string path_;
};

}  // namespace brackenfen::sync

// A directory of its own for one test, gone with everything below it afterwards.
#pragma once

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>
#include <string>
#include <string_view>
#include <vector>

namespace brackenfen::sync {

class TemporaryDirectory {
 public:
  TemporaryDirectory() {
    std::string name = std::filesystem::temp_directory_path() / "brackenfen-test-XXXXXX";  // mkdtemp fills the X in
    if (::mkdtemp(name.data()) == nullptr) throw std::runtime_error("no temporary directory");
    path_ = std::filesystem::canonical(name);
  }
  TemporaryDirectory(const TemporaryDirectory&) = delete;
  TemporaryDirectory& operator=(const TemporaryDirectory&) = delete;
  ~TemporaryDirectory() {
    std::error_code ignored;
    std::filesystem::remove_all(path_, ignored);
  }

  /// Absolute, without links.
  [[nodiscard]] const std::string& path() const noexcept { return path_; }
  /// The path of a name below.
  [[nodiscard]] std::string operator/(std::string_view name) const { return path_ + "/" + std::string(name); }
  /// Writes a file, with its parents, and returns its path.
  std::string write(std::string_view name, std::string_view content) const {
    std::string file = *this / name;
    std::filesystem::create_directories(std::filesystem::path(file).parent_path());
    std::ofstream(file, std::ios::binary) << content;
    return file;
  }
  [[nodiscard]] std::string read(std::string_view name) const {
    std::ifstream file(*this / name, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
  }
  [[nodiscard]] bool contains(std::string_view name) const {
    return std::filesystem::exists(std::filesystem::symlink_status(*this / name));
  }
  /// Everything below but directories, sorted, relative.
  [[nodiscard]] std::vector<std::string> files() const {
    std::vector<std::string> names;
    for (const auto& entry : std::filesystem::recursive_directory_iterator(path_)) {
      if (!std::filesystem::is_directory(entry.symlink_status())) names.push_back(entry.path().lexically_relative(path_));
    }
    std::sort(names.begin(), names.end());
    return names;
  }

 private:
  std::string path_;
};

}  // namespace brackenfen::sync

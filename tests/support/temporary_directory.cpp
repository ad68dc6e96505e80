#include "tests/support/temporary_directory.hpp"

#include <algorithm>
#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <iterator>
#include <stdexcept>

namespace brackenfen::sync {

namespace fs = std::filesystem;

TemporaryDirectory::TemporaryDirectory() {
  std::string name = fs::temp_directory_path() / "brackenfen-test-XXXXXX";
  if (::mkdtemp(name.data()) == nullptr) throw std::runtime_error("no temporary directory");
  path_ = fs::canonical(name);
}

TemporaryDirectory::~TemporaryDirectory() {
  std::error_code ignored;
  fs::remove_all(path_, ignored);
}

std::string TemporaryDirectory::operator/(std::string_view name) const { return path_ + "/" + std::string(name); }

std::string TemporaryDirectory::write(std::string_view name, std::string_view content) const {
  std::string file = *this / name;
  fs::create_directories(fs::path(file).parent_path());
  std::ofstream(file, std::ios::binary) << content;
  return file;
}

std::string TemporaryDirectory::read(std::string_view name) const {
  std::ifstream file(*this / name, std::ios::binary);
  return {std::istreambuf_iterator<char>(file), {}};
}

bool TemporaryDirectory::contains(std::string_view name) const { return fs::exists(fs::symlink_status(*this / name)); }

std::vector<std::string> TemporaryDirectory::files() const {
  std::vector<std::string> names;
  for (const fs::directory_entry& entry : fs::recursive_directory_iterator(path_)) {
    if (!fs::is_directory(entry.symlink_status())) names.push_back(entry.path().lexically_relative(path_));
  }
  std::sort(names.begin(), names.end());
  return names;
}

}  // namespace brackenfen::sync

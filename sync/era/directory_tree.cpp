#include "sync/era/directory_tree.hpp"

#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <system_error>

#include "sync/base/error.hpp"
#include "sync/base/files/directory_reader.hpp"
#include "sync/base/files/paths.hpp"
#include "sync/base/files/root_directory.hpp"
#include "sync/base/threads/interrupt.hpp"

namespace brackenfen::sync {
namespace {

namespace fs = std::filesystem;

void throw_on(const std::error_code& failure, const std::string& path) {
  if (failure) throw os_error(failure.value(), path);
}

/// Calls `visit(entry)` for everything below `directory`, parents first.
template <typename Visit>
void walk(const std::string& directory, Visit visit) {
  std::error_code failure;
  fs::recursive_directory_iterator entries(directory, failure);
  throw_on(failure, directory);
  while (entries != fs::recursive_directory_iterator()) {
    check_interrupt();
    visit(*entries);
    entries.increment(failure);
    throw_on(failure, directory);
  }
}

}  // namespace

bool is_directory_at(const Descriptor& directory, const std::string& path) noexcept {
  struct stat open {};
  struct stat found {};
  if (::fstat(directory.get(), &open) != 0 || ::lstat(path.c_str(), &found) != 0) return false;
  return S_ISDIR(found.st_mode) && open.st_dev == found.st_dev && open.st_ino == found.st_ino;
}

std::vector<std::string> child_directories(const std::string& directory) {
  std::vector<std::string> names;
  DirectoryReader reader(real_path(directory));
  while (const dirent* const entry = reader.next()) {
    if (reader.is_directory(*entry)) names.emplace_back(entry->d_name);
  }
  return names;
}

std::int64_t tree_size_bytes(const std::string& directory) {
  std::int64_t bytes = 0;
  walk(directory, [&](const fs::directory_entry& entry) {
    std::error_code failure;
    const bool is_file = entry.symlink_status(failure).type() == fs::file_type::regular;
    throw_on(failure, entry.path());
    if (!is_file) return;
    bytes += static_cast<std::int64_t>(entry.file_size(failure));
    throw_on(failure, entry.path());
  });
  return bytes;
}

void remove_tree(const std::string& path) {
  std::error_code failure;
  fs::remove_all(path, failure);
  throw_on(failure, path);
}

void delete_tmp_files(const std::string& directory) {
  RootDirectory(real_path(directory))
      .walk(
          [](const Place& place, const DirectoryReader&, const dirent&) {
            const bool doomed = place.path().ends_with(".tmp");
            if (doomed && ::unlinkat(place.folder(), place.name(), 0) != 0) throw os_error(errno, place.path());
          },
          [](const Error& error) { throw error; });
}

}  // namespace brackenfen::sync

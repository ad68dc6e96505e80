#include "tools/distribution/staging.hpp"

#include <fcntl.h>
#include <fmt/core.h>
#include <sys/stat.h>
#include <sys/sysmacros.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <filesystem>
#include <system_error>

#include "sync/base/error.hpp"
#include "sync/base/files/descriptor.hpp"
#include "sync/base/files/paths.hpp"
#include "sync/transport/files.hpp"

namespace brackenfen::sync::distribution {
Staging::Staging(TreePaths paths) : paths_(std::move(paths)), folders_{paths_.files()} {
  std::error_code failure;
  std::filesystem::remove_all(paths_.staging(), failure);
  if (failure) throw os_error(failure.value(), paths_.staging());
  make_directories(paths_.staging());
  mount_ = mount_of(paths_.staging());
}

Staging::~Staging() {
  std::error_code ignored;
  std::filesystem::remove_all(paths_.staging(), ignored);
  if (!committed_) remove_empty_folders();
}

void Staging::add_move(std::string staged, std::string target) {
  const std::string folder = directory_of(target);
  if (folder != folders_.back()) {
    folders_.push_back(folder);  // first, for it may be made in part
    make_directories(folder);
    if (mount_of(folder) != mount_) throw RuntimeError(fmt::format("{} is on another file system than {}", folder, paths_.staging()));
  }
  if (is_directory(target)) throw RuntimeError(fmt::format("{} is a folder in the tree, but a file in what is published", target));
  moves_.emplace_back(std::move(staged), std::move(target));
}

void Staging::add_document(std::string_view name, std::string_view bytes, std::string target, const std::string& served_as) {
  Descriptor file = open_file(path(name), O_WRONLY | O_CREAT | O_EXCL);
  write_all(file, bytes, path(name));
  file.close();
  date_after(path(name), Files::real().stat(served_as.empty() ? target : served_as));
  add_move(path(name), std::move(target));
}

void Staging::commit() {
  committed_ = true;
  for (const auto& [staged, target] : moves_) {
    if (::rename(staged.c_str(), target.c_str()) != 0) throw os_error(errno, staged, target);
  }
}

Staging::Mount Staging::mount_of(const std::string& folder) {
  struct statx status {};
  if (::statx(AT_FDCWD, folder.c_str(), 0, STATX_INO | STATX_MNT_ID, &status) != 0) throw os_error(errno, folder);
  return {makedev(status.stx_dev_major, status.stx_dev_minor), status.stx_mnt_id};
}

void Staging::remove_empty_folders() {
  for (; !folders_.empty(); folders_.pop_back()) {
    std::string& folder = folders_.back();
    while (folder != paths_.root && ::rmdir(folder.c_str()) == 0) folder = directory_of(folder);
  }
}

}  // namespace brackenfen::sync::distribution

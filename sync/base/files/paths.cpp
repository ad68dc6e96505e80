#include "sync/base/files/paths.hpp"

#include <fcntl.h>
#include <pwd.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <climits>
#include <cstdlib>
#include <memory>
#include <unordered_set>
#include <vector>

#include "sync/base/environment.hpp"
#include "sync/base/error.hpp"
#include "sync/base/text/text.hpp"

namespace brackenfen::sync {
namespace {

constexpr int LINKS_MAX = 40;  // the kernel's own limit

std::string working_directory() {
  char buffer[PATH_MAX];
  if (::getcwd(buffer, sizeof buffer) == nullptr) throw os_error(errno);
  return buffer;
}

/// Folds "." and "..", doubled and trailing slashes of an absolute path. Two leading slashes stay, as POSIX has it.
std::string fold(std::string_view path) {
  const bool two_slashes = path.starts_with("//") && !path.starts_with("///");
  std::vector<std::string_view> parts;
  for (const std::string_view part : split(path, "/")) {
    if (part.empty() || part == ".") continue;
    if (part != "..") {
      parts.push_back(part);
    } else if (!parts.empty()) {
      parts.pop_back();
    }
  }
  std::string folded(two_slashes ? "/" : "");
  for (const std::string_view part : parts) folded.append("/").append(part);
  if (parts.empty()) folded += '/';
  return folded;
}

/// The target of a link, or nothing where `path` is none or cannot be read.
std::string read_link(const std::string& path) {
  char buffer[PATH_MAX];
  const ssize_t size = ::readlink(path.c_str(), buffer, sizeof buffer);
  return size > 0 ? std::string(buffer, static_cast<std::size_t>(size)) : std::string();
}

/// Follows a path part by part, for paths that do not exist to their end.
class Resolver {
 public:
  [[nodiscard]] std::string resolve(std::string_view absolute) {
    walk(absolute);
    return resolved_.empty() ? "/" : resolved_;
  }

 private:
  void walk(std::string_view path) {
    for (const std::string_view part : split(path, "/")) {
      if (part.empty() || part == ".") continue;
      if (part == "..") {
        resolved_.erase(std::min(resolved_.rfind('/'), resolved_.size()));
        continue;
      }
      step(part);
    }
  }

  void step(std::string_view part) {
    const std::size_t parent_size = resolved_.size();
    resolved_.append("/").append(part);
    // A path that no system call takes leads through no link; asking at each part would take long where there are many.
    const std::string target = looping_ || resolved_.size() >= PATH_MAX ? std::string() : read_link(resolved_);
    if (target.empty()) return;
    if (open_links_.contains(resolved_) || open_links_.size() >= LINKS_MAX) {
      looping_ = true;
      return;
    }
    const std::string link = resolved_;
    open_links_.insert(link);
    resolved_.resize(target.starts_with('/') ? 0 : parent_size);
    walk(target);
    open_links_.erase(link);
  }

  std::string resolved_;
  std::unordered_set<std::string> open_links_;
  bool looping_ = false;
};

std::string home_of(const std::string& user) {
  if (user.empty()) {
    if (const auto home = Environment::real().get("HOME")) return *home;
  }
  std::vector<char> buffer(16384);
  passwd entry{};
  passwd* found = nullptr;
  const int error = user.empty() ? ::getpwuid_r(::getuid(), &entry, buffer.data(), buffer.size(), &found)
                                 : ::getpwnam_r(user.c_str(), &entry, buffer.data(), buffer.size(), &found);
  return error == 0 && found != nullptr && found->pw_dir != nullptr ? std::string(found->pw_dir) : std::string();
}

}  // namespace

std::string join_path(std::string_view directory, std::string_view name) {
  if (name.starts_with('/')) return std::string(name);
  std::string path(directory);
  if (!path.empty() && path.back() != '/') path += '/';
  path += name;
  return path;
}

std::string directory_of(std::string_view path) {
  const std::string_view head = path.substr(0, path.rfind('/') + 1);  // npos + 1 is 0
  const std::string_view stripped = rstrip_char(head, '/');
  return std::string(stripped.empty() ? head : stripped);
}

std::string real_path(std::string_view path) {
  if (path.find('\0') != std::string_view::npos) throw ValueError("embedded null byte");
  const std::string given = path.empty() ? "." : std::string(path);
  const std::unique_ptr<char, decltype(&std::free)> resolved(::realpath(given.c_str(), nullptr), &std::free);
  if (resolved) return resolved.get();
  return Resolver().resolve(given.starts_with('/') ? given : working_directory() + '/' + given);
}

std::string absolute_path(std::string_view path) {
  return fold(path.starts_with('/') ? std::string(path) : join_path(working_directory(), path));
}

std::optional<RelativePathFault> fault_of_relative_path(std::string_view path) {
  const auto is_separator = [](char c) { return c == '/' || c == '\\'; };
  const std::string_view relative = strip(path);
  if (relative.empty()) return RelativePathFault::Blank;
  if (path.find('\0') != std::string_view::npos) return RelativePathFault::NulByte;
  if (is_separator(relative.front())) return RelativePathFault::Absolute;
  bool named = false;
  for (std::size_t begin = 0; begin <= relative.size();) {
    std::size_t end = begin;
    while (end < relative.size() && !is_separator(relative[end])) ++end;
    const std::string_view segment = relative.substr(begin, end - begin);
    if (segment == "..") return RelativePathFault::Unsafe;
    named = named || (!segment.empty() && segment != ".");
    begin = end + 1;
  }
  return named ? std::nullopt : std::optional(RelativePathFault::Unsafe);
}

std::string expand_user(std::string_view path) {
  if (!path.starts_with('~')) return std::string(path);
  const std::size_t end = std::min(path.find('/'), path.size());
  const std::string home = home_of(std::string(path.substr(1, end - 1)));
  if (home.empty()) return std::string(path);
  std::string expanded(rstrip_char(home, '/'));
  expanded += path.substr(end);
  return expanded.empty() ? "/" : expanded;
}

bool path_exists(const std::string& path) noexcept {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0;
}

bool is_directory(const std::string& path) noexcept {
  struct stat status {};
  return ::stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode);
}

void make_directories(const std::string& path) {
  if (::mkdir(path.c_str(), 0777) == 0) return;
  int error = errno;
  if (error == ENOENT) {
    const std::string parent = directory_of(rstrip_char(path, '/'));
    if (!parent.empty() && parent != path) {
      make_directories(parent);
      if (::mkdir(path.c_str(), 0777) == 0) return;
      error = errno;
    }
  }
  if (is_directory(path)) return;
  throw os_error(error, path);
}

}  // namespace brackenfen::sync

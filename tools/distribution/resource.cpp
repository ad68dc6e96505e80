#include "tools/distribution/resource.hpp"

#include <fcntl.h>
#include <fmt/core.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>

#include <array>
#include <cerrno>
#include <climits>
#include <utility>

#include "sync/base/error.hpp"
#include "sync/base/files/paths.hpp"
#include "tools/distribution/kinds.hpp"

namespace brackenfen::sync::distribution {
namespace {

constexpr std::string_view FILES_PREFIX = "/data/files/";

/// Request paths of documents, and where the documents lie.
constexpr std::array<std::pair<std::string_view, const char*>, 3> DOCUMENTS = {{
    {"/data/manifest", "data/manifest.json"},
    {"/data/manifest/version", "data/manifest-version.json"},
    {"/era/current", "era/current.json"},
}};

}  // namespace

TreeReader::TreeReader(const std::string& tree) : paths_{real_path(tree)} {
  if (!path_exists(paths_.manifest())) throw RuntimeError(fmt::format("{} is no distribution tree: it has no data/manifest.json", tree));
  root_ = open_file(paths_.root, O_PATH | O_DIRECTORY);
}

std::optional<Resource> TreeReader::find(std::string_view request_path) const {
  if (request_path.starts_with(FILES_PREFIX)) {
    // Only what could be published, and nothing that climbs from the artifacts to the documents.
    if (path_objection(request_path.substr(FILES_PREFIX.size()))) return std::nullopt;
    return open(std::string(request_path.substr(1)));
  }
  if (request_path == "/data/shuffle") return open_seed();
  for (const auto& [path, file] : DOCUMENTS) {
    if (request_path != path) continue;
    std::optional<Resource> resource = open(file);
    if (resource) resource->content_type = "application/json";
    return resource;
  }
  return std::nullopt;
}

std::optional<Resource> TreeReader::open(const std::string& path_in_tree) const {
  open_how how{};
  how.flags = O_RDONLY | O_CLOEXEC | O_NONBLOCK;
  how.resolve = RESOLVE_BENEATH | RESOLVE_NO_SYMLINKS;
  long number = -1;
  do {
    number = ::syscall(SYS_openat2, root_.get(), path_in_tree.c_str(), &how, sizeof how);
  } while (number < 0 && (errno == EINTR || errno == EAGAIN));
  if (number < 0) return std::nullopt;
  Resource resource;
  resource.file = Descriptor(static_cast<int>(number));
  struct stat status {};
  if (::fstat(resource.file.get(), &status) != 0 || !S_ISREG(status.st_mode)) return std::nullopt;
  resource.size_bytes = status.st_size;
  return resource;
}

/// The link is read once, so that the seed and the era in its target's name belong together.
std::optional<Resource> TreeReader::open_seed() const {
  std::array<char, PATH_MAX> target{};
  const ssize_t length = ::readlink(paths_.seed_link().c_str(), target.data(), target.size());
  if (length < 0) return std::nullopt;
  const std::string_view name(target.data(), static_cast<std::size_t>(length));
  std::optional<Resource> resource = open("data/" + std::string(name));
  if (resource) resource->era = era_of_seed_target(name);
  return resource;
}

}  // namespace brackenfen::sync::distribution

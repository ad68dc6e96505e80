#include "tools/distribution/tree.hpp"

#include <dirent.h>
#include <fmt/core.h>
#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <charconv>
#include <memory>

#include "sync/base/error.hpp"
#include "sync/base/files/descriptor.hpp"
#include "sync/base/files/paths.hpp"
#include "sync/base/values/convert.hpp"
#include "sync/base/values/json.hpp"
#include "tools/distribution/kinds.hpp"
#include "tools/distribution/stop.hpp"

namespace brackenfen::sync::distribution {
namespace {

struct CloseDirectory {
  void operator()(DIR* directory) const noexcept { ::closedir(directory); }
};

class SourceWalk {
 public:
  explicit SourceWalk(const std::string& source) : root_(real_path(source)) {
    if (!is_directory(root_)) throw RuntimeError(fmt::format("{} is not a folder of artifacts", source));
  }

  SourceScan run() {
    walk("");
    std::sort(scan_.files.begin(), scan_.files.end(),
              [](const SourceFile& left, const SourceFile& right) { return left.relative_path < right.relative_path; });
    return std::move(scan_);
  }

 private:
  [[nodiscard]] std::string local(const std::string& relative_path) const {
    return relative_path.empty() ? root_ : root_ + "/" + relative_path;
  }

  void walk(const std::string& folder) {
    const std::unique_ptr<DIR, CloseDirectory> directory(::opendir(local(folder).c_str()));
    if (!directory) throw os_error(errno, local(folder));
    for (;;) {
      errno = 0;
      const dirent* entry = ::readdir(directory.get());
      if (entry == nullptr) {
        if (errno != 0) throw os_error(errno, local(folder));
        return;
      }
      const std::string_view name = entry->d_name;
      if (name == "." || name == "..") continue;
      visit(folder.empty() ? std::string(name) : folder + "/" + std::string(name));
    }
  }

  void visit(const std::string& relative_path) {
    stop_point();
    struct stat status {};
    if (::lstat(local(relative_path).c_str(), &status) != 0) throw os_error(errno, local(relative_path));
    if (is_private_to_clients(relative_path)) {
      scan_.left_out.add(relative_path);
      return;
    }
    if (const std::optional<std::string> objection = path_objection(relative_path)) {
      throw RuntimeError(fmt::format("{} cannot be published: {}", to_quoted(relative_path), *objection));
    }
    if (S_ISDIR(status.st_mode)) {
      if (relative_path == SHUFFLE_SEED_NAME) throw RuntimeError(fmt::format("{} is a folder, not a seed", local(relative_path)));
      walk(relative_path);
      return;
    }
    const std::string target = S_ISLNK(status.st_mode) ? resolve_link(relative_path, status) : local(relative_path);
    if (!S_ISREG(status.st_mode)) throw RuntimeError(fmt::format("{} is neither a file nor a folder", local(relative_path)));
    if (relative_path == SHUFFLE_SEED_NAME) {
      scan_.seed_path = target;
    } else {
      scan_.files.push_back({relative_path, target, status.st_size});
    }
  }

  /// Puts the status of what the link leads to in the place of the link's own.
  [[nodiscard]] std::string resolve_link(const std::string& relative_path, struct stat& status) const {
    std::string target = real_path(local(relative_path));
    if (!target.starts_with(root_ == "/" ? root_ : root_ + "/")) {
      throw RuntimeError(fmt::format("{} is a link that leads out of {}, to {}", local(relative_path), root_, target));
    }
    if (::lstat(target.c_str(), &status) != 0) throw RuntimeError(fmt::format("{} is a link that leads nowhere", local(relative_path)));
    if (!S_ISREG(status.st_mode)) throw RuntimeError(fmt::format("{} is a link to something that is no file", local(relative_path)));
    return target;
  }

  std::string root_;
  SourceScan scan_;
};

}  // namespace

SourceScan scan_source(const std::string& source) { return SourceWalk(source).run(); }

void date_after(const std::string& path, const std::optional<FileStat>& replaced) {
  constexpr std::int64_t NS_PER_SECOND = 1'000'000'000;
  Files& files = Files::real();
  const std::optional<FileStat> present = files.stat(path);
  if (!replaced || !present || present->mtime_ns / NS_PER_SECOND > replaced->mtime_ns / NS_PER_SECOND) return;
  files.set_mtime(path, (replaced->mtime_ns / NS_PER_SECOND + 1) * NS_PER_SECOND);
}

std::optional<PublishedManifest> read_published_manifest(const TreePaths& paths) {
  if (!path_exists(paths.manifest())) return std::nullopt;
  try {
    const Value manifest = parse_json(read_file(paths.manifest()));
    if (!manifest.is_document()) throw RuntimeError("it is no JSON object");
    const Document& document = *manifest.if_document();
    PublishedManifest published{to_int64(document.get("era_number")), to_int64(document.get("version")), {}, 0, {}, document};
    if (const auto base_url = document.get("base_url").if_text()) published.base_url = *base_url;
    if (const auto columns = document.get("pnl_column_count").if_integer()) published.pnl_column_count = *columns;
    if (const Document* files = document.get("files").if_document()) published.files = *files;
    return published;
  } catch (const Error& error) {
    throw RuntimeError(fmt::format("{} is not a manifest of this tool: {}", paths.manifest(), error.text()));
  }
}

PublishedManifest require_published_manifest(const TreePaths& paths) {
  std::optional<PublishedManifest> published = read_published_manifest(paths);
  if (!published) throw RuntimeError(fmt::format("{} is no distribution tree: it has no data/manifest.json", paths.root));
  return *std::move(published);
}

std::optional<std::int64_t> era_of_seed_target(std::string_view target) {
  constexpr std::string_view prefix = "era-";
  constexpr std::string_view suffix = ".enc";
  const std::size_t slash = target.rfind('/');
  if (slash != std::string_view::npos) target.remove_prefix(slash + 1);
  if (!target.starts_with(prefix) || !target.ends_with(suffix)) return std::nullopt;
  target.remove_prefix(prefix.size());
  target.remove_suffix(suffix.size());
  std::int64_t era = 0;
  const auto [end, failure] = std::from_chars(target.data(), target.data() + target.size(), era);
  if (failure != std::errc{} || end != target.data() + target.size()) return std::nullopt;
  return era;
}

}  // namespace brackenfen::sync::distribution

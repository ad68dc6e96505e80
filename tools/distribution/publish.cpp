#include "tools/distribution/publish.hpp"

#include <fcntl.h>
#include <fmt/core.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <cerrno>
#include <filesystem>
#include <optional>
#include <set>
#include <string_view>
#include <system_error>
#include <vector>

#include "sync/base/error.hpp"
#include "sync/base/files/descriptor.hpp"
#include "sync/base/files/paths.hpp"
#include "sync/base/files/sha256.hpp"
#include "sync/base/threads/clock.hpp"
#include "sync/base/values/json.hpp"
#include "sync/documents/signals_index.hpp"
#include "sync/transport/files.hpp"
#include "tools/distribution/check.hpp"
#include "tools/distribution/kinds.hpp"
#include "tools/distribution/tree.hpp"
#include "tools/distribution/workers.hpp"

namespace brackenfen::sync::distribution {
namespace {

constexpr std::size_t READ_BYTES = 512 * 1024;

struct Artifact {
  SourceFile source;
  std::string sha256;
  std::int64_t size_bytes = 0;
  std::string staged;  ///< where its bytes wait to be renamed into place; empty where the tree has them
};

struct stat status_of(const Descriptor& file, const std::string& path) {
  struct stat status {};
  if (::fstat(file.get(), &status) != 0) throw os_error(errno, path);
  return status;
}

bool same_content(const struct stat& before, const struct stat& after) {
  return before.st_size == after.st_size && before.st_mtim.tv_sec == after.st_mtim.tv_sec &&
         before.st_mtim.tv_nsec == after.st_mtim.tv_nsec;
}

std::string hash_all(const Descriptor& file, const std::string& path) {
  Sha256 digest;
  std::string buffer(READ_BYTES, '\0');
  while (const std::size_t size = read_some(file, buffer.data(), buffer.size(), path)) digest.update(buffer.data(), size);
  return digest.hex_digest();
}

/// Copies inside the kernel, which shares the blocks where the file system can.
void copy_all(const Descriptor& from, std::int64_t size_bytes, const Descriptor& to, const std::string& path) {
  off_t offset = 0;
  while (offset < size_bytes) {
    const ssize_t copied = ::copy_file_range(from.get(), &offset, to.get(), nullptr, static_cast<std::size_t>(size_bytes - offset), 0);
    if (copied > 0 || (copied < 0 && errno == EINTR)) continue;
    if (copied == 0) return;  // the source has shrunk; the caller notices
    if (offset > 0 || (errno != EXDEV && errno != ENOSYS && errno != EINVAL && errno != EOPNOTSUPP)) throw os_error(errno, path);
    break;
  }
  if (offset >= size_bytes) return;
  if (::lseek(from.get(), 0, SEEK_SET) < 0) throw os_error(errno, path);
  std::string buffer(READ_BYTES, '\0');
  while (const std::size_t size = read_some(from, buffer.data(), buffer.size(), path))
    write_all(to, std::string_view(buffer.data(), size), path);
}

void rename_over(const std::string& from, const std::string& to) {
  if (::rename(from.c_str(), to.c_str()) != 0) throw os_error(errno, from, to);
}

/// A seed for data sets that bring none: the same for an era on every machine. It hides nothing.
std::string generated_seed(std::int64_t era) { return _sha256(fmt::format("shuffle seed of era {}", era)).substr(0, SHUFFLE_SEED_BYTES); }

class Publication {
 public:
  explicit Publication(const PublishOptions& options) : options_(options), paths_{absolute_path(options.out)} {}

  PublishReport run() {
    scan_ = scan_source(options_.source);
    if (scan_.files.empty()) throw RuntimeError(fmt::format("{} holds nothing to publish", options_.source));
    if (options_.check_documents) check_documents(scan_.files, options_.era);
    seed_ = read_seed();
    open_tree();
    stage_all();
    place_all();
    place_seed();
    write_documents();
    drop_departed();
    std::error_code ignored;
    std::filesystem::remove_all(paths_.staging(), ignored);
    report_.files = artifacts_.size();
    report_.left_out = scan_.left_out.size();
    return report_;
  }

 private:
  [[nodiscard]] std::string read_seed() const {
    if (!scan_.seed_path) return options_.shuffle_seed.empty() ? generated_seed(options_.era) : options_.shuffle_seed;
    std::string seed = read_file(*scan_.seed_path);
    if (seed.size() != SHUFFLE_SEED_BYTES) {
      throw RuntimeError(fmt::format("{} has {} bytes, a shuffle seed has {}", *scan_.seed_path, seed.size(), SHUFFLE_SEED_BYTES));
    }
    return seed;
  }

  void open_tree() {
    const std::string source = real_path(options_.source);
    if ((real_path(paths_.root) + "/").starts_with(source + "/")) {
      throw RuntimeError(fmt::format("{} lies inside the folder to publish, {}", options_.out, options_.source));
    }
    make_directories(paths_.files());
    lock_ = open_file(paths_.root, O_RDONLY | O_DIRECTORY);
    if (::flock(lock_.get(), LOCK_EX | LOCK_NB) != 0) {
      if (errno == EWOULDBLOCK) throw RuntimeError(fmt::format("another publication is running on {}", options_.out));
      throw os_error(errno, paths_.root);
    }
    previous_ = read_published_manifest(paths_);
    if (previous_) require_progress(*previous_);
    std::error_code failure;
    std::filesystem::remove_all(paths_.staging(), failure);  // left behind by a publication that died
    if (failure) throw os_error(failure.value(), paths_.staging());
    make_directories(paths_.staging());
  }

  /// Clients tell manifests apart by era and version: without progress they would never look.
  void require_progress(const PublishedManifest& previous) const {
    if (options_.era < previous.era) {
      throw RuntimeError(fmt::format("{} is in era {} already; era {} is over", options_.out, previous.era, options_.era));
    }
    if (options_.era == previous.era && options_.version <= previous.version) {
      throw RuntimeError(fmt::format("{} holds version {} of era {} already; publish a version above it, not {}", options_.out,
                                     previous.version, previous.era, options_.version));
    }
  }

  void stage_all() {
    artifacts_.resize(scan_.files.size());
    for_each_index(artifacts_.size(), [this](std::size_t index) {
      artifacts_[index].source = scan_.files[index];
      stage(artifacts_[index], paths_.staging() + "/" + std::to_string(index));
    });
    for (const Artifact& artifact : artifacts_) {
      report_.bytes += artifact.size_bytes;
      ++(artifact.staged.empty() ? report_.kept : report_.placed);
    }
  }

  void stage(Artifact& artifact, const std::string& staged) const {
    const std::string& path = artifact.source.local_path;
    const Descriptor file = open_file(path, O_RDONLY | O_NOFOLLOW);
    const struct stat before = status_of(file, path);
    artifact.size_bytes = before.st_size;
    artifact.sha256 = hash_all(file, path);
    if (!is_in_place(artifact, before)) {
      if (!options_.link || ::link(path.c_str(), staged.c_str()) != 0) {
        const Descriptor copy = open_file(staged, O_WRONLY | O_CREAT | O_EXCL);
        copy_all(file, artifact.size_bytes, copy, staged);
      }
      artifact.staged = staged;
    }
    if (!same_content(before, status_of(file, path))) throw RuntimeError(fmt::format("{} changed while it was being published", path));
  }

  /// The digest in the tree's own manifest is taken at its word.
  [[nodiscard]] bool is_in_place(const Artifact& artifact, const struct stat& source) const {
    struct stat present {};
    if (::lstat(paths_.file(artifact.source.relative_path).c_str(), &present) != 0 || !S_ISREG(present.st_mode)) return false;
    if (present.st_dev == source.st_dev && present.st_ino == source.st_ino) return true;
    if (!previous_ || present.st_size != artifact.size_bytes) return false;
    const Document* entry = previous_->files.get(artifact.source.relative_path).if_document();
    return entry != nullptr && entry->get("sha256").if_text() == artifact.sha256;
  }

  /// Whatever could stop a rename is found out before the first one.
  void place_all() const {
    for (const Artifact& artifact : artifacts_) {
      if (artifact.staged.empty()) continue;
      const std::string target = paths_.file(artifact.source.relative_path);
      make_directories(directory_of(target));
      if (is_directory(target)) throw RuntimeError(fmt::format("{} is a folder in the tree, but a file in {}", target, options_.source));
    }
    for (const Artifact& artifact : artifacts_) {
      if (!artifact.staged.empty()) rename_over(artifact.staged, paths_.file(artifact.source.relative_path));
    }
  }

  void place_seed() const {
    make_directories(paths_.seed_folder());
    _atomic_write(Files::real(), Clock::real(), paths_.seed(options_.era), seed_);
    const std::string link = paths_.staging() + "/seed";
    const std::string target = fmt::format("seeds/era-{}.enc", options_.era);
    if (::symlink(target.c_str(), link.c_str()) != 0) throw os_error(errno, link);
    rename_over(link, paths_.seed_link());
  }

  [[nodiscard]] Document manifest() const {
    std::vector<Member> files;
    files.reserve(artifacts_.size());
    bool has_index = false;
    bool has_functions = false;
    for (const Artifact& artifact : artifacts_) {
      const ArtifactKind kind = classify_artifact(artifact.source.relative_path);
      std::vector<Member> entry{{"kind", kind.kind}, {"size_bytes", artifact.size_bytes}, {"sha256", artifact.sha256}};
      if (kind.platform) entry.push_back({"platform", *kind.platform});
      has_index = has_index || kind.kind == "signals_index";
      has_functions = has_functions || kind.kind == "functions";
      files.push_back({artifact.source.relative_path, Document(std::move(entry))});
    }
    std::vector<Member> members{{"era_number", options_.era}, {"version", options_.version}};
    if (!options_.base_url.empty()) members.push_back({"base_url", options_.base_url});
    if (options_.pnl_column_count != 0) members.push_back({"pnl_column_count", options_.pnl_column_count});
    if (has_index) members.push_back({"signals_index", SIGNALS_INDEX_RELATIVE_PATH});
    if (has_functions) members.push_back({"functions", FUNCTIONS_NAME});
    members.push_back({"files", Document(std::move(files))});
    return Document(std::move(members));
  }

  static void write_document(const std::string& path, const Document& document) {
    _atomic_write(Files::real(), Clock::real(), path, write_json(document, JsonForm::InsertionOrder));
  }

  void write_documents() const {
    write_document(paths_.manifest(), manifest());
    write_document(paths_.manifest_version(), Document{{"version", options_.version}, {"era_number", options_.era}});
    EraStatus status;
    status.era = options_.era;
    status.min_library_version = options_.min_library_version;
    write_era(paths_, status, options_.era_shape);
  }

  void drop_departed() {
    if (!previous_) return;
    std::set<std::string_view> present;
    for (const Artifact& artifact : artifacts_) present.insert(artifact.source.relative_path);
    for (const Member& member : previous_->files) {
      if (present.contains(member.key.view()) || path_objection(member.key.view())) continue;
      std::string path = paths_.file(member.key.view());
      if (::unlink(path.c_str()) != 0) continue;
      ++report_.dropped;
      while ((path = directory_of(path)) != paths_.files() && ::rmdir(path.c_str()) == 0) {
      }
    }
    if (previous_->era != options_.era) ::unlink(paths_.seed(previous_->era).c_str());
  }

  const PublishOptions& options_;
  TreePaths paths_;
  SourceScan scan_;
  std::string seed_;
  Descriptor lock_;
  std::optional<PublishedManifest> previous_;
  std::vector<Artifact> artifacts_;
  PublishReport report_;
};

}  // namespace

PublishReport publish(const PublishOptions& options) { return Publication(options).run(); }

}  // namespace brackenfen::sync::distribution

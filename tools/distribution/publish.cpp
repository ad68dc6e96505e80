#include "tools/distribution/publish.hpp"

#include <fcntl.h>
#include <fmt/core.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <cerrno>
#include <memory>
#include <optional>
#include <string_view>
#include <utility>
#include <vector>

#include "sync/base/error.hpp"
#include "sync/base/files/descriptor.hpp"
#include "sync/base/files/paths.hpp"
#include "sync/base/files/place.hpp"
#include "sync/base/files/sha256.hpp"
#include "sync/base/threads/clock.hpp"
#include "sync/base/values/json.hpp"
#include "sync/documents/signals_index.hpp"
#include "tools/distribution/check.hpp"
#include "tools/distribution/examine.hpp"
#include "tools/distribution/kinds.hpp"
#include "tools/distribution/progress.hpp"
#include "tools/distribution/staging.hpp"
#include "tools/distribution/stop.hpp"
#include "tools/distribution/tree.hpp"
#include "tools/distribution/workers.hpp"

namespace brackenfen::sync::distribution {
namespace {

constexpr std::size_t READ_BYTES = 512 * 1024;
constexpr std::int64_t COPY_BYTES = 64 * 1024 * 1024;  // between two looks for a signal

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

std::string hash_all(const Descriptor& file, const std::string& path, Progress& progress) {
  Sha256 digest;
  std::string buffer(READ_BYTES, '\0');
  while (const std::size_t size = read_some(file, buffer.data(), buffer.size(), path)) {
    digest.update(buffer.data(), size);
    progress.add_bytes(size);
    stop_point();
  }
  return digest.hex_digest();
}

/// Copies inside the kernel, which shares the blocks where the file system can.
void copy_all(const Descriptor& from, std::int64_t size_bytes, const Descriptor& to, const std::string& path) {
  off_t offset = 0;
  while (offset < size_bytes) {
    stop_point();
    const auto wanted = static_cast<std::size_t>(std::min<std::int64_t>(size_bytes - offset, COPY_BYTES));
    const ssize_t copied = ::copy_file_range(from.get(), &offset, to.get(), nullptr, wanted, 0);
    if (copied > 0 || (copied < 0 && errno == EINTR)) continue;
    if (copied == 0 && offset > 0) return;  // the source has shrunk; the caller notices
    if (copied == 0) break;                 // or its file system leaves the reading to us
    if (offset > 0 || (errno != EXDEV && errno != ENOSYS && errno != EINVAL && errno != EOPNOTSUPP)) throw os_error(errno, path);
    break;
  }
  if (offset >= size_bytes) return;
  if (::lseek(from.get(), 0, SEEK_SET) < 0) throw os_error(errno, path);
  std::string buffer(READ_BYTES, '\0');
  while (const std::size_t size = read_some(from, buffer.data(), buffer.size(), path)) {
    stop_point();
    write_all(to, std::string_view(buffer.data(), size), path);
  }
}

/// A seed for data sets that bring none: the same for an era on every machine. It hides nothing.
std::string generated_seed(std::int64_t era) { return _sha256(fmt::format("shuffle seed of era {}", era)).substr(0, SHUFFLE_SEED_BYTES); }

class Publication {
 public:
  explicit Publication(const PublishOptions& options) : options_(options), paths_{absolute_path(options.out)} {}

  PublishReport run() {
    const double began = Clock::real().monotonic_seconds();
    if (const auto objection = base_url_objection(options_.base_url)) throw RuntimeError("no client accepts this base URL: " + *objection);
    scan_ = scan_source(options_.source);
    if (scan_.files.empty()) throw RuntimeError(fmt::format("{} holds nothing to publish", options_.source));
    if (options_.check_documents) check_documents(scan_.files, options_.era);
    seed_ = read_seed();
    open_tree();
    stage_artifacts();
    stage_documents();
    stop_point();
    staging_->commit();
    drop_departed();
    staging_.reset();
    report(Clock::real().monotonic_seconds() - began);
    return std::move(report_);
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
    const std::string seed_path = paths_.seed(options_.era);
    changes_seed_ = path_exists(seed_path) && read_file(seed_path) != seed_;
    staging_ = std::make_unique<Staging>(paths_);
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

  void stage_artifacts() {
    std::int64_t expected_bytes = 0;
    for (const SourceFile& file : scan_.files) expected_bytes += file.size_bytes;
    Progress progress(scan_.files.size(), expected_bytes, options_.progress_seconds);
    artifacts_.resize(scan_.files.size());
    for_each_index(artifacts_.size(), [&](std::size_t index) {
      stop_point();
      artifacts_[index].source = scan_.files[index];
      stage(artifacts_[index], staging_->path(std::to_string(index)), progress);
      progress.add_file();
    });
    for (const Artifact& artifact : artifacts_) {
      stop_point();
      report_.bytes += artifact.size_bytes;
      ++(artifact.staged.empty() ? report_.kept : report_.placed);
      if (!artifact.staged.empty()) staging_->add_move(artifact.staged, paths_.file(artifact.source.relative_path));
    }
  }

  void stage(Artifact& artifact, const std::string& staged, Progress& progress) const {
    const std::string& path = artifact.source.local_path;
    const Descriptor file = open_file(path, O_RDONLY | O_NOFOLLOW);
    const struct stat before = status_of(file, path);
    artifact.size_bytes = before.st_size;
    artifact.sha256 = hash_all(file, path, progress);
    if (!is_in_place(artifact, before)) {
      if (!options_.link || !is_linked(file, path, staged)) {
        Descriptor copy = open_file(staged, O_WRONLY | O_CREAT | O_EXCL);
        copy_all(file, artifact.size_bytes, copy, staged);
        copy.close();  // some file systems tell only here that they are full
      }
      artifact.staged = staged;
    }
    if (!same_content(before, status_of(file, path))) throw changed(path);
  }

  /// Whether a link could be made. It is of what has that name now, which may be another file than the one that was read.
  static bool is_linked(const Descriptor& file, const std::string& path, const std::string& staged) {
    if (::linkat(AT_FDCWD, path.c_str(), AT_FDCWD, staged.c_str(), AT_SYMLINK_FOLLOW) != 0) return false;
    if (file_id(staged) != file_id(file)) throw changed(path);
    return true;
  }

  static Error changed(const std::string& path) { return RuntimeError(fmt::format("{} changed while it was being published", path)); }

  /// The digest in the tree's own manifest is taken at its word.
  [[nodiscard]] bool is_in_place(const Artifact& artifact, const struct stat& source) const {
    struct stat present {};
    if (::lstat(paths_.file(artifact.source.relative_path).c_str(), &present) != 0 || !S_ISREG(present.st_mode)) return false;
    if (present.st_dev == source.st_dev && present.st_ino == source.st_ino) return true;
    if (!previous_ || present.st_size != artifact.size_bytes) return false;
    const Document* entry = previous_->files.get(artifact.source.relative_path).if_document();
    return entry != nullptr && entry->get("sha256").if_text() == artifact.sha256;
  }

  void stage_documents() {
    stage_seed();
    manifest_ = manifest();
    staging_->add_document("manifest", write_json(manifest_, JsonForm::InsertionOrder), paths_.manifest());
    const Document version{{"version", options_.version}, {"era_number", options_.era}};
    staging_->add_document("version", write_json(version, JsonForm::InsertionOrder), paths_.manifest_version());
    EraStatus status;
    status.era = options_.era;
    status.min_library_version = options_.min_library_version;
    staging_->add_document("era", write_json(era_document(status, options_.era_shape), JsonForm::InsertionOrder), paths_.era_current());
  }

  void stage_seed() {
    staging_->add_document("seed", seed_, paths_.seed(options_.era), paths_.seed_link());
    const std::string link = staging_->path("seed-link");
    const std::string target = fmt::format("seeds/era-{}.enc", options_.era);
    if (::symlink(target.c_str(), link.c_str()) != 0) throw os_error(errno, link);
    staging_->add_move(link, paths_.seed_link());
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

  [[nodiscard]] const Document& files() const { return *manifest_.get("files").if_document(); }

  void drop_departed() {
    if (!previous_) return;
    for (const Member& member : previous_->files) {
      if (files().contains(member.key) || path_objection(member.key.view())) continue;
      std::string path = paths_.file(member.key.view());
      if (::unlink(path.c_str()) != 0) continue;
      ++report_.dropped;
      while ((path = directory_of(path)) != paths_.files() && ::rmdir(path.c_str()) == 0) {
      }
    }
    if (previous_->era != options_.era) ::unlink(paths_.seed(previous_->era).c_str());
  }

  void report(double seconds) {
    report_.era = options_.era;
    report_.version = options_.version;
    report_.files = artifacts_.size();
    report_.left_out = scan_.left_out;
    report_.seconds = seconds;
    report_.warnings = examine(manifest_, paths_.files());
    if (!previous_) return;
    report_.changes = changes_since(*previous_);
    if (previous_->era != options_.era) return;
    if (changes_seed_)
      report_.warnings.emplace_back("clients that have a shuffle seed of this era keep it; another one comes with the next era");
    const NamedFiles kept = kept_by_clients(previous_->files, files());
    if (kept.empty()) return;
    report_.warnings.push_back(
        fmt::format("clients that hold version {} keep these as they are through their next pass; the new bytes come "
                    "with the pass after it: {}",
                    previous_->version, kept.text()));
  }

  [[nodiscard]] PublishedChanges changes_since(const PublishedManifest& before) const {
    PublishedChanges changes{before.era, before.version, {}, {}, {}};
    for (const Artifact& artifact : artifacts_) {
      const Document* entry = before.files.get(artifact.source.relative_path).if_document();
      if (entry != nullptr && entry->get("sha256").if_text() == artifact.sha256) continue;
      (entry == nullptr ? changes.added : changes.changed).add(artifact.source.relative_path, artifact.size_bytes);
    }
    for (const Member& member : before.files) {
      if (!files().contains(member.key)) changes.removed.add(member.key);
    }
    return changes;
  }

  const PublishOptions& options_;
  const TreePaths paths_;
  const StopSignals signals_;
  SourceScan scan_;
  std::string seed_;
  bool changes_seed_ = false;  ///< within the era
  Descriptor lock_;
  std::unique_ptr<Staging> staging_;  // after the lock, which is let go once this is gone
  std::optional<PublishedManifest> previous_;
  std::vector<Artifact> artifacts_;
  Document manifest_;
  PublishReport report_;
};

}  // namespace

PublishReport publish(const PublishOptions& options) { return Publication(options).run(); }

}  // namespace brackenfen::sync::distribution

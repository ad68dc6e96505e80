#include "sync/transport/progress.hpp"

#include <fcntl.h>

#include <algorithm>
#include <cerrno>
#include <optional>
#include <utility>

#include "sync/base/error.hpp"
#include "sync/base/files/path_below.hpp"
#include "sync/base/files/paths.hpp"
#include "sync/base/files/root_directory.hpp"
#include "sync/base/log.hpp"
#include "sync/base/text/keyed_hash.hpp"
#include "sync/base/threads/interrupt.hpp"
#include "sync/base/values/convert.hpp"
#include "sync/base/values/integer_sum.hpp"
#include "sync/base/values/json.hpp"
#include "sync/documents/manifest_paths.hpp"
#include "sync/neighbours/sync_progress.hpp"
#include "sync/transport/backoff_progress.hpp"

namespace brackenfen::sync {
namespace {

/// Looking at 100,000 of them takes the system a while.
constexpr std::size_t PATHS_PER_INTERRUPT_CHECK = 1024;

Value integer_or_zero(const Value& value) { return value.truthy() ? to_integer(value) : Value(0); }

/// Finds the staging files of many manifest paths: a folder is looked at once for the files in it that follow each other.
class StagingPlaces {
 public:
  explicit StagingPlaces(std::string_view data_dir) : data_dir_(data_dir), root_(real_path(expand_user(data_dir))) {}

  /// Absent where its folder cannot be opened. Throws ManifestError.
  [[nodiscard]] std::optional<Place> find(const Value& file_path) {
    std::string relative_path = _safe_manifest_relative_path(file_path);
    enter(directory_of(relative_path));
    path_ = join_path(root_.path(), relative_path);
    if (folder_) {
      const Place place(folder_, path_);
      const std::optional<struct stat> found = look_at(place);
      if (!found || !S_ISLNK(found->st_mode)) return place.beside(".tmp");
    } else if (reason_ != ELOOP) {
      return std::nullopt;
    }
    path_ = _manifest_local_path(data_dir_, file_path);
    enter(directory_of(path_below(root_.path(), path_).value_or("")));
    return folder_ ? std::optional(Place(folder_, path_).beside(".tmp")) : std::nullopt;
  }
  /// The same, as os_error where that is absent.
  [[nodiscard]] Place of(const Value& file_path) {
    std::optional<Place> place = find(file_path);
    if (!place) throw os_error(reason_, path_);
    return *std::move(place);
  }

 private:
  void enter(std::string folder_path) {
    const bool is_entered = folder_ || reason_ == ENOENT;
    if (is_entered && folder_path == folder_path_) return;
    folder_ = root_.folder(folder_path);
    reason_ = folder_ ? 0 : errno;
    folder_path_ = std::move(folder_path);
  }

  const std::string data_dir_;
  const RootDirectory root_;
  std::string folder_path_;
  std::shared_ptr<const Descriptor> folder_;
  int reason_ = 0;    ///< errno, where there is no folder
  std::string path_;  ///< of the file that was asked for last
};

StringSet staging_paths(std::string_view data_dir, const std::vector<Value>& relative_paths) {
  StringSet paths;
  StagingPlaces places(data_dir);
  std::size_t seen = 0;
  for (const Value& relative_path : relative_paths) {
    if (seen++ % PATHS_PER_INTERRUPT_CHECK == 0) check_interrupt();
    try {
      // What has no folder has no staging file either.
      if (const std::optional<Place> place = places.find(to_text(relative_path))) paths.insert(place->path());
    } catch (const Error& error) {
      const bool unusable = error.is(error_class::ManifestError) || error.is(error_class::ValueError) || error.is(error_class::TypeError) ||
                            error.is(error_class::OSError);
      if (!unusable) throw;
    }
  }
  return paths;
}

/// Builds the entries of the progress file. Keys and the empty text are made once and shared by all of them.
class ShownEntry {
 public:
  Document of(const Document& entry, const std::optional<Value>& size_bytes) const {
    std::vector<Member> members{{kind_, text_or_empty(entry.get("kind"))}, {platform_, text_or_empty(entry.get("platform"))}};
    if (size_bytes) members.push_back({size_bytes_, *size_bytes});
    return Document(std::move(members));
  }

 private:
  Value text_or_empty(const Value& value) const {
    if (value.is_text()) return value;
    return value.is_null() ? empty_ : Value(to_text(value));
  }

  Text kind_{"kind"};
  Text platform_{"platform"};
  Text size_bytes_{"size_bytes"};
  Value empty_{""};
};

}  // namespace

std::string _sync_progress_path(std::string_view data_dir) { return join_path(data_dir, SYNC_PROGRESS_FILENAME); }

Place sync_progress_place(std::string_view data_dir) {
  const std::string directory = data_dir.empty() ? "." : std::string(data_dir);
  return {std::make_shared<const Descriptor>(open_file(directory, O_PATH | O_DIRECTORY)), _sync_progress_path(data_dir)};
}

void _write_sync_progress_json(Files& files, Clock& clock, const SyncProgress& sync_progress, std::string_view data_dir,
                               const Value& era_number, const Value& version, const Document& files_to_download) {
  Value total_bytes = 0;
  std::vector<Value> unknown_size_files;
  std::vector<Member> entries;
  entries.reserve(files_to_download.size());
  const ShownEntry shown;
  for (const auto& [relative_path, file_info] : files_to_download) {
    const Document* const entry = file_info.if_document();
    if (entry == nullptr) continue;
    const std::optional<Value> size_bytes = sync_progress.manifest_file_size(file_info);
    if (size_bytes) {
      total_bytes = add_integers(total_bytes, *size_bytes);
    } else {
      unknown_size_files.emplace_back(relative_path);
    }
    entries.push_back({relative_path, shown.of(*entry, size_bytes)});
  }
  const bool all_known = unknown_size_files.empty();
  const Document payload{
      {"phase", "syncing"},
      {"era_number", integer_or_zero(era_number)},
      {"version", integer_or_zero(version)},
      {"updated_at", clock.wall_seconds()},
      {"total_bytes", total_bytes},
      {"total_bytes_known", all_known},
      {"unknown_size_files", List(std::move(unknown_size_files))},
      {"files", Document(std::move(entries))},
  };
  _atomic_write(files, clock, sync_progress_place(data_dir), write_json(payload, JsonForm::SortedKeys));
}

void _remove_sync_progress_json(Files& files, std::string_view data_dir) {
  const std::string path = _sync_progress_path(data_dir);
  forget_backoff_progress(path);
  try {
    files.unlink(path);
  } catch (const Error& error) {
    if (!error.is(error_class::FileNotFoundError)) log_debug("best-effort sync progress cleanup failed for %s: %s", path, error.text());
  }
}

void _remove_manifest_tmp_file(Files& files, std::string_view data_dir, const Value& file_path) {
  try {
    files.unlink(StagingPlaces(data_dir).of(file_path));
  } catch (const Error& error) {
    if (error.is(error_class::ManifestError) || error.is(error_class::FileNotFoundError)) return;  // an unsafe path never had one
    if (!error.is(error_class::OSError)) throw;
    log_warning("Failed to remove stale sync tmp file %s: %s", join_path(data_dir, to_text(file_path)) + ".tmp", error.text());
  }
}

void _cleanup_sync_tmp_files(Files& files, std::string_view data_dir, const std::vector<Value>& preserve_relative_paths,
                             const std::vector<std::string>& without_staging) {
  const StringSet preserved = staging_paths(data_dir, preserve_relative_paths);
  // The search starts where the links of `data_dir` lead, as staging paths do, and follows none below.
  const RootDirectory root(real_path(expand_user(data_dir)));
  root.search({.left_out = without_staging,
               .picks = [&](const std::string& path, const DirectoryReader&,
                            const dirent&) { return path.ends_with(".tmp") && !preserved.contains(join_path(root.path(), path)); },
               .found =
                   [&](const Place& place) {
                     try {
                       files.unlink(place);
                     } catch (const Error& error) {
                       log_debug("best-effort tmp cleanup failed for %s: %s", place.path(), error.text());
                     }
                   },
               .failed = [&](const Error& error,
                             const std::string&) { log_debug("best-effort tmp scan failed for %s: %s", data_dir, error.text()); }});
}

}  // namespace brackenfen::sync

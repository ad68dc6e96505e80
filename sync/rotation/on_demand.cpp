// Features outside the selection, fetched because a caller is about to hand out work on them.
#include <algorithm>
#include <set>

#include "sync/base/error.hpp"
#include "sync/base/log.hpp"
#include "sync/base/threads/failure.hpp"
#include "sync/base/threads/interrupt.hpp"
#include "sync/base/values/convert.hpp"
#include "sync/base/values/integer_sum.hpp"
#include "sync/documents/feature_paths.hpp"
#include "sync/documents/manifest_paths.hpp"
#include "sync/documents/own_files.hpp"
#include "sync/documents/shown_files.hpp"
#include "sync/engine/sync_manager.hpp"
#include "sync/lifecycle/admission.hpp"
#include "sync/transport/progress.hpp"

namespace brackenfen::sync {
namespace {

/// Removes sync-progress.json at the end of the scope, whatever came of the downloads.
class ShownProgress {
 public:
  ShownProgress(Files& files, std::string data_dir) : files_(files), data_dir_(std::move(data_dir)) {}
  ShownProgress(const ShownProgress&) = delete;
  ShownProgress& operator=(const ShownProgress&) = delete;
  ~ShownProgress() {
    if (shown_) drop_failure([this] { remove(); });
  }
  /// Removes it now. Logging runs code of the host, whose errors leave here.
  void remove() {
    shown_ = false;
    _remove_sync_progress_json(files_, data_dir_);
  }

 private:
  Files& files_;
  const std::string data_dir_;
  bool shown_ = true;
};

void require_room(const Document& files_to_download, std::int64_t free_bytes) {
  Value total_needed = 0;
  for (const Member& member : files_to_download) {
    if (const Value* size = member.value.if_document()->find("size_bytes"))
      total_needed = add_integers(total_needed, manifest_integer(*size, "size_bytes of " + member.key.str()));
  }
  if (compare_integers(total_needed, free_bytes) > 0) {
    throw DiskSpaceError("Insufficient disk space: need " + to_text(total_needed) + " bytes, have " + std::to_string(free_bytes) +
                         " bytes available");
  }
}

/// The stripped names, each once, in order; what is no text or blank is left out.
std::vector<std::string> normalized(const std::vector<Value>& feature_names) {
  std::set<std::string> names;
  for (const Value& name : feature_names) {
    if (const std::string_view text = stripped_text(name); !text.empty()) names.emplace(text);
  }
  return {names.begin(), names.end()};
}

/// Downloads the files. Until it ends, sync-progress.json tells of them.
void fetch_shown(SyncManager& manager, const std::shared_ptr<NeighbourSet>& neighbours, const Manifest& manifest,
                 const Document& files_to_download) {
  const Seams& seams = manager.seams();
  const std::string data_dir = manager._data_dir.get();
  SyncResult result;                                                          // nobody asks for it
  result.era_number = manifest_integer(manifest.era_number(), "era_number");  // throws for what is no number
  _write_sync_progress_json(*seams.files, *seams.clock, neighbours->sync_progress(), data_dir, manifest.era_number(), manifest.version(),
                            files_to_download);
  Operation::enter_phase(phase::DOWNLOADING);
  announce_files(files_to_download);
  ShownProgress shown(*seams.files, data_dir);
  manager._download_files_parallel(neighbours, files_to_download, result);
  shown.remove();
}

}  // namespace

std::vector<std::string> SyncManager::request_feature_files_for_sync(const std::vector<Value>& feature_names, const Value& expression_type,
                                                                     const Value& named_universe) {
  require_own_process();
  if (normalized(feature_names).empty()) return {};
  require_admission(*this, "request_feature_files_for_sync");
  if (const std::shared_ptr<RunningRequest> other = _request_coalescing.running()) other->wait(*seams_.clock);
  return fetch_features(feature_names, expression_type, named_universe);
}

std::vector<std::string> SyncManager::fetch_features(const std::vector<Value>& feature_names, const Value& expression_type,
                                                     const Value& named_universe) {
  require_own_process();
  const std::vector<std::string> names = normalized(feature_names);
  if (names.empty()) return {};
  require_outside_own_pass();
  return run_operation(activity_, operation::FEATURES, phase::WAITING, [&] {
    WorkLock one_pass(_sync_lock);
    DirectoryLock::Hold unit_of_work(_directory_lock);
    std::vector<std::string> local_paths;
    for (int restarts = 0;;) {
      try {
        local_paths = _request_feature_files_for_sync_impl(names, expression_type, named_universe);
        break;
      } catch (const Error& error) {
        if (!error.is(error_class::ManifestSupersededError)) throw;
        log_warning("Manifest changed during feature prefetch; refreshing manifest and restarting feature download set (%d/%d): %s",
                    ++restarts, SYNC_MANIFEST_SUPERSEDE_RESTART_LIMIT, error.text());
        if (restarts >= SYNC_MANIFEST_SUPERSEDE_RESTART_LIMIT) throw;
      }
      static_cast<void>(_sync_with_manifest_refresh());
    }
    unit_of_work.release();
    return local_paths;
  });
}

std::vector<std::string> SyncManager::_request_feature_files_for_sync_impl(const std::vector<std::string>& feature_names,
                                                                           const Value& expression_type, const Value& named_universe) {
  require_own_process();
  if (!_manifest.get()) static_cast<void>(_sync_with_manifest_refresh());
  const std::shared_ptr<Manifest> manifest = _manifest.get();
  if (!manifest) return {};
  Operation::enter_phase(phase::COMPARING);
  const std::shared_ptr<NeighbourSet> neighbours = seams_.neighbours->bind();
  const std::string data_dir = _data_dir.get();
  const Value files = manifest->files();
  const Document* entries = files.if_document();

  std::vector<Member> wanted;
  std::vector<Value> relative_paths;
  std::vector<std::string> local_paths;
  OwnFiles own_files(data_dir);
  for (const std::string& path :
       feature_prefetch_relative_paths(neighbours->era_config(), files, feature_names, expression_type, named_universe)) {
    check_interrupt();
    const Document* file_info = entries ? entries->get(path).if_document() : nullptr;
    if (!file_info) continue;
    own_files.refuse(path);
    local_paths.push_back(_manifest_local_path(data_dir, Value(path)));
    relative_paths.emplace_back(path);
    if (!_local_file_matches_manifest(path, local_paths.back(), *file_info))
      wanted.push_back({path, Value(generation_stamped(*file_info, *manifest))});
  }
  const Document files_to_download(std::move(wanted));
  if (!files_to_download.empty()) {
    require_room(files_to_download, seams_.files->free_bytes(data_dir));
    fetch_shown(*this, neighbours, *manifest, files_to_download);
    Operation::enter_phase(phase::COMMITTING);
    _hash_cache._persist_hash_cache();
  }
  _directory_lock.require_directory();
  _prefetched_features._remember_prefetched_feature_relative_paths(*neighbours, *manifest, relative_paths);
  return local_paths;
}

}  // namespace brackenfen::sync

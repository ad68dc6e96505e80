// Promotion: the staged files go live, the commit records follow them, and then everybody is told.
#include <unistd.h>

#include <cerrno>

#include "sync/base/error.hpp"
#include "sync/base/files/directory_reader.hpp"
#include "sync/base/files/paths.hpp"
#include "sync/base/files/place.hpp"
#include "sync/base/log.hpp"
#include "sync/base/values/convert.hpp"
#include "sync/documents/departed_files.hpp"
#include "sync/documents/local_files.hpp"
#include "sync/documents/manifest_file.hpp"
#include "sync/documents/shuffle_seed.hpp"
#include "sync/documents/vocabulary.hpp"
#include "sync/era/transition.hpp"
#include "sync/lifecycle/told_era.hpp"
#include "sync/rotation/search_scope.hpp"
#include "sync/rotation/state_file.hpp"

namespace brackenfen::sync {
namespace {

/// In the order in which they move.
constexpr std::string_view SEED_FILES[] = {SHUFFLE_SEED_FILENAME, SHUFFLE_SEED_META_FILENAME};
/// What is written by name, behind the data files.
constexpr std::string_view COMMITTED_FILES[] = {SHUFFLE_SEED_FILENAME, SHUFFLE_SEED_META_FILENAME, MANIFEST_FILENAME,
                                                FEATURE_ROTATION_STATE_FILENAME};

/// An empty folder gives way to a file, one with content does not.
void require_place_for_file(const std::string& path) {
  const std::optional<struct stat> found = look_at(path);
  if (found && S_ISDIR(found->st_mode) && DirectoryReader(path).next()) throw os_error(EISDIR, path);
}

}  // namespace

/// A vocabulary that is no good, or a search that cannot be matched with one, must show before a file moves.
void SyncManager::Transition::prepare_promotion() {
  const TextList& active_paths = rotation_.plan.selection.active_relative_paths;
  if (const RotationStateRef& candidate = rotation_.plan.candidate_state) {
    promoted_rotation_state_ =
        neighbours_->artifact_rotation().promote_rotation_candidate(manager_._active_rotation_state.get(), candidate, active_paths);
  }
  search_scope_ = manager_.with_added_paths(search_scope(*neighbours_, promoted_rotation_state_, active_paths, *new_manifest_));
  refresh_payloads_ = manager_._rotation_search_refresh_payloads(*neighbours_, search_scope_, Value(staged_vocabularies_), new_manifest_);
  plan_moves();
  confirm_active_era(manifest_era_id_);
}

void SyncManager::Transition::find_departed_files() {
  const std::shared_ptr<Manifest> old_manifest = manager_._manifest.get();
  if (!old_manifest) return;
  for (DepartedFile& departed : departed_files(data_dir_, old_manifest->files(), new_manifest_->files(), live_paths_)) {
    departed_files_.push_back(std::move(departed.file_path));
    departed_paths_.insert(std::move(departed.live_path));
  }
}

/// Whatever keeps a file from its place must show before the first one moves.
void SyncManager::Transition::plan_moves() {
  find_departed_files();
  moves_.emplace(*manager_.seams_.files, transition_staging_dir_, data_dir_, departed_paths_);
  for (const std::string& file_path : staged_file_paths_) moves_->add(file_path);
  for (const std::string_view name : COMMITTED_FILES) require_place_for_file(join_path(data_dir_, name));
}

void SyncManager::Transition::promote() {
  manager_._directory_lock.require_directory();
  move_staged_files();
  manager_._directory_lock.require_directory();
  if (must_tell_) {
    note_told_era(data_dir_, told_era_id_);
    manager_.told_era_.set(told_era_id_);
  }
  _write_manifest_json(*manager_.seams_.files, *manager_.seams_.clock, data_dir_, new_manifest_->data());
  manager_._manifest.set(new_manifest_);
  manager_._vocabulary.set(std::make_shared<const Document>(staged_vocabularies_));
  confirm_active_era(manifest_era_id_);
  manager_._write_promoted_rotation_state(*neighbours_, promoted_rotation_state_);
  delete_departed_files();
  manager_._cleanup_inactive_rotation_artifacts(*neighbours_, *new_manifest_, search_scope_->active_relative_paths());
  manager_._schedule_cleanup_old_eras(true);
}

void SyncManager::Transition::move_staged_files() {
  // A download that an earlier pass left behind loses its staging file, so that it cannot land over what goes live here.
  LocalFiles live(data_dir_);
  for (const auto& [file_path, file_info] : transition_download_items_) {
    try {
      const Place staging = live.place(file_path, LocalFiles::Parents::Leave).beside(".tmp");
      ::unlinkat(staging.folder(), staging.name(), 0);
    } catch (const Error& error) {  // no folder, no staging file
      if (!error.is(error_class::OSError)) throw;
    }
  }
  Files& files = *manager_.seams_.files;
  const std::shared_ptr<RuntimeFreshnessGuard> guard = manager_.runtime_freshness_guard.get();
  moves_->run([&](const std::string& file_path) {
    if (!guard) return;
    const Document staged_info = new_manifest_->entry(file_path);
    const auto field = [&](const char* name) {
      const Value* const found = staged_info.find(name);
      return found == nullptr ? Value("") : *found;
    };
    guard->record_sync_update(file_path, field("kind"), field("sha256"));
  });
  for (const std::string_view name : SEED_FILES) {
    const std::string staged_path = join_path(transition_staging_dir_, name);
    if (path_exists(staged_path)) files.rename(staged_path, join_path(data_dir_, name));
  }
}

void SyncManager::Transition::delete_departed_files() const {
  LocalFiles live(data_dir_);
  for (const std::string& file_path : departed_files_) {
    const std::optional<FileStat> stat = live.stat(file_path);
    if (!stat || stat->is_directory) continue;
    const Place place = live.place(file_path, LocalFiles::Parents::Leave);
    if (departed_paths_.contains(place.path())) manager_.seams_.files->unlink(place);
  }
}

void SyncManager::Transition::notify_neighbours() {
  try {
    neighbours_->auth().notify_era_change(manifest_era_id_);
  } catch (const Error& error) {
    log_warning("Failed to notify auth about era change: %s", error.text());
  }
  const std::unique_ptr<SearchTracker> tracker = open_search_tracker();
  try {
    tracker->handle_era_transition(manifest_era_id_, told_era_id_);
  } catch (...) {
    tracker->close();
    throw;
  }
  tracker->close();
}

std::unique_ptr<SearchTracker> SyncManager::Transition::open_search_tracker() {
  const SearchTracking& tracking = neighbours_->search_tracking();
  try {
    const Identity& identity = neighbours_->identity();
    std::shared_ptr<const TrackerIdentity> tracker_identity;
    try {
      tracker_identity = identity.resolve_identity_for_data_dir(data_dir_);
    } catch (const Error&) {  // a tracker for nobody is better than none
    }
    return tracking.search_tracker(data_dir_, tracker_identity);
  } catch (const Error&) {
    return tracking.search_tracker(data_dir_);
  }
}

void SyncManager::Transition::restart_searches() {
  manager_._vocabulary.set(std::make_shared<const Document>(_validate_manifest_vocabulary_files(*neighbours_, data_dir_, *new_manifest_)));
  _deliver_rotation_search_refresh_payloads(refresh_payloads_);
  if (!restart_searches_fn_) return;
  confirm_active_era(manifest_era_id_);
  restart_searches_fn_();
}

}  // namespace brackenfen::sync

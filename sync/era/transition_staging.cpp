// Staging: every file of the new era, fetched and validated beside the live ones, one after the other.
#include <algorithm>
#include <cmath>

#include "sync/base/error.hpp"
#include "sync/base/files/paths.hpp"
#include "sync/base/values/convert.hpp"
#include "sync/documents/manifest_paths.hpp"
#include "sync/documents/shown_files.hpp"
#include "sync/documents/signals_index.hpp"
#include "sync/documents/vocabulary.hpp"
#include "sync/era/transition.hpp"
#include "sync/transport/backoff.hpp"
#include "sync/transport/seen_file.hpp"

namespace brackenfen::sync {
namespace {

constexpr const char* BACKOFF_SURFACE = "era_transition";

}  // namespace

bool SyncManager::Transition::stage_files(TransitionScope& scope) {
  sync_result_.era_number = manifest_era_id_;
  _apply_rotation_result_fields(sync_result_, rotation_.plan.selection);
  scope.make_staging_directory(transition_staging_dir_);
  AnnouncedFiles announced;
  for (const auto& [file_path, file_info] : transition_download_items_) announced.add(&file_info);
  announced.announce();
  for (const auto& [file_path, file_info] : transition_download_items_) {
    if (is_superseded()) return false;
    manager_._directory_lock.require_directory();
    if (!stage_file(file_path, file_info)) return false;
  }
  return true;
}

/// The server is asked before every single file, so that a transition which has been overtaken starts anew and does
/// not fail at its end.
bool SyncManager::Transition::is_superseded() {
  superseded_era_id_ = manager_._check_transition_superseded(*neighbours_, manifest_era_id_, allow_closing_confirmation_);
  if (!superseded_era_id_) return false;
  set_status("Era " + to_text(manifest_era_id_) + " superseded by era " + to_text(*superseded_era_id_) + "; restarting transition.");
  return true;
}

bool SyncManager::Transition::stage_file(const std::string& file_path, const Document& file_info) {
  const std::string local_path = _manifest_local_path(data_dir_, file_path);
  live_paths_.insert(local_path);
  // The file itself is read, whatever the hash cache says of it: what goes live must be what the manifest names.
  const std::optional<FileStat> stat = manager_.seams_.files->stat(local_path);
  const std::optional<std::string> live_sha = stat && stat->is_regular ? sha256_if_there(local_path) : std::nullopt;
  if (live_sha && file_info.get("sha256") == Value(*live_sha)) {
    ++completed_files_;
    Operation::count_file(shown_size(file_info));
    return true;
  }
  set_status(nullptr);
  DownloadOptions options;
  options.retry_status_callback = [this](double wait_seconds) { report_retry(wait_seconds); };
  options.target_data_dir = transition_staging_dir_;
  options.backoff_surface = BACKOFF_SURFACE;
  try {
    BackoffContext context;
    context.surface = BACKOFF_SURFACE;
    const auto in_context = _sync_backoff_module(manager_.seams_)->enter_context(std::move(context));
    manager_._download_file(*neighbours_, file_path, generation_stamped(file_info, *new_manifest_), sync_result_, options);
  } catch (const Error& error) {
    // The bytes of a dead era may well differ from what its manifest says, and a newer manifest is on its way then.
    const bool may_be_overtaken = error.is(error_class::IntegrityError) || error.is(error_class::ManifestSupersededError);
    if (may_be_overtaken && is_superseded()) return false;
    throw;
  }
  staged_file_paths_.push_back(file_path);
  ++completed_files_;
  return true;
}

void SyncManager::Transition::report_retry(double wait_seconds) const {
  const double whole_seconds = std::max(1.0, std::trunc(wait_seconds));
  set_status("Download interrupted, retrying in " + std::to_string(static_cast<std::int64_t>(whole_seconds)) + "s (" +
             std::to_string(completed_files_) + "/" + std::to_string(transition_download_items_.size()) + " files complete)");
}

void SyncManager::Transition::stage_documents() {
  set_status(nullptr);
  manager_._download_vocabulary(*neighbours_, *new_manifest_, transition_staging_dir_);
  manager_._download_shuffle_seed(*neighbours_, *new_manifest_, transition_staging_dir_);
  _load_manifest_signals_index(transition_staging_dir_, *new_manifest_, data_dir_);
  staged_vocabularies_ = validate_staged_vocabulary_files(*neighbours_, transition_staging_dir_, data_dir_, *new_manifest_);
}

}  // namespace brackenfen::sync

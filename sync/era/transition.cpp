// The frame of a transition and its gates: everything up to the point where files are fetched.
#include "sync/era/transition.hpp"

#include "sync/base/error.hpp"
#include "sync/base/files/paths.hpp"
#include "sync/base/log.hpp"
#include "sync/base/values/convert.hpp"
#include "sync/base/values/json.hpp"
#include "sync/documents/manifest_filters.hpp"
#include "sync/documents/own_files.hpp"
#include "sync/era/directory_tree.hpp"
#include "sync/era/era_current.hpp"
#include "sync/lifecycle/told_era.hpp"

namespace brackenfen::sync {
namespace {

constexpr std::string_view HOW_TO_UPDATE =
    ". Build a local wheel with build_wheel() and install it with: pip install --upgrade /path/to/brackenfen-*.whl";

}  // namespace

SyncManager::Transition::Transition(SyncManager& manager, Value new_era_id, const SearchesFn& kill_searches_fn,
                                    const SearchesFn& restart_searches_fn)
    : manager_(manager),
      neighbours_(manager.seams_.neighbours->bind()),
      data_dir_(manager._data_dir.get()),
      new_era_id_(std::move(new_era_id)),
      kill_searches_fn_(kill_searches_fn),
      restart_searches_fn_(restart_searches_fn) {
  // Before anything changes: without them the transition could not be brought to its end.
  static_cast<void>(neighbours_->deployment());
  static_cast<void>(neighbours_->search_tracking());
  if (const std::shared_ptr<Manifest> held = manager._manifest.get()) previous_era_id_ = held->era_number();
  has_real_era_advance_ = previous_era_id_.is_null() || era_is_later(new_era_id_, previous_era_id_);
  allow_closing_confirmation_ = !has_real_era_advance_;
}

std::optional<Value> SyncManager::Transition::run() {
  const std::int64_t began_ns = manager_.seams_.clock->monotonic_ns();
  Operation::enter_phase(phase::WAITING);
  TransitionScope scope(manager_);
  Operation::enter_phase(phase::MANIFEST);
  if (kill_searches_fn_) kill_searches_fn_();
  manager_.require_own_process();  // a callback may have forked
  check_library();
  fetch_manifest();
  find_whom_to_tell();
  const StateChanges::PlanScope plan_scope(manager_.rotation_state_changes_);
  Operation::enter_phase(phase::COMPARING);
  plan();
  Operation::enter_phase(phase::DOWNLOADING);
  if (stage_files(scope)) {
    Operation::enter_phase(phase::DOCUMENTS);
    stage_documents();
    Operation::enter_phase(phase::PROMOTING);
    prepare_promotion();
    promote();
    if (must_tell_) notify_neighbours();
    forget_told_era(*manager_.seams_.files, data_dir_);
    manager_.told_era_.set(std::nullopt);
    restart_searches();
    log_info("Era transition to era %s completed in %.1f s: %d files, %d bytes", manifest_era_id_,
             static_cast<double>(manager_.seams_.clock->monotonic_ns() - began_ns) * 1e-9, staged_file_paths_.size(),
             sync_result_.bytes_downloaded);
  }
  scope.close();
  return superseded_era_id_;
}

void SyncManager::Transition::check_library() {
  const Deployment& deployment = neighbours_->deployment();
  const std::string current_version = deployment.current_version();
  bool is_newer_known = false;
  try {
    is_newer_known = deployment.check_update(current_version);
  } catch (const Error& error) {
    if (!error.is(error_class::ConnectionError)) throw;
    log_warning("Could not check local wheel cache for library update: %s", error.text());
  }

  const Document era_manifest = confirm_active_era(new_era_id_);
  const Value* stated = era_manifest.find("min_library_version");
  Value min_version = stated ? *stated : Value("0.0.0");
  bool current_below_min = false;
  try {
    current_below_min = deployment.compare_versions(current_version, min_version) < 0;
  } catch (const Error& error) {
    if (!error.is(error_class::ValueError)) throw;
    log_warning("Invalid min_library_version from era config: %s", min_version);
    min_version = current_version;
  }
  const std::string requirement = "brackenfen >= " + to_text(min_version) + " required for era " + to_text(new_era_id_);
  if (is_newer_known && update_library(min_version, current_below_min ? requirement : "")) return;
  if (current_below_min) throw deployment.library_update_required(requirement + std::string(HOW_TO_UPDATE));
}

bool SyncManager::Transition::update_library(const Value& min_version, const std::string& requirement) const {
  const Deployment& deployment = neighbours_->deployment();
  std::string warning;
  try {
    Deployment::UpdateResult update = deployment.auto_update(min_version);
    if (update.success) return true;
    warning = std::move(update.warning);
  } catch (const Error& error) {
    if (error.is(deployment.library_update_required_class())) throw;
    warning = error.text();
  }
  log_warning("Auto-update failed: %s", warning);
  if (requirement.empty()) return false;
  throw deployment.library_update_required(requirement + "; auto-update failed: " + warning + std::string(HOW_TO_UPDATE));
}

void SyncManager::Transition::fetch_manifest() {
  const std::string url = manager_._server_url.get() + "/data/manifest";
  const HttpResult response = manager_._http_get(*neighbours_, url);
  if (response.status != 200) {
    throw Error(error_class::SyncError,
                "Failed to fetch era " + to_text(new_era_id_) + " manifest: HTTP " + std::to_string(response.status),
                Document{{"url", url}, {"status", response.status}});
  }
  const Document manifest_data = _sanitize_manifest_data_for_sync(*neighbours_, parse_json(response.body));
  new_manifest_ = std::make_shared<Manifest>(*neighbours_, Value(manifest_data));

  const std::optional<Value> era = to_integer_or_absent(new_manifest_->era_number());
  if (!era) throw EraError("Era transition manifest has invalid era_number=" + to_quoted(new_manifest_->era_number()));
  manifest_era_id_ = *era;
  if (manifest_era_id_ != to_integer(new_era_id_)) {
    throw EraError("Era transition manifest era_number=" + to_text(manifest_era_id_) +
                   " does not match active era_number=" + to_text(new_era_id_));
  }
  OwnFiles(data_dir_).refuse_in(new_manifest_->files());
  transition_staging_dir_ = join_path(data_dir_, ".transition_era" + to_text(manifest_era_id_) + ".tmp");
}

/// The data may be in this era already, and only the neighbours not: a transition ended before it had told them.
void SyncManager::Transition::find_whom_to_tell() {
  const std::optional<Value> told = previous_era_id_.is_null() ? std::nullopt : manager_.era_told_before(previous_era_id_);
  told_era_id_ = told.value_or(previous_era_id_);
  must_tell_ = told ? told_era_id_ != manifest_era_id_ : has_real_era_advance_;
}

void SyncManager::Transition::plan() {
  manager_.adopt_stored_rotation(*neighbours_);
  manager_.require_own_process();
  remove_tree(transition_staging_dir_);  // what one that was killed staged is room for this one
  const std::int64_t free_disk_bytes = manager_.seams_.files->free_bytes(data_dir_);
  rotation_ = manager_._plan_feature_rotation_for_manifest(*neighbours_, *new_manifest_, free_disk_bytes);
  const RotationSelection& selection = rotation_.plan.selection;
  manager_._precheck_rotation_disk_budget(*neighbours_, selection, free_disk_bytes, !rotation_.explicit_rotation_budget);

  OwnFiles own_files(data_dir_);
  transition_download_items_.reserve(selection.active_relative_paths.size());
  for (const Text& file_path : selection.active_relative_paths) {
    const Value entry = new_manifest_->file(file_path);
    const Document* file_info = entry.if_document();
    if (!file_info) throw SyncError("Active rotation path is missing from transition manifest: " + file_path.str());
    if (_manifest_file_is_sync_excluded(*neighbours_, entry)) continue;
    own_files.refuse(file_path);
    transition_download_items_.emplace_back(file_path.str(), *file_info);
  }
}

void SyncManager::Transition::set_status(const Value& status) const {
  manager_._status_message.set(status.is_null() ? nullptr : std::make_shared<const Value>(status));
}

void SyncManager::trigger_era_transition(const Value& new_era_id, const SearchesFn& kill_searches_fn,
                                         const SearchesFn& restart_searches_fn) {
  require_own_process();
  if (_directory_lock.held_by_this_work()) throw InsideOwnWork();  // before anything shows that a transition runs
  run_operation(activity_, operation::TRANSITION, phase::WAITING, [&] { transit(new_era_id, kill_searches_fn, restart_searches_fn); });
  activity_->note_good();
}

void SyncManager::transit(const Value& new_era_id, const SearchesFn& kill_searches_fn, const SearchesFn& restart_searches_fn) {
  Value era = new_era_id;
  while (std::optional<Value> superseding = Transition(*this, era, kill_searches_fn, restart_searches_fn).run()) {
    try {
      const DirectoryLock::Hold unit_of_work(_directory_lock);  // the next to work here has such files of its own
      delete_tmp_files(_data_dir.get());
    } catch (const Error& error) {
      log_debug("Failed to clean superseded tmp files: %s", error.text());
    }
    era = *std::move(superseding);
  }
}

}  // namespace brackenfen::sync

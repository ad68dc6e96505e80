#include "sync/engine/pass.hpp"

#include <set>

#include "sync/base/error.hpp"
#include "sync/base/files/paths.hpp"
#include "sync/base/log.hpp"
#include "sync/base/threads/failure.hpp"
#include "sync/base/threads/interrupt.hpp"
#include "sync/base/values/convert.hpp"
#include "sync/base/values/json.hpp"
#include "sync/documents/feature_paths.hpp"
#include "sync/documents/manifest_file.hpp"
#include "sync/documents/manifest_filters.hpp"
#include "sync/documents/own_files.hpp"
#include "sync/documents/shown_files.hpp"
#include "sync/documents/shuffle_seed.hpp"
#include "sync/documents/signals_index.hpp"
#include "sync/documents/vocabulary.hpp"
#include "sync/rotation/state_file.hpp"
#include "sync/transport/progress.hpp"

namespace brackenfen::sync {
namespace {

/// Distinct signal groups under `prefix` among the keys of `files`.
std::int64_t count_groups(const EraConfig& era_config, const Value& files, std::string_view prefix) {
  const Document* entries = files.if_document();
  if (!entries) return 0;
  std::set<std::string> groups;
  for (const Member& member : *entries) {
    if (auto group = _agent_signal_group_key(era_config, Value(member.key), prefix)) groups.insert(*std::move(group));
  }
  return static_cast<std::int64_t>(groups.size());
}

}  // namespace

std::int64_t count_features(const Value& files) {
  const Document* entries = files.if_document();
  if (!entries) return 0;
  std::int64_t count = 0;
  for (const Member& member : *entries) {
    const Document* entry = member.value.if_document();
    if (entry && entry->get("kind").if_text() == "feature") ++count;
  }
  return count;
}

SyncManager::Pass::Pass(SyncManager& manager)
    : manager_(manager),
      neighbours_(manager.seams_.neighbours->bind()),
      data_dir_(manager._data_dir.get()),
      local_(manager._manifest.get()),
      began_ns_(manager.seams_.clock->monotonic_ns()),
      stage_began_ns_(began_ns_) {}

std::optional<SyncResult> SyncManager::Pass::run() {
  std::optional<SyncResult> result = run_steps();
  if (result) manager_.activity_->note_good();
  return result;
}

std::optional<SyncResult> SyncManager::Pass::run_steps() {
  Operation::enter_phase(phase::MANIFEST);
  _remove_sync_progress_json(*manager_.seams_.files, data_dir_);
  const StateChanges::PlanScope plan_scope(manager_.rotation_state_changes_);
  manager_.adopt_stored_rotation(*neighbours_);
  if (auto result = end_on_version_hint(read_version_hint())) return result;
  note_stage("version hint");
  fetch_manifest();
  refuse_another_era();
  OwnFiles(data_dir_).refuse_in(server_->files());
  note_stage("manifest");
  Operation::enter_phase(phase::COMPARING);
  plan_rotation();
  note_stage("rotation plan");
  if (same_version_) {
    if (auto result = end_on_same_version()) return result;
  }
  begin_result();
  collect_downloads();
  note_stage("walk");
  manager_._directory_lock.require_directory();  // another in its place is not locked
  std::vector<Value> staged;
  for (const Member& member : files_to_download_) staged.emplace_back(member.key);
  _cleanup_sync_tmp_files(*manager_.seams_.files, data_dir_, staged);
  check_disk();
  if (!files_to_download_.empty()) {
    _write_sync_progress_json(*manager_.seams_.files, *manager_.seams_.clock, neighbours_->sync_progress(), data_dir_,
                              server_->era_number(), server_->version(), files_to_download_);
  }
  note_stage("staging");
  Operation::enter_phase(phase::DOWNLOADING);
  announce_files(files_to_download_);
  if (!download()) return std::nullopt;
  note_stage("downloads");
  Operation::enter_phase(phase::DOCUMENTS);
  land_documents();
  note_stage("documents");
  commit();
  note_stage("commit");
  finish();
  note_stage("counts");
  warn_of_kept_files();
  log_info("Synced era %s to version %s: %d files, %d bytes, in %.1f s", server_->era_number(), server_->version(),
           files_to_download_.size(), result_.bytes_downloaded, seconds());
  return std::move(result_);
}

SyncManager::Pass::VersionHint SyncManager::Pass::read_version_hint() {
  HttpResult response;
  try {
    response = manager_._http_get(*neighbours_, manager_._server_url.get() + "/data/manifest/version");
  } catch (const Error& error) {
    if (error.is(neighbours_->auth().auth_error_class()) || error.is(error_class::SyncUnavailableError)) throw;
    log_warning("Manifest version check failed: %s", told(error));
    return {};
  }
  if (response.status == 401) throw neighbours_->auth().auth_error("Authentication failed: HTTP 401");
  if (response.status != 200) return {};
  try {
    const Value body = parse_json(response.body);
    const Document* answer = body.if_document();
    if (!answer) throw TypeError("the answer is not a JSON object");
    VersionHint hint;
    hint.version = to_integer(answer->get("version"));
    if (const Value& era = answer->get("era_number"); !era.is_null()) hint.era = to_integer(era);
    return hint;
  } catch (const Error& error) {
    log_debug("Manifest version response was not parseable: %s", error.text());
    return {};
  }
}

void SyncManager::Pass::fetch_manifest() {
  const std::string url = manager_._server_url.get() + "/data/manifest";
  const HttpResult response = manager_._http_get(*neighbours_, url);
  const std::string status = std::to_string(response.status);
  if (response.status == 401) throw neighbours_->auth().auth_error("Authentication failed: HTTP " + status);
  if (response.status != 200) {
    throw Error(error_class::SyncError, "Failed to fetch manifest: HTTP " + status, Document{{"url", url}, {"status", response.status}});
  }
  Value parsed;
  try {
    parsed = parse_json(response.body);
  } catch (const Error& error) {
    if (!error.is(error_class::JSONDecodeError)) throw;
    throw ManifestError("Invalid manifest JSON: " + error.text());
  }
  fetched_ = _sanitize_manifest_data_for_sync(*neighbours_, parsed);

  const auto integer = [this](std::string_view key) {
    const Value* stated = fetched_.find(key);
    return stated ? to_integer_or_absent(*stated).value_or(Value()) : Value(0);
  };
  manager_._missing_found_pnl.begin(integer("era_number"), integer("version"));
  server_ = std::make_shared<Manifest>(*neighbours_, Value(_drop_missing_found_pnl_paths(fetched_, manager_._missing_found_pnl.paths())));
}

Error era_mismatch(const Value& local_era, const Value& server_era) {
  return {error_class::EraError, "Era mismatch: local era_number=" + to_text(local_era) + ", server era_number=" + to_text(server_era),
          Document{{"local_era_number", local_era}, {"server_era_number", server_era}}};
}

void SyncManager::Pass::refuse_another_era() const {
  if (!local_ || local_->era_number() == server_->era_number()) return;
  throw era_mismatch(local_->era_number(), server_->era_number());
}

SyncManager::PlannedRotation SyncManager::Pass::plan_for(Manifest& manifest, bool force_new_candidate) {
  const auto retired_left_out = [&] {
    return _drop_retired_unsupported_runtime_paths_from_state(manager_._active_rotation_state.get(), manifest.files());
  };
  PlannedRotation rotation = is_dry_run_
                                 ? manager_.plan_rotation(*neighbours_, manifest, free_bytes_, force_new_candidate, retired_left_out())
                                 : manager_._plan_feature_rotation_for_manifest(*neighbours_, manifest, free_bytes_, force_new_candidate);
  manager_._precheck_rotation_disk_budget(*neighbours_, rotation.plan.selection, free_bytes_, !rotation.explicit_rotation_budget);
  return rotation;
}

void SyncManager::Pass::plan_rotation() {
  free_bytes_ = manager_.seams_.files->free_bytes(data_dir_);
  // A server that went back in version within the era counts as the same version. A local version that is no
  // number is no version to compare with: the full path replaces it.
  const std::optional<Value> local_version = local_ ? to_integer_or_absent(local_->version()) : std::nullopt;
  same_version_ = local_version && local_->era_number() == server_->era_number() &&
                  compare_integers(*local_version, manifest_integer(server_->version(), "version")) >= 0;
  const bool force_new_rotation = !same_version_ || manager_._feature_rotation_should_rotate(*neighbours_, *server_);
  rotation_ = plan_for(*server_, force_new_rotation);
}

SyncResult SyncManager::Pass::result_for_era(const Manifest& manifest, const RotationSelection& selection) const {
  SyncResult result;
  result.era_number = manifest_integer(manifest.era_number(), "era_number");
  _apply_rotation_result_fields(result, selection);
  return result;
}

void SyncManager::Pass::begin_result() {
  result_ = result_for_era(*server_, rotation_.plan.selection);
  result_.pnl_column_count = server_->pnl_column_count();
}

bool SyncManager::Pass::download() {
  std::vector<std::string> lost;
  try {
    manager_._download_files_parallel(neighbours_, files_to_download_, result_, [&](const Error& failure) {
      const std::optional<std::string> path = _missing_found_pnl_download_path(failure, files_to_download_);
      if (path) lost.push_back(*path);
      return path.has_value();
    });
    return true;
  } catch (const Error& error) {
    // One that came back although it is excluded (a path in an unusual spelling) would come back for ever.
    if (!exclude(lost) || !_missing_found_pnl_download_path(error, files_to_download_)) throw;
    _remove_sync_progress_json(*manager_.seams_.files, data_dir_);
    return false;
  }
}

bool SyncManager::Pass::exclude(const std::vector<std::string>& lost) {
  bool any_is_new = false;
  for (const std::string& path : lost) {
    if (!manager_._missing_found_pnl.add(path)) continue;
    any_is_new = true;
    _remove_manifest_tmp_file(*manager_.seams_.files, data_dir_, Value(path));
    log_warning("Manifest signal PnL artifact is missing from storage; excluding stale membership entry and retrying sync: %s", path);
  }
  return any_is_new;
}

void SyncManager::Pass::settle_signals_index() {
  const std::set<std::string> missing = manager_._missing_found_pnl.paths();
  const auto [server_data, update] = _scrub_missing_found_pnl_paths_from_signals_index(
      *manager_.seams_.files, *manager_.seams_.clock, data_dir_, _drop_missing_found_pnl_paths(server_->data(), missing), missing);
  if (update) {
    if (const auto guard = manager_.runtime_freshness_guard.get())
      guard->record_sync_update(update->relative_path, update->kind, update->sha256);
    manager_._hash_cache.remember_if_unchanged(update->relative_path, update->local_path, update->sha256, update->landed);
  }
  if (!server_data.same_as(server_->data())) server_ = std::make_shared<Manifest>(*neighbours_, Value(server_data));
  _load_manifest_signals_index(data_dir_, *server_);
}

void SyncManager::Pass::land_documents() {
  manager_._directory_lock.require_directory();
  documents_fetched_ = manager_._download_signals_index(*neighbours_, *server_, std::nullopt, &result_);
  settle_signals_index();

  const EraConfig& era_config = neighbours_->era_config();
  result_.useful_signals_downloaded = count_groups(era_config, Value(files_to_download_), "useful_signals/");
  bool vocabulary_in_download_set = false;
  for (const Member& member : files_to_download_) {
    vocabulary_in_download_set = vocabulary_in_download_set || vocabulary_universe_of(*neighbours_, member.key);
  }
  const bool vocabulary_fetched = manager_.land_vocabularies(*neighbours_, *server_, data_dir_).fetched;
  result_.vocabulary_downloaded = vocabulary_in_download_set || vocabulary_fetched;
  result_.shuffle_seed_downloaded = manager_._download_shuffle_seed(*neighbours_, *server_);
  documents_fetched_ = documents_fetched_ || vocabulary_fetched || result_.shuffle_seed_downloaded;
  vocabularies_ = valid_vocabularies(*server_);
}

void SyncManager::Pass::commit() {
  Operation::enter_phase(phase::COMMITTING);
  manager_._directory_lock.require_directory();
  _write_manifest_json(*manager_.seams_.files, *manager_.seams_.clock, data_dir_, server_->data());
  manager_._hash_cache._persist_hash_cache();
  _remove_sync_progress_json(*manager_.seams_.files, data_dir_);
  manager_._manifest.set(server_);
  use_vocabularies();
}

void SyncManager::Pass::finish() {
  add_vocabulary_metadata(result_);
  promote_rotation(server_);
  note_stage("rotation promotion");

  const Value files = server_->files();
  const EraConfig& era_config = neighbours_->era_config();
  result_.n_features = count_features(files);
  result_.n_useful_signals = count_groups(era_config, files, "useful_signals/");
  result_.n_found_strategies = count_groups(era_config, files, "found_strategies/");
}

std::vector<std::string> SyncManager::Pass::promote_rotation(const std::shared_ptr<Manifest>& manifest) {
  Operation::enter_phase(phase::PROMOTING);
  // What the walk found a moment ago is here; downloads may have taken hours since, and then everything is looked at.
  if (!files_to_download_.empty() || documents_fetched_) seen_here_.clear();
  LocalFiles local_files(data_dir_);
  std::size_t index = 0;
  const TextList available = kept_of(rotation_.plan.selection.active_relative_paths, [&](const Text& file_path) {
    if (index % FILES_PER_INTERRUPT_CHECK == 0) check_interrupt();
    const bool seen = index < seen_here_.size() && seen_here_[index];
    ++index;
    return seen || local_files.stat(file_path);
  });
  return manager_._complete_rotation_promotion(*neighbours_, rotation_.plan.candidate_state, available, manifest, local_.get())
      .without_staging;
}

Document SyncManager::Pass::valid_vocabularies(const Manifest& manifest) {
  return _validate_manifest_vocabulary_files(*neighbours_, data_dir_, manifest);
}

void SyncManager::Pass::require_valid_seed(const Manifest& manifest) const {
  _validate_shuffle_seed_file(join_path(data_dir_, SHUFFLE_SEED_FILENAME), manifest_integer(manifest.era_number(), "era_number"));
}

void SyncManager::Pass::use_vocabularies() { manager_._vocabulary.set(std::make_shared<const Document>(vocabularies_)); }

void SyncManager::Pass::add_vocabulary_metadata(SyncResult& result) const {
  const Document metadata = _first_vocabulary_metadata(vocabularies_);
  if (const Value* value = metadata.find("t_signal_is")) result.t_signal_is = *value;
  if (const Value* value = metadata.find("t_strategy_is")) result.t_strategy_is = *value;
  if (const Value* value = metadata.find("n_instruments")) result.n_instruments = *value;
}

void SyncManager::Pass::note_stage(const char* stage) {
  const std::int64_t now_ns = manager_.seams_.clock->monotonic_ns();
  log_debug("Sync pass: %s took %.3f ms", stage, static_cast<double>(now_ns - stage_began_ns_) * 1e-6);
  stage_began_ns_ = now_ns;
}

}  // namespace brackenfen::sync

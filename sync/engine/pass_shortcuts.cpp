// The two ways in which a pass ends early, because the directory already holds what the server publishes.
#include "sync/base/error.hpp"
#include "sync/base/log.hpp"
#include "sync/base/values/convert.hpp"
#include "sync/base/values/member_cursor.hpp"
#include "sync/documents/kept_files.hpp"
#include "sync/documents/manifest_file.hpp"
#include "sync/documents/manifest_filters.hpp"
#include "sync/documents/signals_index.hpp"
#include "sync/engine/pass.hpp"
#include "sync/engine/sync_failure.hpp"
#include "sync/transport/progress.hpp"

namespace brackenfen::sync {

std::optional<SyncResult> SyncManager::Pass::end_on_version_hint(const VersionHint& hint) {
  if (!local_ || !hint.version || !hint.era) return std::nullopt;
  // A manifest that still lists what this library has retired takes the full path, so that it is rewritten.
  if (_manifest_has_agent_bundle_declarations(local_->files()) || _manifest_has_retired_found_pnl_long_files(local_->files()))
    return std::nullopt;
  std::optional<Value> version = to_integer_or_absent(local_->version());
  std::optional<Value> era = to_integer_or_absent(local_->era_number());
  if (!version || !era) version = era = Value(-1);  // one that is no number takes the other with it
  if (*version != *hint.version) return std::nullopt;
  if (*era != *hint.era) throw era_mismatch(*era, *hint.era);

  Operation::enter_phase(phase::COMPARING);
  free_bytes_ = manager_.seams_.files->free_bytes(data_dir_);
  rotation_ = plan_for(*local_, manager_._feature_rotation_should_rotate(*neighbours_, *local_));
  const RotationSelection& selection = rotation_.plan.selection;
  try {
    vocabularies_ = check_local_directory(selection);
  } catch (const Error& error) {
    if (!error.is(error_class::SyncError)) throw;
    log_warning("Manifest version matched but local metadata needs repair: %s", error.text());
    Operation::enter_phase(phase::MANIFEST);
    return std::nullopt;
  }

  use_vocabularies();
  SyncResult result = result_for_era(*local_, selection);
  const std::vector<std::string> without_staging = promote_rotation(local_);
  result.pnl_column_count = local_->pnl_column_count();
  result.n_features = count_features(local_->files());
  add_vocabulary_metadata(result);
  _cleanup_sync_tmp_files(*manager_.seams_.files, data_dir_, {}, without_staging);
  note_stage("check against the version hint");
  return result;
}

Document SyncManager::Pass::check_local_directory(const RotationSelection& selection) {
  if (!has_manifest_json(*manager_.seams_.files, data_dir_)) throw SyncError("manifest.json is missing");
  Document vocabularies = valid_vocabularies(*local_);
  require_valid_seed(*local_);
  require_active_files(selection, local_->files());
  _load_manifest_signals_index(data_dir_, *local_);
  return vocabularies;
}

void SyncManager::Pass::require_active_files(const RotationSelection& selection, const Value& files) {
  MemberCursor entries(files.if_document());
  const TextList& active_paths = selection.active_relative_paths;
  std::vector<bool> looked_at(active_paths.size(), false);
  const bool all_match = manager_.files_match(data_dir_, [&](ExpectedFiles& expected) {
    for (std::size_t index = 0; index < active_paths.size(); ++index) {
      const Text& file_path = active_paths[index];
      const Value* entry = entries.find(file_path);
      const Document* file_info = entry ? entry->if_document() : nullptr;
      if (!file_info) throw SyncError("Active rotation path is missing from manifest: " + file_path.str());
      if (is_checked_elsewhere(*neighbours_, file_path, *entry)) continue;
      expected.add(file_path, file_info);
      looked_at[index] = true;
    }
    return true;
  });
  if (!all_match) throw SyncError("Manifest version matched but local data files need repair");
  seen_here_ = std::move(looked_at);
}

std::optional<SyncResult> SyncManager::Pass::end_on_same_version() {
  const RotationSelection& selection = rotation_.plan.selection;
  const bool vocabulary_needs_repair = fails_with_sync_error([&] { vocabularies_ = valid_vocabularies(*server_); });
  const bool seed_needs_repair = fails_with_sync_error([&] { require_valid_seed(*server_); });
  if (fails_with_sync_error([&] { require_active_files(selection, server_->files()); })) {
    log_warning("Manifest version matched but local data files need repair");
    return std::nullopt;
  }

  SyncResult result = result_for_era(*server_, selection);
  if (vocabulary_needs_repair || seed_needs_repair) {
    documents_fetched_ = true;
    Operation::enter_phase(phase::DOCUMENTS);
    if (vocabulary_needs_repair) {
      static_cast<void>(manager_.land_vocabularies(*neighbours_, *server_, data_dir_));
      result.vocabulary_downloaded = true;
    }
    if (seed_needs_repair) {
      manager_._download_shuffle_seed(*neighbours_, *server_);
      result.shuffle_seed_downloaded = true;
    }
    manager_._download_signals_index(*neighbours_, *server_, std::nullopt, &result);
    if (vocabulary_needs_repair) vocabularies_ = valid_vocabularies(*server_);
    add_vocabulary_metadata(result);
  }
  settle_signals_index();  // a loss may have been found out at this very version, by the run before
  manager_._manifest.set(server_);
  use_vocabularies();
  manager_._directory_lock.require_directory();
  _write_manifest_json(*manager_.seams_.files, *manager_.seams_.clock, data_dir_, server_->data());
  const std::vector<std::string> without_staging = promote_rotation(server_);
  _cleanup_sync_tmp_files(*manager_.seams_.files, data_dir_, {}, without_staging);
  note_stage("check against the same version");
  if (vocabulary_needs_repair || seed_needs_repair) {
    const char* const mended = !seed_needs_repair        ? "vocabularies"
                               : vocabulary_needs_repair ? "vocabularies and shuffle seed"
                                                         : "shuffle seed";
    log_info("Synced era %s to version %s: mended %s in %.1f s", server_->era_number(), server_->version(), mended, seconds());
  }
  return result;
}

}  // namespace brackenfen::sync

// One transition to one era, as named steps over what the steps before found out.
//
// Nothing live is touched until the server has confirmed the era, its manifest is accepted, the rotation plan fits the
// disk, and every file stands complete in a staging directory. Then files move by rename, data before manifest.json
// and manifest.json before the rotation state, so that a death between any two steps leaves a directory that the next
// start can make sense of. A newer era that shows up while files are staged ends the transition with nothing promoted.
#pragma once

#include <memory>
#include <optional>
#include <string>
#include <utility>
#include <vector>

#include "sync/base/files/descriptor.hpp"
#include "sync/base/text/keyed_hash.hpp"
#include "sync/engine/sync_manager.hpp"
#include "sync/era/staged_moves.hpp"

namespace brackenfen::sync {

/// What marks the directory as being in transition, and what is cleaned up however the transition ends.
class SyncManager::TransitionScope {
 public:
  /// Sets _in_transition, writes .transition_lock and takes the directory lock, in this order. What the lock throws
  /// leaves the first two as they are.
  explicit TransitionScope(SyncManager& manager);
  TransitionScope(const TransitionScope&) = delete;
  TransitionScope& operator=(const TransitionScope&) = delete;
  /// An error of the release ends in the debug log: what is on its way out matters more.
  ~TransitionScope();

  /// Makes an empty staging directory of that path, whatever stood there before. Throws os_error and Interrupted.
  void make_staging_directory(const std::string& path);
  /// The final clean-up, once. An error of the lock's release leaves it, when everything is done.
  void close();

 private:
  void write_transition_lock();
  void remove_staging_directory();
  void remove_transition_lock();

  SyncManager& manager_;
  const std::string lock_path_;
  std::optional<DirectoryLock::Hold> unit_of_work_;  ///< empty once the clean-up has run
  std::string staging_dir_;                          ///< empty until it was created
  Descriptor staging_;                               ///< the directory itself, whatever its name leads to
};

/// Runs once, on one thread.
class SyncManager::Transition {
 public:
  Transition(SyncManager& manager, Value new_era_id, const SearchesFn& kill_searches_fn, const SearchesFn& restart_searches_fn);

  /// The era that overtook this one while files were staged, where one did: nothing is promoted then.
  [[nodiscard]] std::optional<Value> run();

 private:
  // The gates: transition.cpp.
  void check_library();
  /// True where a newer library is in place. With a `requirement` to name, a failed update ends the transition.
  [[nodiscard]] bool update_library(const Value& min_version, const std::string& requirement) const;
  void fetch_manifest();
  void find_whom_to_tell();
  void plan();

  // Staging: transition_staging.cpp. False where a newer era is active.
  [[nodiscard]] bool stage_files(TransitionScope& scope);
  [[nodiscard]] bool stage_file(const std::string& file_path, const Document& file_info);
  void stage_documents();
  [[nodiscard]] bool is_superseded();
  void report_retry(double wait_seconds) const;

  // Promotion and what follows it: transition_promotion.cpp.
  void prepare_promotion();
  /// What the era before leaves behind; none of the library's own files.
  void find_departed_files();
  void plan_moves();
  void promote();
  void move_staged_files();
  void delete_departed_files() const;
  void notify_neighbours();
  [[nodiscard]] std::unique_ptr<SearchTracker> open_search_tracker();
  /// The vocabularies of the new era, to running searches and to those that start now.
  void restart_searches();

  Document confirm_active_era(const Value& era_id) {
    return manager_._confirm_active_era(*neighbours_, era_id, allow_closing_confirmation_);
  }
  void set_status(const Value& status) const;

  SyncManager& manager_;
  const std::shared_ptr<NeighbourSet> neighbours_;
  const std::string data_dir_;
  const Value new_era_id_;
  const SearchesFn& kill_searches_fn_;
  const SearchesFn& restart_searches_fn_;

  Value previous_era_id_;  ///< null where no manifest was held
  bool has_real_era_advance_ = false;
  Value told_era_id_;  ///< the era that authentication and the search tracker last heard of
  bool must_tell_ = false;
  bool allow_closing_confirmation_ = false;  ///< within the era that is held, a closing one is good enough

  std::shared_ptr<Manifest> new_manifest_;
  Value manifest_era_id_;
  PlannedRotation rotation_;
  std::vector<std::pair<std::string, Document>> transition_download_items_;

  std::string transition_staging_dir_;
  SyncResult sync_result_;  ///< collects what the downloads report, for the log
  std::size_t completed_files_ = 0;
  std::vector<std::string> staged_file_paths_;
  std::vector<std::string> departed_files_;  ///< as the manifest of the era before spells them
  StringSet departed_paths_;                 ///< the same as local paths
  std::optional<StagedMoves> moves_;
  StringSet live_paths_;  ///< where the files of the new era lie, however its manifest spells them
  std::optional<Value> superseded_era_id_;
  Document staged_vocabularies_;              ///< by universe
  RotationStateRef promoted_rotation_state_;  ///< null where nothing rotates
  RotationStateRef search_scope_;             ///< what searches are told
  std::vector<SearchRefreshPayload> refresh_payloads_;
};

}  // namespace brackenfen::sync

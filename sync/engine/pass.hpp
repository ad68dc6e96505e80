// One sync pass, as named steps over what the steps before found out.
//
// A pass brings the directory up to the server's current manifest: fetch, compare, download what differs,
// commit. manifest.json is the commit record: it is written last among the files, and only after everything
// it names has landed. A failure before that leaves the old manifest.json, the old manifest in memory, the
// partial staging files and sync-progress.json; the next pass resumes.
#pragma once

#include <memory>
#include <optional>
#include <string>

#include "sync/documents/local_files.hpp"
#include "sync/engine/expected_files.hpp"
#include "sync/engine/sync_manager.hpp"

namespace brackenfen::sync {

/// Of a pass over data of another era than the server's; for the caller to throw. Fields: "local_era_number", "server_era_number".
[[nodiscard]] Error era_mismatch(const Value& local_era, const Value& server_era);

/// Runs once, on one thread, which owns the pass.
class SyncManager::Pass {
 public:
  explicit Pass(SyncManager& manager);

  /// The pass's result, or nothing where artifacts turned out to be missing from storage: they are excluded
  /// now, and a fresh pass must run.
  [[nodiscard]] std::optional<SyncResult> run();
  /// What run() would do; in place of it.
  [[nodiscard]] SyncPlan plan();
  /// The manifest that the server gave to this pass, sanitised; empty before.
  [[nodiscard]] const Document& fetched() const noexcept { return fetched_; }

 private:
  /// What the version endpoint said; absent where it said nothing usable.
  struct VersionHint {
    std::optional<Value> version;
    std::optional<Value> era;
  };

  // The plain path: pass.cpp.
  [[nodiscard]] std::optional<SyncResult> run_steps();
  [[nodiscard]] VersionHint read_version_hint();
  void fetch_manifest();
  void refuse_another_era() const;
  void plan_rotation();
  void begin_result();
  /// False where artifacts turned out to be lost, and were excluded.
  [[nodiscard]] bool download();
  /// Remembers the artifacts as lost. False where all of them were known.
  bool exclude(const std::vector<std::string>& lost);
  void land_documents();
  void commit();
  void finish();

  // The walk: pass_walk.cpp.
  /// The active paths, each with the entry by which it is kept without a further question.
  [[nodiscard]] ExpectedFiles promised_files(const Document* files, const Document* local_files) const;
  void collect_downloads();
  [[nodiscard]] bool must_download(const Text& file_path, const Document& file_info, const Value* local_entry, LocalFiles& local_files);
  /// Remembers a file that stays although the new manifest states other bytes.
  void note_kept(const Text& file_path, const Document& file_info, const Value* local_entry);
  void warn_of_kept_files() const;
  void check_disk() const;

  // The shortcuts: pass_shortcuts.cpp.
  [[nodiscard]] std::optional<SyncResult> end_on_version_hint(const VersionHint& hint);
  [[nodiscard]] std::optional<SyncResult> end_on_same_version();
  /// Throws SyncError where the directory does not hold what the local manifest promises.
  [[nodiscard]] Document check_local_directory(const RotationSelection& selection);
  /// Walks the active paths of `manifest`. Throws SyncError at the first file that is not as it must be.
  void require_active_files(const RotationSelection& selection, const Value& files);

  // The dry run: dry_run.cpp.
  /// What stages of their own fetch where it is not as the manifest says: the signals index and vocabularies.
  [[nodiscard]] std::vector<Member> documents_to_fetch();
  [[nodiscard]] std::vector<std::string> files_to_remove(bool is_transition);

  // Used by all.
  /// Takes artifacts that storage has lost out of the local index and the manifest, and applies the index.
  void settle_signals_index();
  [[nodiscard]] PlannedRotation plan_for(Manifest& manifest, bool force_new_candidate);
  [[nodiscard]] Document valid_vocabularies(const Manifest& manifest);
  void require_valid_seed(const Manifest& manifest) const;
  [[nodiscard]] SyncResult result_for_era(const Manifest& manifest, const RotationSelection& selection) const;
  /// Returns the folders in which no staging file need be looked for any more.
  std::vector<std::string> promote_rotation(const std::shared_ptr<Manifest>& manifest);
  void use_vocabularies();
  void add_vocabulary_metadata(SyncResult& result) const;
  /// Logs at debug level how long the step since the last call took.
  void note_stage(const char* stage);
  /// From the pass's beginning to the end of the last step.
  [[nodiscard]] double seconds() const { return static_cast<double>(stage_began_ns_ - began_ns_) * 1e-9; }

  SyncManager& manager_;
  const std::shared_ptr<NeighbourSet> neighbours_;
  const std::string data_dir_;
  const std::shared_ptr<Manifest> local_;  ///< the manifest committed before this pass; null for none

  Document fetched_;
  std::shared_ptr<Manifest> server_;  ///< without what storage has lost
  std::int64_t free_bytes_ = 0;       ///< taken once, before the download set is known
  bool same_version_ = false;
  PlannedRotation rotation_;
  std::vector<bool> seen_here_;  ///< for each active path, whether the walk has just found its file
  SyncResult result_;
  Document files_to_download_;
  Document vocabularies_;           ///< merged; of the manifest that is about to be committed
  bool documents_fetched_ = false;  ///< so that an outage may have been waited out since the walk
  std::vector<Text> kept_;          ///< although the new manifest states other bytes
  bool is_dry_run_ = false;
  const std::int64_t began_ns_;
  std::int64_t stage_began_ns_ = 0;
};

/// The number of entries of `files` whose kind is "feature".
[[nodiscard]] std::int64_t count_features(const Value& files);

}  // namespace brackenfen::sync

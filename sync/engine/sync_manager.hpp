// SyncManager: the one object through which a process reaches one data directory.
//
// This header is the map; each section names the file that holds it.
//
// Threads. Public operations run on any thread of the host; the manager's own share in it, so that a running manager
// lives on when the host drops it:
//   _sync_thread                 _poll_loop, from start or acquire to stop         lifecycle/poll_loop.cpp
//   _era_thread                  EraThread::_run, from acquire to stop             era/era_thread.hpp
//   _cleanup_thread              removes old eras, at most one                     era/old_era_cleanup.hpp
//   repair threads               one per report_corruption, at work in turn        lifecycle/poll_loop.cpp
//   download workers             for one set of files; they write nothing of the manager but the hash cache
// Their callbacks of the host may call any operation; one that would wait for the work it is part of throws
// WouldWaitForItself, or skips the wait where it stops the manager.
//
// Locks, in the order in which they may be taken:
//   _class_lock, the registry's  held across a construction and a stopping release registry.cpp
//   _consumer_lock               the count, and decisions to start and stop        lifecycle/consumers.cpp
//   _sync_lock                   one pass at a time in a process                   sync_driver.cpp
//   DirectoryLock (_flock_lock)  one unit of work at a time between processes      lifecycle/directory_lock.hpp
//   leaf locks                   inside the components and snapshots below; nothing is taken, logged or
//                                called under one
// A stop passes through _sync_lock and DirectoryLock one after the other, holding neither. repair takes DirectoryLock
// alone.
//
// Each operation looks the neighbouring modules up once: what it calls takes the NeighbourSet along.
#pragma once

#include <atomic>
#include <cstdint>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <string>
#include <string_view>
#include <vector>

#include "sync/base/threads/background_thread.hpp"
#include "sync/base/threads/event.hpp"
#include "sync/base/threads/mutex.hpp"
#include "sync/base/threads/snapshot.hpp"
#include "sync/base/values/value.hpp"
#include "sync/documents/manifest.hpp"
#include "sync/engine/hash_cache.hpp"
#include "sync/engine/missing_found_pnl.hpp"
#include "sync/engine/results.hpp"
#include "sync/era/era_thread.hpp"
#include "sync/era/old_era_cleanup.hpp"
#include "sync/lifecycle/directory_lock.hpp"
#include "sync/lifecycle/era_callbacks.hpp"
#include "sync/lifecycle/repair_queue.hpp"
#include "sync/lifecycle/request_coalescing.hpp"
#include "sync/rotation/planning.hpp"
#include "sync/rotation/prefetched_features.hpp"
#include "sync/rotation/search_consumers.hpp"
#include "sync/rotation/state_changes.hpp"
#include "sync/transport/http.hpp"
#include "sync/transport/own_process.hpp"
#include "sync/transport/seams.hpp"
#include "sync/transport/token_source.hpp"

namespace brackenfen::sync {

class ExpectedFiles;
class LocalFiles;
class ParsedFile;

inline constexpr double SYNC_MANIFEST_POLL_INTERVAL_SECONDS = 5.0;
inline constexpr int SYNC_MANIFEST_SUPERSEDE_RESTART_LIMIT = 3;

/// Bars requests from every process while it exists.
inline constexpr const char* TRANSITION_LOCK_FILENAME = ".transition_lock";

/// Called with the wait in seconds before each back-off of a download.
using RetryStatusCallback = std::function<void(double wait_seconds)>;

/// Told of each failed file of a download set but a superseded one, on the calling thread; whether the caller can do
/// without it.
using DownloadFailureFn = std::function<bool(const Error& failure)>;

/// Held by shared_ptr only: the workers of a download set share in it, and may outlive the operation that started
/// them. Operations throw Interrupted besides what they name, and StateError in a child of fork().
class SyncManager : public std::enable_shared_from_this<SyncManager> {
 public:
  struct Options {
    std::string data_dir;
    std::string server_url;
    std::shared_ptr<TokenSource> get_token;  ///< null counts as something that cannot be called
    double poll_interval_s = SYNC_MANIFEST_POLL_INTERVAL_SECONDS;
    std::shared_ptr<RuntimeFreshnessGuard> runtime_freshness_guard;
    Seams seams = Seams::real();
  };

  // ---- registry and construction: registry.cpp, construction.cpp -------------------------------------

  /// The process's one instance for the canonical form of `data_dir`. An existing one takes over the new
  /// token source, and the new guard where there is one. Throws ValueError where it has another server URL,
  /// and what the constructor throws.
  [[nodiscard]] static std::shared_ptr<SyncManager> get_or_create(Options options);
  /// Removes the directory's registry entry, if any.
  static void _evict(const std::string& data_dir);
  /// The live instances by canonical directory.
  [[nodiscard]] static std::map<std::string, std::shared_ptr<SyncManager>> _instances();

  /// Restores hash cache, consumer count, rotation state and manifest from the directory. No network request.
  /// Throws TypeError for a token source that cannot be called, ValueError for an empty or unacceptable
  /// server URL, FileNotFoundError for a missing directory, FeatureRotationStateError for a state file that is damaged.
  explicit SyncManager(Options options);
  SyncManager(const SyncManager&) = delete;
  SyncManager& operator=(const SyncManager&) = delete;
  ~SyncManager();

  [[nodiscard]] std::shared_ptr<Manifest> get_manifest() const { return _manifest.get(); }
  /// Human-readable status, or null.
  [[nodiscard]] Value status() const;

  // ---- what others can see: observation.cpp -----------------------------------------------------------
  // Neither asks the network or a disk, nor waits for any work. Both are of nothing in a child of fork().

  /// What runs; absent where nothing does, and for a poll that only looks whether there is something to do.
  [[nodiscard]] std::optional<Progress> progress() const;
  [[nodiscard]] Health health() const;
  /// Whether a stop also ends the back-off waits of poll, era, clean-up and repair threads, and so what they were doing. They
  /// end as by an interrupt: nothing of it is logged as a failure.
  [[nodiscard]] bool stop_ends_waits() const noexcept { return activity_->stop_ends_waits; }
  void set_stop_ends_waits(bool ends) noexcept { activity_->stop_ends_waits = ends; }

  // ---- requests: requests.cpp ------------------------------------------------------------------------

  /// GET with a fresh token; see brackenfen::sync::_http_get.
  [[nodiscard]] HttpResult _http_get(NeighbourSet& neighbours, const std::string& url, std::int64_t range_start = 0,
                                     std::int64_t range_end = -1);
  /// GET without credentials, for public artifacts.
  [[nodiscard]] HttpResult _http_get_public(NeighbourSet& neighbours, const std::string& url, std::int64_t range_start = 0,
                                            std::int64_t range_end = -1);
  /// What a request begins with, its fresh token. Throws TypeError where there is no source, and what the source throws.
  [[nodiscard]] RequestStart start_request() const;

  // ---- the pass: sync_driver.cpp, pass.hpp, dry_run.cpp ----------------------------------------------

  /// A full sync: manifest, compare, download, verify, commit. Takes the locks of a pass and keeps them while an
  /// outage is waited out. Throws AuthError, SyncError and its subclasses (SyncUnavailableError where the server says
  /// that retrying cannot help), SyncBackoffCancelled, os_error of local files, and what the token source or the guard
  /// throws; what has landed stays.
  [[nodiscard]] SyncResult sync();
  /// Runs passes until one is not superseded, at most SYNC_MANIFEST_SUPERSEDE_RESTART_LIMIT. The caller
  /// holds the directory lock.
  [[nodiscard]] SyncResult _sync_with_manifest_refresh();
  /// What sync() would do, with one request for the manifest and without a change on disk; of another era than the
  /// directory's, what its transition would do. Reads files that the hash cache does not know. Waits for a pass of this
  /// process, and takes no lock between processes. Throws what a pass does before it downloads, DiskSpaceError but for the
  /// download set included.
  [[nodiscard]] SyncPlan plan();
  /// One pass. The caller holds _sync_lock or otherwise owns the pass.
  [[nodiscard]] SyncResult _sync_impl();

  // ---- downloads: file_download.cpp, parallel_download.cpp, supersede.cpp ----------------------------

  struct DownloadOptions {
    RetryStatusCallback retry_status_callback;
    std::optional<std::string> target_data_dir;  ///< absent: the live directory
    std::string backoff_surface = "file_download";
    bool retry_partial_transfer = true;
    bool retry_checksum_mismatch = true;
    /// Whether the operation that asked for the file has ended without waiting for it: the download may then finish
    /// the staging file that it has, and begin no other. Empty: never.
    std::function<bool()> is_abandoned = {};
    LocalFiles* local_files = nullptr;                   ///< of the target directory, as the caller opened it; null: opened for this file
    std::optional<BackoffContext> backoff_context = {};  ///< of its waits; absent: the one that the thread has
    HttpConnections* connections = nullptr;              ///< of the thread, kept from file to file; null: each request has its own
  };
  /// Brings one manifest file to its local path: streamed into "{local path}.tmp" under a running digest,
  /// resumed by Range, moved into place. A failure that may pass is waited out, without limit. `result` must be
  /// private to the caller. Throws ManifestSupersededError, PermanentDownloadError, IntegrityError, AuthError,
  /// ManifestError for a refused path, SyncBackoffCancelled and os_error (FileNotFoundError where another download took the
  /// staging file); a partial staging file stays for the next try.
  void _download_file(NeighbourSet& neighbours, const std::string& file_path, const Document& file_info, SyncResult& result,
                      const DownloadOptions& options);
  void _download_file(NeighbourSet& neighbours, const std::string& file_path, const Document& file_info, SyncResult& result) {
    _download_file(neighbours, file_path, file_info, result, DownloadOptions{});
  }
  /// Fetches independent files at once. The first error is thrown when the others have finished (with one worker at once,
  /// unless the failure is tolerated); ManifestSupersededError ends the batch at once.
  void _download_files_parallel(const std::shared_ptr<NeighbourSet>& neighbours, const Document& files_to_download, SyncResult& result,
                                const DownloadFailureFn& tolerates = {});

  /// One bounded request without retries, or absent where the network failed. Throws ValueError for a refused URL.
  [[nodiscard]] std::optional<HttpResult> _manifest_version_probe_once(NeighbourSet& neighbours, const std::string& url);
  /// Whether the server has moved past the generation that `file_info` was stamped with; false where that cannot be
  /// told. Throws AuthError.
  [[nodiscard]] bool _download_manifest_superseded(NeighbourSet& neighbours, const Document& file_info);

  // ---- documents of an era: signals_index_download.cpp, vocabulary_download.cpp, shuffle_seed_download.cpp,
  //      manifest_entry_repair.cpp ----------------------------------------------------------------------
  // Each is validated for the era of the manifest given before it replaces what is on disk, or removed again.
  // `target_data_dir` absent: the live directory. They run on the thread that owns the pass, repair or
  // transition, and throw what the requests and downloads throw besides SyncError, EraError, ManifestError (the
  // index), IntegrityError (a vocabulary whose digest is not the stated one) and os_error.

  /// True if the index was fetched. The sections of `server_manifest` are set then, as they are where the local
  /// index will do; its entry takes size and digest of the bytes that came. Counts its bytes in `result`, if given.
  bool _download_signals_index(NeighbourSet& neighbours, Manifest& server_manifest,
                               const std::optional<std::string>& target_data_dir = std::nullopt, SyncResult* result = nullptr);
  /// True if any vocabulary was fetched. Without a target, _vocabulary is then what lies in the files.
  bool _download_vocabulary(NeighbourSet& neighbours, Manifest& server_manifest,
                            const std::optional<std::string>& target_data_dir = std::nullopt);
  /// Fetches one vocabulary anew, exactly as `file_info` states it; false for any other path. Throws
  /// AttributeError where no manifest is committed.
  bool _download_validated_vocabulary_repair(NeighbourSet& neighbours, const std::string& file_path, const Document& file_info,
                                             SyncResult& result);
  /// True if the seed was fetched. A body of another size is waited out, without limit.
  bool _download_shuffle_seed(NeighbourSet& neighbours, const Manifest& server_manifest,
                              const std::optional<std::string>& target_data_dir = std::nullopt);
  /// Sets size and digest of an entry to those of validated bytes. Throws IntegrityError where the entry states
  /// another digest, unless that is allowed.
  void _repair_vocabulary_manifest_entry(Manifest& server_manifest, const std::string& file_path, std::string_view body,
                                         const std::optional<std::string>& reason = std::nullopt, bool allow_sha_mismatch = false);
  /// The same for the index, of which any digest is accepted.
  void _repair_signals_index_manifest_entry(Manifest& server_manifest, const std::string& file_path, std::string_view body,
                                            const std::optional<std::string>& reason = std::nullopt);

  // ---- local integrity: local_integrity.cpp ----------------------------------------------------------

  /// Whether size and digest are those of the entry. A file that is not there does not match; one that cannot be
  /// read throws os_error.
  [[nodiscard]] bool _local_file_matches_manifest(const std::string& file_path, const std::string& local_path, const Document& file_info,
                                                  bool cache_allowed = true);
  /// Whether every file that must be here is here and matches.
  [[nodiscard]] bool _local_manifest_files_complete(NeighbourSet& neighbours, Manifest& manifest,
                                                    const RotationState* active_rotation_state = nullptr);
  [[nodiscard]] HashCache& hash_cache() noexcept { return _hash_cache; }

  // ---- verify and repair: verify.cpp, repair.cpp, needs_sync.cpp --------------------------------------

  /// Reads every active file and compares size and digest with the manifest; without a manifest all is valid. Takes no
  /// lock. Throws os_error for a file that cannot be read, ManifestError for a refused path.
  [[nodiscard]] VerifyResult verify();
  /// Fetches the named files anew, whatever lies there; paths that the manifest lacks are ignored. Where the manifest
  /// turns out to be superseded, a full sync runs instead. Takes the directory lock; the caller does not hold _sync_lock.
  /// Throws what _download_file and the sync throw, ManifestSupersededError of the latter included.
  [[nodiscard]] SyncResult repair(const std::vector<std::string>& corrupted_files);
  /// _download_file into a record of its own, unless the file is excluded here. Takes no lock: callers serialise.
  [[nodiscard]] SyncResult ensure_manifest_file_available(const std::string& file_path, const Document& file_info);
  /// Whether a pass would find something to do; true where that cannot be told. Throws SyncUnavailableError, and
  /// JSONDecodeError, UnicodeDecodeError or AttributeError for an answer that is no JSON object.
  [[nodiscard]] bool needs_sync();

  // ---- consumers: lifecycle/consumers.cpp, lifecycle/poll_loop.cpp; release: registry.cpp --------------

  /// One more consumer; the first starts the poll thread and the era thread, whatever count the directory held.
  /// Throws what starting throws; the count stays increased then, and the next call starts again. `host_handle` is what
  /// the host knows the manager by: the poll thread keeps it alive, and lets go of it at its end.
  void acquire(std::shared_ptr<const void> host_handle = {});
  /// One consumer less; with the last one, waits for running work, stops the threads and leaves the registry. Does
  /// nothing without consumers. A transition is waited for 10 seconds, and left to itself then, with what waits for it.
  /// Interrupted, and what a log raises, are thrown when all that is done; an interrupt ends the waits.
  void release();
  [[nodiscard]] std::int64_t consumer_count() const noexcept { return _consumer_count.load(); }
  /// The poll thread alone. Throws StateError where it runs.
  void start(std::shared_ptr<const void> host_handle = {});
  /// Waits for running work and stops the threads, whoever started them. Does nothing where none runs. Interrupted as
  /// with release.
  void stop();
  /// Whether the poll thread lives.
  [[nodiscard]] bool is_alive() const;
  /// Never fails: a directory that cannot be written to does not stop the lifecycle.
  void _persist_consumer_count();
  void _start_sync_thread(std::shared_ptr<const void> host_handle = {});
  void _start_internal(std::shared_ptr<const void> host_handle = {});
  void _stop_internal();
  /// Until _stop_event is set: a round, then a pause of _poll_interval.
  void _poll_loop();
  /// Repairs what was reported, then syncs if there is something new and no pass is under way. Throws what the repair
  /// throws; a failed sync is a warning.
  void _poll_once();
  /// Tells the era callbacks to stop or restart the searches, for the era of the manifest.
  void _kill_fn() { notify_of_current_era("kill"); }
  void _restart_fn() { notify_of_current_era("restart"); }

  // ---- requests of host processes: lifecycle/host_requests.cpp -----------------------------------------

  /// Syncs now, or joins the request that is running, and answers the found PnL files as absolute paths, newest first:
  /// those that this sync brought, else all. Throws StateError in a transition, of whichever process, and where the
  /// manager does not run; what the sync throws; AttributeError where two requests began at once and the other's end
  /// came first.
  [[nodiscard]] std::vector<std::string> request_for_sync();
  /// The found PnL files of the manifest that exist, as above. Throws ManifestError.
  [[nodiscard]] std::vector<std::string> _get_found_file_paths();
  /// Queues a repair and starts a thread for it. Throws StateError where the manager does not run, ValueError for a path
  /// that the manifest lacks.
  void report_corruption(const std::string& file_path);
  void _process_repair_queue();

  [[nodiscard]] EraCallbacks& era_callbacks() noexcept { return _era_callbacks; }
  [[nodiscard]] RequestCoalescing& request_coalescing() noexcept { return _request_coalescing; }

  // ---- between processes: lifecycle/directory_lock.cpp -----------------------------------------------

  void _acquire_flock() { _directory_lock._acquire_flock(); }
  void _release_flock() { _directory_lock._release_flock(); }

  // ---- eras: era/ ------------------------------------------------------------------------------------

  /// Moves the directory to the era `new_era_id`, an integer, and on to every newer one that overtakes it: searches
  /// are stopped, everything is staged and validated, files move, searches are told and restarted. Both callables may
  /// be empty. Throws EraError where the server does not confirm the era, the neighbour's LibraryUpdateRequired,
  /// SyncError and its subclasses, os_error, and what the callables throw; searches then stay stopped.
  void trigger_era_transition(const Value& new_era_id, const SearchesFn& kill_searches_fn = {}, const SearchesFn& restart_searches_fn = {});

  /// The era from which a watcher starts: that of the manifest, or the one before where a transition, of whichever process, did
  /// not come to its end and is to be run again. Absent without a manifest.
  [[nodiscard]] std::optional<Value> era_to_watch_from() const;
  struct ActiveEra {
    Value era_number;       ///< an integer
    Document era_manifest;  ///< the normalised answer
  };
  /// Asks which era is active. Throws EraError where the server names none, or its state is neither "active" nor,
  /// with `allow_closing`, "closing".
  [[nodiscard]] ActiveEra _fetch_active_era_for_transition(NeighbourSet& neighbours, bool allow_closing = false);
  /// The same, and throws EraError where it is another era than the expected one.
  Document _confirm_active_era(NeighbourSet& neighbours, const Value& expected_era_id, bool allow_closing = false);
  /// The active era where it is a later one. Throws EraError where it is an earlier one.
  [[nodiscard]] std::optional<Value> _check_transition_superseded(NeighbourSet& neighbours, const Value& expected_era_id,
                                                                  bool allow_closing = false);

  /// Removes the era directories but the current one's; with `keep_current` false all data. Returns the bytes freed;
  /// throws os_error with what was removed gone.
  std::int64_t cleanup_old_eras(bool keep_current = true);
  /// The same on a thread of its own, unless one runs already.
  void _schedule_cleanup_old_eras(bool keep_current);
  void _cleanup_old_eras_background(bool keep_current);
  /// The last clean-up thread; null before the first.
  [[nodiscard]] std::shared_ptr<BackgroundThread> _cleanup_thread() const { return _old_era_cleanup._cleanup_thread(); }

  // ---- the rotation of features: rotation/planning.cpp, rotation/promotion.cpp, rotation/active_state.cpp

  struct RotationSettingsForManifest {
    LoadedRotationSettings settings;
    ArtifactRotationSettings rotation_settings;
  };
  [[nodiscard]] RotationSettingsForManifest _feature_rotation_settings_for_manifest(NeighbourSet& neighbours, Manifest& manifest,
                                                                                    std::int64_t free_disk_bytes);
  /// Whether a pass that finds the version unchanged must make a new candidate.
  [[nodiscard]] bool _feature_rotation_should_rotate(NeighbourSet& neighbours, Manifest& manifest);
  /// Whether the rotation alone calls for a pass.
  [[nodiscard]] bool _feature_rotation_needs_sync_for_manifest(NeighbourSet& neighbours, Manifest& manifest);
  struct PlannedRotation {
    RotationPlan plan;
    bool explicit_rotation_budget = false;
  };
  /// Throws SyncError for an active state of which no plan can be made, and what settings and planner throw.
  [[nodiscard]] PlannedRotation _plan_feature_rotation_for_manifest(NeighbourSet& neighbours, Manifest& manifest,
                                                                    std::int64_t free_disk_bytes, bool force_new_candidate = true);
  /// Throws MandatoryArtifactsTooLargeError where mandatory files need more than half of the free space, DiskSpaceError
  /// where the selection does not fit. `enforce_default_cap` changes nothing.
  void _precheck_rotation_disk_budget(NeighbourSet& neighbours, const RotationSelection& selection, std::int64_t free_disk_bytes,
                                      bool enforce_default_cap = true);

  RotationStateRef _promote_rotation_candidate(NeighbourSet& neighbours, const RotationStateRef& candidate_state,
                                               const TextList& available_relative_paths);
  /// A state that is active already is not written; one that only lists other paths for the same rotation leaves the time
  /// of the file as it was. With it goes what was added since the running pass made its plan.
  void _write_promoted_rotation_state(NeighbourSet& neighbours, const RotationStateRef& promoted);
  /// Takes retired paths out of the active state, which it returns.
  RotationStateRef _normalize_active_rotation_state_for_manifest(NeighbourSet& neighbours, const Manifest& manifest);
  struct Promotion {
    RotationStateRef state;                    ///< null without a candidate
    std::vector<std::string> without_staging;  ///< folders that the clean-up has just found to hold no staging file
  };
  /// Makes the candidate the active state as far as its files are available, deletes what no longer belongs here and tells
  /// the running searches. An error of the vocabulary comes before anything is written; later ones find the state kept.
  /// Without a candidate, where nothing rotates, only the clean-up runs.
  /// `before` is the manifest that was committed before, null for none: what it listed is the library's own too.
  Promotion _complete_rotation_promotion(NeighbourSet& neighbours, const RotationStateRef& candidate_state,
                                         const TextList& available_relative_paths, const std::shared_ptr<Manifest>& manifest,
                                         const Manifest* before = nullptr);
  /// Logs how many files it deleted that the library had not put there. Returns what delete_files_not_kept does.
  std::vector<std::string> _cleanup_inactive_rotation_artifacts(NeighbourSet& neighbours, const Manifest& manifest,
                                                                const TextList& active_relative_paths, const Manifest* before = nullptr);
  /// Adds to the active paths of the state on disk and returns all of them; empty where there is no state. Waits for the
  /// directory lock, unless the caller is part of the work that holds it: a pass that has its plan keeps what a callback
  /// of its own adds. Throws FeatureRotationStateError and os_error.
  TextList add_active_feature_paths(const std::vector<Text>& relative_paths);

  void register_rotation_search_consumer(SearchConsumerRef consumer) {
    _rotation_search_consumers.register_rotation_search_consumer(std::move(consumer));
  }
  void unregister_rotation_search_consumer(const RotationSearchConsumer& consumer) {
    _rotation_search_consumers.unregister_rotation_search_consumer(consumer);
  }
  [[nodiscard]] std::vector<SearchConsumerRef> _rotation_search_consumer_snapshot() const { return _rotation_search_consumers.snapshot(); }
  /// What each search is to be told; `vocabulary` is looked at only where one is. Null and absent stand for the manager's
  /// own manifest and searches.
  [[nodiscard]] std::vector<SearchRefreshPayload> _rotation_search_refresh_payloads(
      NeighbourSet& neighbours, const RotationStateRef& rotation_state, const Value& vocabulary,
      const std::shared_ptr<Manifest>& manifest = nullptr, const std::optional<std::vector<SearchConsumerRef>>& consumers = std::nullopt);
  /// Tells the running searches now. Throws VocabularyScopeError, and what the first failing search throws.
  void refresh_running_searches_for_rotation(const RotationStateRef& rotation_state, const Value& vocabulary,
                                             const std::shared_ptr<Manifest>& manifest = nullptr);

  // ---- features on demand: rotation/on_demand.cpp ----------------------------------------------------

  /// Fetches the named features and their companions, keeps them for the era, and returns their local paths. Names that the
  /// manifest lacks give none. Takes the locks of a pass. Throws DiskSpaceError, and what downloads and passes throw.
  [[nodiscard]] std::vector<std::string> fetch_features(const std::vector<Value>& feature_names, const Value& expression_type = "SIGNAL",
                                                        const Value& named_universe = {});
  /// The same for a running manager: throws StateError in a transition and where the manager does not run, and lets a sync
  /// that a host asked for go first.
  [[nodiscard]] std::vector<std::string> request_feature_files_for_sync(const std::vector<Value>& feature_names,
                                                                        const Value& expression_type = "SIGNAL",
                                                                        const Value& named_universe = {});
  /// The caller holds the locks of a pass.
  [[nodiscard]] std::vector<std::string> _request_feature_files_for_sync_impl(const std::vector<std::string>& feature_names,
                                                                              const Value& expression_type = "SIGNAL",
                                                                              const Value& named_universe = {});
  [[nodiscard]] PrefetchedFeatures& prefetched_features() noexcept { return _prefetched_features; }
  [[nodiscard]] SearchConsumers& rotation_search_consumers() noexcept { return _rotation_search_consumers; }

  // ---- fields, for the boundary and for tests --------------------------------------------------------

  // A host may assign any of them; each has its own leaf lock.

  Guarded<std::string> _data_dir;
  Guarded<std::string> _server_url;
  Guarded<double> _poll_interval;
  Guarded<std::string> _consumer_count_path;
  Guarded<std::string> _flock_path;
  Snapshot<TokenSource> _get_token;
  Snapshot<RuntimeFreshnessGuard> runtime_freshness_guard;
  Snapshot<Manifest> _manifest;                          ///< null before the first commit
  Snapshot<const RotationState> _active_rotation_state;  ///< null where none is persisted
  /// By universe, merged with the catalogue: what the files of _manifest said when it was committed, or they were repaired.
  /// Null until they were validated. _download_vocabulary and _download_validated_vocabulary_repair, called alone, leave
  /// what they brought.
  Snapshot<const Document> _vocabulary;
  Snapshot<const Value> _status_message;
  MissingFoundPnl _missing_found_pnl;

  std::atomic<std::int64_t> _consumer_count{0};
  std::atomic<bool> _running{false};
  std::atomic<bool> _consumer_lifecycle_started{false};
  std::atomic<bool> _in_transition{false};
  RepairQueue _repair_queue;

  Snapshot<BackgroundThread> _sync_thread;  ///< null where the manager does not run
  Snapshot<EraThread> _era_thread;

  /// They throw StateError in a child of fork() that comes back into work of this object.
  [[nodiscard]] const Seams& seams() const noexcept { return seams_; }

 private:
  class Pass;        // one pass as named steps: pass.hpp
  class Transition;  // one transition as named steps: era/transition.hpp
  class TransitionScope;

  void restore_consumer_count();
  /// What the directory holds of an earlier life, read side by side.
  struct StoredDocuments;
  void restore_manifest(NeighbourSet& neighbours, const ParsedFile& stored);
  void restore_vocabulary(NeighbourSet& neighbours);
  [[nodiscard]] std::string directory_or_live(const std::optional<std::string>& target_data_dir) const;
  /// _download_vocabulary but for _vocabulary: the documents by universe, as they lie in the files.
  struct LandedVocabularies {
    Document by_universe;
    bool fetched = false;
  };
  [[nodiscard]] LandedVocabularies land_vocabularies(NeighbourSet& neighbours, Manifest& server_manifest, const std::string& data_dir);
  /// _download_validated_vocabulary_repair but for _vocabulary: the document under its universe.
  [[nodiscard]] std::optional<Member> replace_vocabulary(NeighbourSet& neighbours, const std::string& file_path, const Document& file_info,
                                                         SyncResult& result);
  [[nodiscard]] std::string fetch_signals_index(NeighbourSet& neighbours, const std::string& file_path, const Value& base_url);
  [[nodiscard]] std::string fetch_shuffle_seed(NeighbourSet& neighbours, const Value& expected_era_id);
  /// Throws StateError in a child process that inherited this object by fork().
  void require_own_process() const { own_process_.require(); }
  [[nodiscard]] bool in_own_process() const noexcept { return own_process_.is_here(); }

  void notify_of_current_era(std::string_view event_type);
  /// Repairs what was reported, or leaves it to the thread that is at it already.
  void repair_in_turn();
  /// A failure is a warning.
  void repair_reported(const std::vector<std::string>& reported);
  /// Throws InsideOwnWork on a thread that is part of a pass, or of another unit of work on this directory.
  void require_outside_own_pass();

  /// The era that authentication and the search tracker last heard of, where that is another one than `era_number`, in which
  /// the data are; null for none.
  [[nodiscard]] std::optional<Value> era_told_before(const Value& era_number) const;
  void start_era_thread();
  void stop_era_thread(Patience patience);
  /// As stopped, but for the poll thread itself, which ends by itself where it runs.
  void abandon_sync_thread();
  void poll_until(const std::function<bool()>& ended);

  /// The public operations within what they show of themselves.
  [[nodiscard]] bool something_to_do();
  void transit(const Value& new_era_id, const SearchesFn& kill_searches_fn, const SearchesFn& restart_searches_fn);
  [[nodiscard]] VerifyResult audit();
  /// repair() once the directory lock is held.
  [[nodiscard]] SyncResult repair_files(const std::vector<std::string>& corrupted_files);
  /// True where the file has a part in _vocabulary.
  bool repair_file(NeighbourSet& neighbours, const Manifest& manifest, const std::string& file_path, SyncResult& result);

  /// _local_file_matches_manifest for a caller with the stat in hand; `local_path` is asked for only where the file must
  /// be read.
  [[nodiscard]] bool file_matches(std::string_view file_path, const FileStat& stat, const std::function<std::string()>& local_path,
                                  const Document& file_info, bool cache_allowed);
  /// Whether `collect` answers true and every file that it added is here and matches. Files are looked at on all cores;
  /// answer and error are those of a loop that looks at each file where `collect` adds it.
  [[nodiscard]] bool files_match(const std::string& data_dir, const std::function<bool(ExpectedFiles&)>& collect);

  const OwnProcess own_process_;
  const Seams& seams_ = own_process_.seams();
  const std::shared_ptr<Activity> activity_ = std::make_shared<Activity>(*seams_.clock);

  [[nodiscard]] LoadedRotationSettings load_rotation_settings(NeighbourSet& neighbours, Manifest& manifest);
  [[nodiscard]] bool rotation_is_due(NeighbourSet& neighbours, const LoadedRotationSettings& settings, const RotationStateRef& active);
  /// _plan_feature_rotation_for_manifest of the active state as it is, which may list retired paths. Writes nothing.
  [[nodiscard]] PlannedRotation plan_rotation(NeighbourSet& neighbours, Manifest& manifest, std::int64_t free_disk_bytes,
                                              bool force_new_candidate, const RotationStateRef& active);
  /// What the clean-up leaves below the folders of artifacts, given what was fetched on demand in the manifest's era.
  [[nodiscard]] TextSet paths_to_keep(NeighbourSet& neighbours, const Manifest& manifest, const TextList& active_relative_paths,
                                      const std::vector<std::string>& prefetched);
  /// Whether the file is here as far as size, hash cache and the local manifest's promise tell; null for no such manifest.
  [[nodiscard]] bool is_present(LocalFiles& local_files, const Manifest* local, const Text& path, std::int64_t size_bytes,
                                const Value& sha256);
  /// The entry with the base URL, version and era of its manifest, by which a download notices a newer one.
  [[nodiscard]] static Document generation_stamped(const Document& file_info, const Manifest& manifest);

  /// For the constructor. Throws FeatureRotationStateError.
  void load_active_rotation_state(NeighbourSet& neighbours, const ParsedFile& stored, const std::optional<FileStat>& found);
  /// Takes the state on disk for the active one where another process with this directory has stored it since, for a later
  /// rotation or for the same one: its files are here. Under the directory lock.
  void adopt_stored_rotation(NeighbourSet& neighbours);
  /// The file first, so that a failed write leaves memory on the old state; its time stays where `previous` is of the same
  /// rotation. False, with nothing written, where there were other changes than `changes`.
  [[nodiscard]] bool commit_rotation_state(NeighbourSet& neighbours, std::uint64_t changes, const RotationStateRef& previous,
                                           const RotationStateRef& next, const std::vector<Text>& added = {});
  /// The state with the paths that were added since the running pass made its plan.
  [[nodiscard]] RotationStateRef with_added_paths(const RotationStateRef& state) const;
  /// _write_promoted_rotation_state with these paths; what is active then.
  RotationStateRef store_rotation_state(NeighbourSet& neighbours, const RotationStateRef& promoted);

  std::atomic<bool> transition_has_directory_{false};  ///< from the lock of a transition to its release
  /// What .told_era says, for as long as this process has not told: another one that comes to its end takes the file along.
  Guarded<std::optional<Value>> told_era_;
  Guarded<Value> planned_seed_;  ///< kept until a state stores it, so that a pass which failed selects the same again
  Guarded<std::optional<FileStat>> rotation_state_seen_;  ///< the state file as it was last read or written here
  StateChanges rotation_state_changes_;
  HashCache _hash_cache;
  PrefetchedFeatures _prefetched_features;
  SearchConsumers _rotation_search_consumers;
  DirectoryLock _directory_lock;
  EraCallbacks _era_callbacks;
  RequestCoalescing _request_coalescing;
  WorkMutex _consumer_lock;
  RepairTurns repair_turns_;
  OldEraCleanup _old_era_cleanup;
  WorkMutex _sync_lock;  ///< one pass at a time; taken before the directory lock
  Event _stop_event;     ///< ends the poll loop and its pauses, and nothing else
};

}  // namespace brackenfen::sync

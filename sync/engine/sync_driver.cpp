// Running passes: the locks around one, and how often one that became stale is run again.
#include "sync/base/error.hpp"
#include "sync/base/log.hpp"
#include "sync/base/threads/interrupt.hpp"
#include "sync/engine/pass.hpp"
#include "sync/transport/backoff.hpp"

namespace brackenfen::sync {
namespace {

/// Restarts of a superseded pass. Excluded artifacts start a count of their own on top of the one below; a count that
/// reaches the limit goes and counts as one restart of the level below.
class RestartCounts {
 public:
  /// The pass excluded artifacts of the manifest that it fetched. Throws ManifestSupersededError where that is another one
  /// than at the exclusion before: what was excluded then is forgotten, and no end would be in sight.
  void exclude(const Document& fetched) {
    const bool moved_on = excluded_from_ && !(*excluded_from_ == fetched);
    excluded_from_ = fetched;
    if (!moved_on) return levels_.push_back(0);
    levels_.resize(1);
    throw ManifestSupersededError("Manifest advanced while lost artifacts were excluded; refreshing before retry");
  }

  /// False where no restart is left anywhere.
  [[nodiscard]] bool restart(const Error& superseded) {
    while (!levels_.empty()) {
      const int restarts = ++levels_.back();
      log_warning("Manifest changed during sync; refreshing manifest and restarting download set (%d/%d): %s", restarts,
                  SYNC_MANIFEST_SUPERSEDE_RESTART_LIMIT, superseded.text());
      if (restarts < SYNC_MANIFEST_SUPERSEDE_RESTART_LIMIT) return true;
      levels_.pop_back();
    }
    return false;
  }

 private:
  std::vector<int> levels_{0};
  std::optional<Document> excluded_from_;
};

}  // namespace

void SyncManager::require_outside_own_pass() {
  if (_directory_lock.held_by_this_work() || _sync_lock.held_by_this_work()) throw InsideOwnWork();
}

SyncResult SyncManager::sync() {
  require_own_process();
  require_outside_own_pass();
  return run_operation(activity_, operation::SYNC, phase::WAITING, [this] {
    WorkLock one_pass(_sync_lock);
    DirectoryLock::Hold unit_of_work(_directory_lock);
    SyncResult result = _sync_with_manifest_refresh();
    unit_of_work.release();
    return result;
  });
}

SyncResult SyncManager::_sync_with_manifest_refresh() {
  require_own_process();
  return run_operation(activity_, operation::SYNC, phase::MANIFEST, [this] {
    RestartCounts restarts;
    while (true) {
      try {
        Pass pass(*this);
        if (auto result = pass.run()) return *std::move(result);
        restarts.exclude(pass.fetched());
      } catch (const Error& error) {
        if (!error.is(error_class::ManifestSupersededError) || !restarts.restart(error)) throw;
      }
      check_interrupt();
      if (_sync_backoff_stop_requested(seams_)) throw _sync_backoff_module(seams_)->cancelled_error();
    }
  });
}

SyncResult SyncManager::_sync_impl() {
  require_own_process();
  return run_operation(activity_, operation::SYNC, phase::MANIFEST, [this] {
    if (auto result = Pass(*this).run()) return *std::move(result);
    return _sync_with_manifest_refresh();
  });
}

}  // namespace brackenfen::sync

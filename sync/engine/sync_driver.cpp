// Running passes: the locks around one, and how often one that became stale is run again.
#include "sync/base/error.hpp"
#include "sync/base/log.hpp"
#include "sync/engine/pass.hpp"

namespace brackenfen::sync {
namespace {

/// Restarts of a superseded pass. An excluded artifact starts a count of its own on top of the one below;
/// a count that reaches the limit goes and counts as one restart of the level below.
class RestartCounts {
 public:
  void push() { levels_.push_back(0); }

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
};

}  // namespace

SyncResult SyncManager::sync() {
  require_own_process();
  WorkLock one_pass(_sync_lock);
  DirectoryLock::Hold unit_of_work(_directory_lock);
  SyncResult result = _sync_with_manifest_refresh();
  unit_of_work.release();
  return result;
}

SyncResult SyncManager::_sync_with_manifest_refresh() {
  require_own_process();
  RestartCounts restarts;
  while (true) {
    try {
      if (auto result = Pass(*this).run()) return *std::move(result);
      restarts.push();
    } catch (const Error& error) {
      if (!error.is(error_class::ManifestSupersededError) || !restarts.restart(error)) throw;
    }
  }
}

SyncResult SyncManager::_sync_impl() {
  require_own_process();
  if (auto result = Pass(*this).run()) return *std::move(result);
  return _sync_with_manifest_refresh();
}

}  // namespace brackenfen::sync

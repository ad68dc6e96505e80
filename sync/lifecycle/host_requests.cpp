// What a host asks of a running manager: a sync now, and the repair of a file.
#include <algorithm>
#include <utility>

#include "sync/base/error.hpp"
#include "sync/base/files/paths.hpp"
#include "sync/base/threads/interrupt.hpp"
#include "sync/base/threads/worker_thread.hpp"
#include "sync/documents/local_files.hpp"
#include "sync/documents/signals_index.hpp"
#include "sync/engine/sync_manager.hpp"
#include "sync/lifecycle/admission.hpp"

namespace brackenfen::sync {
namespace {

struct Dated {
  std::string path;
  std::int64_t mtime_ns;
};

std::vector<std::string> sorted_newest_first(std::vector<Dated> files) {
  std::stable_sort(files.begin(), files.end(), [](const Dated& left, const Dated& right) { return left.mtime_ns > right.mtime_ns; });
  std::vector<std::string> paths;
  paths.reserve(files.size());
  for (Dated& file : files) paths.push_back(std::move(file.path));
  return paths;
}

}  // namespace

void require_running(const SyncManager& manager) {
  if (!manager._running) throw StateError("Sync thread is not running. Call start() or acquire() first.");
}

void require_admission(const SyncManager& manager, std::string_view request) {
  if (manager._in_transition || path_exists(join_path(manager._data_dir.get(), TRANSITION_LOCK_FILENAME)))
    throw StateError("Sync is in era transition mode — " + std::string(request) + " rejected");
  require_running(manager);
}

std::vector<std::string> SyncManager::request_for_sync() {
  require_own_process();
  require_admission(*this, "request_for_sync");
  if (const std::shared_ptr<RunningRequest> other = _request_coalescing.running()) {
    other->wait(*seams_.clock);
    return _get_found_file_paths();
  }
  require_outside_own_pass();
  SyncResult result;
  const WorkScope work;
  _request_coalescing.begin(work.id());
  try {
    result = sync();
  } catch (const Interrupted&) {
    try {
      _request_coalescing.end();
    } catch (const AttributeError&) {  // an interrupt comes before any error
    }
    throw;
  } catch (...) {
    _request_coalescing.end();
    throw;
  }
  _request_coalescing.end();

  std::vector<Dated> brought;
  for (const std::string& path : result.found_pnl_paths_downloaded) {
    const std::optional<FileStat> stat = seams_.files->stat(path);
    brought.push_back({path, stat ? stat->mtime_ns : 0});  // one that went meanwhile comes last
  }
  return brought.empty() ? _get_found_file_paths() : sorted_newest_first(std::move(brought));
}

std::vector<std::string> SyncManager::_get_found_file_paths() {
  require_own_process();
  const std::shared_ptr<Manifest> manifest = _manifest.get();
  if (!manifest) return {};
  _validate_membership_referenced_found_pnl_kinds(*manifest);
  std::vector<Dated> found;
  const Value files = manifest->files();
  const Document* entries = files.if_document();
  LocalFiles local_files(_data_dir.get());
  for (const Member& member : entries ? *entries : Document()) {
    const Document* entry = member.value.if_document();
    const auto kind = entry ? entry->get("kind").if_text() : std::nullopt;
    if (!kind || !is_found_pnl_file_kind(*kind)) continue;
    if (const std::optional<FileStat> stat = local_files.stat(member.key)) {
      found.push_back({local_files.local_path(member.key), stat->mtime_ns});
    }
  }
  return sorted_newest_first(std::move(found));
}

void SyncManager::report_corruption(const std::string& file_path) {
  require_own_process();
  require_running(*this);
  if (const std::shared_ptr<Manifest> manifest = _manifest.get()) {
    const Value files = manifest->files();
    if (!files.is_document() || !files.if_document()->contains(file_path)) throw ValueError("File not in manifest: " + file_path);
  }
  _repair_queue.append(file_path);
  try {
    start_worker_thread("bf-repair", [self = shared_from_this()] {
      const BackgroundScope scope(self->activity_, "bf-repair");
      self->repair_in_turn();
    });
  } catch (...) {
    _repair_queue.withdraw(file_path);
    throw;
  }
}

}  // namespace brackenfen::sync

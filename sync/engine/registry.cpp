// One manager per canonical directory and process.
#include "sync/base/error.hpp"
#include "sync/base/files/paths.hpp"
#include "sync/base/threads/failure.hpp"
#include "sync/base/threads/fresh_after_fork.hpp"
#include "sync/base/threads/interrupt.hpp"
#include "sync/engine/sync_manager.hpp"

namespace brackenfen::sync {
namespace {

/// `class_lock` is held across the construction of a manager and through a release that stops one. Entries own nothing: one whose manager
/// is gone counts as absent.
struct Registry {
  WorkMutex class_lock;
  std::map<std::string, std::weak_ptr<SyncManager>> instances GUARDED_BY(class_lock);
};

Registry& registry() { return fresh_after_fork<Registry>(); }
[[maybe_unused]] static const auto& made_at_load = registry();  // see at_fork_child

}  // namespace

std::shared_ptr<SyncManager> SyncManager::get_or_create(Options options) {
  const std::string canonical = real_path(options.data_dir);
  std::shared_ptr<TokenSource> replaced_token;  // these go after the lock: they may own objects of the host
  std::shared_ptr<RuntimeFreshnessGuard> replaced_guard;
  Registry& process = registry();
  WorkLock lock(process.class_lock);
  if (const auto entry = process.instances.find(canonical); entry != process.instances.end()) {
    if (std::shared_ptr<SyncManager> existing = entry->second.lock()) {
      const std::string existing_url = existing->_server_url.get();
      if (existing_url != options.server_url) {
        throw ValueError("SyncManager for '" + canonical + "' already exists with server_url='" + existing_url +
                         "', cannot reuse with server_url='" + options.server_url + "'");
      }
      replaced_token = existing->_get_token.exchange(std::move(options.get_token));
      if (options.runtime_freshness_guard) {
        replaced_guard = existing->runtime_freshness_guard.exchange(std::move(options.runtime_freshness_guard));
      }
      return existing;
    }
  }
  auto made = std::make_shared<SyncManager>(std::move(options));
  std::erase_if(process.instances, [](const auto& entry) { return entry.second.expired(); });
  process.instances[canonical] = made;
  return made;
}

void SyncManager::_evict(const std::string& data_dir) {
  const std::string canonical = real_path(data_dir);
  Registry& process = registry();
  WorkLock lock(process.class_lock);
  process.instances.erase(canonical);
}

void SyncManager::release() {
  if (!in_own_process()) return;  // there is nothing of it to stop here, and the file's count is the parent's
  // Looked at before any lock: an extra release changes nothing, and it may come from the work that a stopping release
  // waits for under both locks.
  if (_consumer_count <= 0) return;
  const std::string canonical = real_path(_data_dir.get());
  Registry& process = registry();
  // A stop under way may wait for a callback that asks for the registry: the callback is the one to be refused.
  const Patience patience = ThreadWork::current().is_part_of_any() ? Patience::None : Patience::Long;
  // Held through the whole stop: nobody is given a manager that is going away.
  const WorkLock lock(process.class_lock);
  const WorkLock consumer_lock(_consumer_lock, patience);
  if (_consumer_count <= 0) return;
  --_consumer_count;
  FirstFailure failure;
  failure.run([this] { _persist_consumer_count(); });
  if (_consumer_count == 0) {
    failure.run([this] { _stop_internal(); });
    _consumer_lifecycle_started = false;
    const auto entry = process.instances.find(canonical);
    if (entry != process.instances.end() && entry->second.lock().get() == this) process.instances.erase(entry);
  }
  failure.rethrow();
}

std::map<std::string, std::shared_ptr<SyncManager>> SyncManager::_instances() {
  Registry& process = registry();
  WorkLock lock(process.class_lock);
  std::map<std::string, std::shared_ptr<SyncManager>> live;
  for (const auto& [canonical, entry] : process.instances) {
    if (std::shared_ptr<SyncManager> manager = entry.lock()) live.emplace(canonical, std::move(manager));
  }
  return live;
}

}  // namespace brackenfen::sync

// What the poll thread does: repairs that were asked for, and a pass whenever there is something new.
#include "sync/base/threads/failure.hpp"
#include "sync/engine/sync_manager.hpp"

namespace brackenfen::sync {
namespace {

/// Holds a lock that was free, or nothing.
class SCOPED_CAPABILITY TriedWorkLock {
 public:
  explicit TriedWorkLock(WorkMutex& mutex) ACQUIRE(mutex) NO_THREAD_SAFETY_ANALYSIS : mutex_(mutex), held_(mutex.try_lock()) {}
  TriedWorkLock(const TriedWorkLock&) = delete;
  TriedWorkLock& operator=(const TriedWorkLock&) = delete;
  ~TriedWorkLock() RELEASE() NO_THREAD_SAFETY_ANALYSIS {
    if (held_) mutex_.unlock();
  }
  [[nodiscard]] bool held() const noexcept { return held_; }

 private:
  WorkMutex& mutex_;
  const bool held_;
};

}  // namespace

void SyncManager::_poll_loop() {
  poll_until([this] { return _stop_event.is_set(); });
}

void SyncManager::poll_until(const std::function<bool()>& ended) {
  while (in_own_process() && !ended()) {  // a callback may have forked: the loop goes on in the parent alone
    if (!_in_transition) warn_of_failure("Poll loop iteration failed: %s", [this] { _poll_once(); });
    _stop_event.wait(*seams_.clock, _poll_interval.get());
  }
}

void SyncManager::_poll_once() {
  require_own_process();
  if (_in_transition) return;
  if (const std::vector<std::string> reported = _repair_queue.drain(); !reported.empty()) static_cast<void>(repair(reported));
  // Only tried: a poll never queues up behind a pass.
  const TriedWorkLock one_pass(_sync_lock);
  if (!one_pass.held()) return;
  warn_of_failure("Poll once failed: %s", [this] {
    // A transition takes another lock, so it may begin between any two of these steps.
    if (_in_transition || !needs_sync() || _in_transition) return;
    run_operation(activity_, operation::SYNC, phase::WAITING, [this] {
      DirectoryLock::Hold unit_of_work(_directory_lock);
      static_cast<void>(_sync_with_manifest_refresh());
      unit_of_work.release();
    });
  });
}

void SyncManager::_process_repair_queue() {
  require_own_process();
  if (const std::vector<std::string> reported = _repair_queue.drain(); !reported.empty()) repair_reported(reported);
}

void SyncManager::repair_reported(const std::vector<std::string>& reported) {
  warn_of_failure("Background repair failed: %s", [&] { static_cast<void>(repair(reported)); });
}

void SyncManager::repair_in_turn() {
  std::vector<std::string> reported = _repair_queue.drain();
  if (reported.empty() || !repair_turns_.add(std::move(reported))) return;
  FirstFailure failure;  // a batch that is interrupted takes none of the others along
  for (auto batch = repair_turns_.next(); !batch.empty(); batch = repair_turns_.next()) failure.run([&] { repair_reported(batch); });
  failure.rethrow();
}

}  // namespace brackenfen::sync

// Who wants the background work: counting consumers, and starting and stopping the threads.
#include <fcntl.h>
#include <unistd.h>

#include <cerrno>
#include <limits>
#include <optional>

#include "sync/base/error.hpp"
#include "sync/base/files/place.hpp"
#include "sync/base/log.hpp"
#include "sync/base/threads/failure.hpp"
#include "sync/base/threads/interrupt.hpp"
#include "sync/engine/sync_manager.hpp"

namespace brackenfen::sync {
namespace {

constexpr int TRANSITION_WAIT_ROUNDS = 100;
constexpr double TRANSITION_WAIT_SECONDS = 0.1;  // a round
constexpr double LONGEST_TRANSITION_WAIT_SECONDS = TRANSITION_WAIT_ROUNDS * TRANSITION_WAIT_SECONDS;
constexpr double JOIN_SECONDS = 30.0;

/// Whether a transition has held the directory for longer than a stop waits for it. One thread.
class LastingTransition {
 public:
  LastingTransition(Clock& clock, const std::atomic<bool>& has_directory) : clock_(clock), has_directory_(has_directory) {}

  /// Counts from the first call that found it.
  [[nodiscard]] bool lasts() {
    if (!has_directory_) {
      since_seconds_.reset();
      return false;
    }
    const double now_seconds = clock_.monotonic_seconds();
    if (!since_seconds_) since_seconds_ = now_seconds;
    return now_seconds - *since_seconds_ >= LONGEST_TRANSITION_WAIT_SECONDS * (1.0 - 1e-9);
  }

 private:
  Clock& clock_;
  const std::atomic<bool>& has_directory_;
  std::optional<double> since_seconds_;
};

/// The manager as its own watcher sees it. Owns nothing: the watcher belongs to the manager.
class OwnManager : public EraManager {
 public:
  explicit OwnManager(std::weak_ptr<SyncManager> manager) : manager_(std::move(manager)) {}

  std::optional<Value> manifest_era() override {
    const auto manager = manager_.lock();
    return manager ? manager->era_to_watch_from() : std::nullopt;
  }
  void trigger_era_transition(const Value& new_era_id, const SearchesFn& kill_searches_fn, const SearchesFn& restart_searches_fn) override {
    if (const auto manager = manager_.lock()) manager->trigger_era_transition(new_era_id, kill_searches_fn, restart_searches_fn);
  }

 private:
  const std::weak_ptr<SyncManager> manager_;
};

SearchesFn notifier(std::weak_ptr<SyncManager> manager, void (SyncManager::*notify)()) {
  return [manager = std::move(manager), notify] {
    if (const auto live = manager.lock()) (*live.*notify)();
  };
}

}  // namespace

void SyncManager::acquire(std::shared_ptr<const void> host_handle) {
  require_own_process();
  const WorkLock lock(_consumer_lock);
  if (_consumer_count == std::numeric_limits<std::int64_t>::max()) throw OverflowError("too many consumers");
  ++_consumer_count;
  _persist_consumer_count();
  // The flags decide, not the count: that may have been left behind by a process that died.
  if (_running || _consumer_lifecycle_started) return;
  _start_internal(std::move(host_handle));
  _consumer_lifecycle_started = true;
}

void SyncManager::start(std::shared_ptr<const void> host_handle) {
  require_own_process();
  const WorkLock lock(_consumer_lock);
  if (_running) throw StateError("SyncManager already running");
  _start_sync_thread(std::move(host_handle));
}

void SyncManager::stop() {
  if (!in_own_process()) return;
  try {
    const WorkLock lock(_consumer_lock);
    if (_running) _stop_internal();
  } catch (const WouldWaitForItself&) {  // the stop that waits for this work is under way already
  }
}

bool SyncManager::is_alive() const {
  if (!in_own_process()) return false;
  const std::shared_ptr<BackgroundThread> thread = _sync_thread.get();
  return thread && thread->is_alive();
}

void SyncManager::_persist_consumer_count() {
  const std::string path = _consumer_count_path.get();
  try {
    const Descriptor file = open_own_file(path, O_WRONLY);
    if (::ftruncate(file.get(), 0) != 0) throw os_error(errno, path);
    write_all(file, std::to_string(_consumer_count.load()), path);
  } catch (const Error& error) {
    log_warning("Failed to persist consumer count: %s", error.text());
  }
}

void SyncManager::_start_sync_thread(std::shared_ptr<const void> host_handle) {
  require_own_process();
  const auto thread = std::make_shared<BackgroundThread>();
  _stop_event.clear();
  activity_->stopping = false;
  _running = true;
  _sync_thread.set(thread);
  try {
    thread->start("bf-poll", [self = shared_from_this(), thread, host_handle = std::move(host_handle)] {
      const BackgroundScope scope(self->activity_, "bf-poll");
      // Also ends where it outlived its stop and another has taken its place since.
      self->poll_until([&] { return self->_stop_event.is_set() || self->_sync_thread.get() != thread; });
    });
  } catch (...) {
    abandon_sync_thread();
    throw;
  }
}

void SyncManager::abandon_sync_thread() {
  _running = false;
  _sync_thread.set(nullptr);
  _stop_event.set();
  activity_->stopping = true;
}

void SyncManager::_start_internal(std::shared_ptr<const void> host_handle) {
  _start_sync_thread(std::move(host_handle));
  try {
    start_era_thread();
  } catch (...) {
    abandon_sync_thread();  // the next acquire begins with both again
    throw;
  }
}

void SyncManager::start_era_thread() {
  std::shared_ptr<EraThread> watcher = _era_thread.get();
  if (!watcher) {
    EraThread::Options options;
    options.server_url = _server_url.get();
    options.get_token = _get_token.get();
    options.sync_manager = std::make_shared<OwnManager>(weak_from_this());
    options.era_poll_interval_s = _poll_interval.get();
    options.kill_searches_fn = notifier(weak_from_this(), &SyncManager::_kill_fn);
    options.restart_searches_fn = notifier(weak_from_this(), &SyncManager::_restart_fn);
    options.seams = own_process_.given_seams();  // it may outlive the manager
    options.activity = activity_;
    watcher = std::make_shared<EraThread>(std::move(options));
    _era_thread.set(watcher);
  }
  try {
    watcher->start();
  } catch (const Error& error) {
    if (!error.is(error_class::StateError)) throw;
    seams_.neighbours->bind()->logging_style().log_library_surface_event({.message = "Era synchronization",
                                                                          .level = "error",
                                                                          .sub_service = "sync",
                                                                          .component = "state",
                                                                          .metadata = {{"reason", "era_thread_start_state"}},
                                                                          .source_function = "_start_internal",
                                                                          .source_file = "sync/lifecycle/consumers.cpp",
                                                                          .source_line = __LINE__});
  }
}

void SyncManager::_stop_internal() {
  // An interrupt ends the waits; it, or what else fails, is thrown when the flags are right again. Work that this call is
  // part of, because a callback of it makes the call, is not waited for.
  FirstFailure failure;
  bool interrupted = false;
  const auto wait_for = [&](const auto& wait) {
    if (interrupted) return;
    failure.run([&] {
      try {
        wait();
      } catch (const WouldWaitForItself&) {
      } catch (const Interrupted&) {
        interrupted = true;
        throw;
      }
    });
  };
  _stop_event.set();
  activity_->stopping = true;
  const bool called_by_its_work = _directory_lock.held_by_this_work();
  // Either thread may be waiting for that lock.
  const Patience patience = called_by_its_work ? Patience::None : Patience::Long;
  LastingTransition transition(*seams_.clock, transition_has_directory_);
  wait_for([&] { stop_era_thread(patience); });
  wait_for([&] {
    if (called_by_its_work) return;  // a transition cannot end before this call does
    static_cast<void>(transition.lasts());
    for (int round = 0; round < TRANSITION_WAIT_ROUNDS && _in_transition; ++round) seams_.clock->sleep(TRANSITION_WAIT_SECONDS);
  });
  wait_for([&] {
    // Until a pass that is under way has ended, unless it waits for a transition that lasts. While the caller's own work
    // holds the directory lock there is none, or it waits for that lock.
    if (!called_by_its_work) _sync_lock.pass_through([&] { return transition.lasts(); });
  });
  wait_for([&] {
    const std::shared_ptr<BackgroundThread> thread = _sync_thread.get();
    if (thread && !thread->is_current()) thread->join(*seams_.clock, JOIN_SECONDS, patience);
  });
  _running = false;
  _consumer_lifecycle_started = false;
  _sync_thread.set(nullptr);
  // What the caller's own unit of work holds is no leftover.
  if (!called_by_its_work) failure.run([this] { _directory_lock.close_leftover(); });
  failure.rethrow();
}

void SyncManager::stop_era_thread(Patience patience) {
  const std::shared_ptr<EraThread> watcher = _era_thread.get();
  if (!watcher) return;
  FirstFailure failure;
  failure.run([&] { warn_of_failure("Failed to stop era thread: %s", [&] { watcher->stop(patience); }); });
  _era_thread.set(nullptr);
  failure.rethrow();
}

void SyncManager::notify_of_current_era(std::string_view event_type) {
  const std::shared_ptr<Manifest> manifest = _manifest.get();
  _era_callbacks._notify_era_callbacks(event_type, manifest ? manifest->era_number() : Value(0));
}

}  // namespace brackenfen::sync

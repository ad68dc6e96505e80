#include "sync/era/era_thread.hpp"

#include <utility>

#include "sync/base/error.hpp"
#include "sync/base/threads/fork.hpp"

namespace brackenfen::sync {
namespace {

constexpr double JOIN_SECONDS = 10.0;

EraThread::Options validated(EraThread::Options options) {
  options.seams.neighbours->bind()->transport_security().validate_bearer_transport_url(options.server_url);
  return options;
}

}  // namespace

EraThread::EraThread(Options options) : options_(validated(std::move(options))), fork_generation_(fork_generation()) {
  _server_url.set(options_.server_url);
  _poll_interval.set(options_.era_poll_interval_s);
}

void EraThread::start(std::shared_ptr<const void> host_handle) {
  if (fork_generation_ != fork_generation()) throw StateError("this EraThread was created before fork(): build one in this process");
  if (!options_.sync_manager) throw StateError("EraThread was garbage-collected");
  auto watch = std::make_shared<Watch>();
  auto before = watch;  // goes after the lock
  {
    const MutexLock lock(watch_mutex_);
    if (_started.exchange(true)) throw StateError("EraThread already started");
    watch_.swap(before);
  }
  try {
    if (auto era = options_.sync_manager->manifest_era()) _last_known_era_id.set(*std::move(era));
    const MutexLock lock(watch_mutex_);  // across the start: no stop comes in between. No last handle of the host's goes under it
    if (watch->stop.is_set()) return;
    // Not moved, so that it goes after the lock where no thread starts. NOLINTNEXTLINE(performance-unnecessary-value-param)
    watch->thread->start("bf-era", [self = shared_from_this(), watch, host_handle] {
      const BackgroundScope scope(self->options_.activity, "bf-era");
      self->run(*watch);
    });
  } catch (...) {
    note_stopped(watch);
    throw;
  }
}

void EraThread::stop(Patience patience) {
  if (fork_generation_ != fork_generation()) return;
  std::shared_ptr<Watch> watch;
  {
    const MutexLock lock(watch_mutex_);
    if (!_started) return;
    watch = watch_;
    watch->stop.set();
  }
  watch->thread->join(*options_.seams.clock, JOIN_SECONDS, patience);
  note_stopped(watch);
}

bool EraThread::is_alive() const { return fork_generation_ == fork_generation() && last_watch()->thread->is_alive(); }

void EraThread::abandon() {
  if (fork_generation_ == fork_generation()) last_watch()->stop.set();
}

void EraThread::drop_host() {
  options_.get_token = nullptr;
  options_.sync_manager = nullptr;
  options_.kill_searches_fn = nullptr;
  options_.restart_searches_fn = nullptr;
}

void EraThread::_run() { run(*last_watch()); }

void EraThread::run(Watch& watch) {
  _poll_once();
  while (!watch.stop.is_set() && fork_generation_ == fork_generation()) {  // else a callback forked, and this is the child
    if (watch.stop.wait(*options_.seams.clock, _poll_interval.get())) return;
    _poll_once();
  }
}

std::shared_ptr<EraThread::Watch> EraThread::last_watch() const {
  const MutexLock lock(watch_mutex_);
  return watch_;
}

void EraThread::note_stopped(const std::shared_ptr<Watch>& watch) {
  const MutexLock lock(watch_mutex_);
  if (watch_ == watch) _started = false;
}

}  // namespace brackenfen::sync

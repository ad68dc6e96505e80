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
  if (_started.exchange(true)) throw StateError("EraThread already started");
  _stop_event.clear();
  try {
    if (auto era = options_.sync_manager->manifest_era()) _last_known_era_id.set(*std::move(era));
    const auto thread = std::make_shared<BackgroundThread>();
    _thread.set(thread);
    thread->start("bf-era", [self = shared_from_this(), host_handle = std::move(host_handle)] {
      const BackgroundScope scope(self->options_.activity, "bf-era");
      self->_run();
    });
  } catch (...) {
    _started = false;
    throw;
  }
}

void EraThread::stop(Patience patience) {
  if (fork_generation_ != fork_generation() || !_started) return;
  _stop_event.set();
  if (const auto thread = _thread.get()) thread->join(*options_.seams.clock, JOIN_SECONDS, patience);
  _started = false;
}

bool EraThread::is_alive() const {
  if (fork_generation_ != fork_generation()) return false;
  const auto thread = _thread.get();
  return thread && thread->is_alive();
}

void EraThread::abandon() {
  if (fork_generation_ == fork_generation()) _stop_event.set();
}

void EraThread::drop_host() {
  options_.get_token = nullptr;
  options_.sync_manager = nullptr;
  options_.kill_searches_fn = nullptr;
  options_.restart_searches_fn = nullptr;
}

void EraThread::_run() {
  const std::shared_ptr<BackgroundThread> started = _thread.get();
  _poll_once();
  while (!_stop_event.is_set() && fork_generation_ == fork_generation()) {  // else a callback forked, and this is the child
    if (_stop_event.wait(*options_.seams.clock, _poll_interval.get())) return;
    if (_thread.get() != started) return;  // one that outlived its stop, and another was started since
    _poll_once();
  }
}

}  // namespace brackenfen::sync

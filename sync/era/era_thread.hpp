// The thread that watches which era the server calls current, and has the local data follow. A transition runs on it,
// so no poll happens meanwhile. Its life is era_thread.cpp, what it does era_poll.cpp.
#pragma once

#include <atomic>
#include <functional>
#include <memory>
#include <optional>
#include <string>

#include "sync/base/threads/background_thread.hpp"
#include "sync/base/threads/event.hpp"
#include "sync/base/threads/mutex.hpp"
#include "sync/base/threads/snapshot.hpp"
#include "sync/base/values/value.hpp"
#include "sync/era/watcher_decision.hpp"
#include "sync/transport/activity.hpp"
#include "sync/transport/seams.hpp"
#include "sync/transport/token_source.hpp"

namespace brackenfen::sync {

/// Stops or restarts the host's searches; empty where the host has none.
using SearchesFn = std::function<void()>;

/// What the watcher needs of a manager. A host may bring its own.
class EraManager {
 public:
  virtual ~EraManager() = default;
  /// The era of the manager's manifest; absent without one.
  [[nodiscard]] virtual std::optional<Value> manifest_era() = 0;
  virtual void trigger_era_transition(const Value& new_era_id, const SearchesFn& kill_searches_fn,
                                      const SearchesFn& restart_searches_fn) = 0;
};

/// Held by shared_ptr: its thread shares in it. start, stop and is_alive may be called on any thread. What the thread
/// writes, other threads only read; each field is whole by itself.
class EraThread : public std::enable_shared_from_this<EraThread> {
 public:
  static constexpr double DEFAULT_POLL_INTERVAL_SECONDS = 600.0;

  struct Options {
    std::string server_url;
    std::shared_ptr<TokenSource> get_token;
    std::shared_ptr<EraManager> sync_manager;
    double era_poll_interval_s = DEFAULT_POLL_INTERVAL_SECONDS;
    SearchesFn kill_searches_fn;
    SearchesFn restart_searches_fn;
    Seams seams = Seams::real();
    std::shared_ptr<Activity> activity = nullptr;  ///< of the manager that it belongs to
  };

  /// Throws what validate_bearer_transport_url throws, before anything else is done.
  explicit EraThread(Options options);

  /// Throws StateError "EraThread already started" until a stop, and in a child of fork().
  /// `host_handle` is what the host knows it by: the thread keeps it alive, and lets go of it at its end.
  void start(std::shared_ptr<const void> host_handle = {});
  /// Waits at most 10 seconds for the thread, as BackgroundThread::join does; a poll that is under way goes on by itself.
  /// Throws RuntimeError on the thread itself, and Interrupted.
  void stop(Patience patience = Patience::Long);
  [[nodiscard]] bool is_alive() const;
  /// Tells the thread to end and waits for nothing.
  void abandon();

  /// Polls at once, and then after each pause, until it is told to stop.
  void _run();
  /// One poll: what the server reports, and what follows from it. No failure leaves it; most are warnings.
  void _poll_once();
  void _mark_transition_failed(std::string_view context, std::string_view failure);
  void _clear_transition_failed();

  /// What it was built with, but for server URL and interval, which are fields.
  [[nodiscard]] const Options& options() const noexcept { return options_; }
  /// For the collector of the host, while nobody else refers to it: lets go of all that is the host's. It cannot be
  /// started afterwards.
  void drop_host();

  // Fields, for the boundary.
  Guarded<std::string> _server_url;
  Guarded<double> _poll_interval;
  std::atomic<bool> _started{false};
  Guarded<Value> _last_known_era_id;     ///< an integer, or null
  Guarded<Value> _last_known_state;      ///< null; kept for hosts that read it
  std::atomic<bool> _in_closing{false};  ///< a close was seen, and neither called off nor followed by another era
  std::atomic<bool> _transition_failed{false};
  Guarded<Value> _last_transition_error;  ///< a text, or null

 private:
  /// From a start to its stop. One that outlives its stop ends by itself, whatever is started since.
  struct Watch {
    const std::shared_ptr<BackgroundThread> thread = std::make_shared<BackgroundThread>();
    Event stop;
  };

  void run(Watch& watch);
  [[nodiscard]] std::shared_ptr<Watch> last_watch() const EXCLUDES(watch_mutex_);
  /// Nothing is started any more, unless it was started anew since.
  void note_stopped(const std::shared_ptr<Watch>& watch) EXCLUDES(watch_mutex_);
  void follow(NeighbourSet& neighbours, const EraReport& report);
  void cancel_close();
  void transit_to_closing(const Value& era_number);
  void transit_to_new_era(NeighbourSet& neighbours, const Value& era_number);

  Options options_;  // changed by drop_host alone
  const std::uint64_t fork_generation_;
  mutable Mutex watch_mutex_;  // _started changes under it too, together with what follows
  std::shared_ptr<Watch> watch_ GUARDED_BY(watch_mutex_) = std::make_shared<Watch>();  ///< the last one; never null
};

}  // namespace brackenfen::sync

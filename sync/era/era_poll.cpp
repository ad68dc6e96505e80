// One poll of the watcher: what the server says, the decision, and what follows from it.
#include "sync/base/error.hpp"
#include "sync/base/log.hpp"
#include "sync/base/threads/failure.hpp"
#include "sync/era/era_current.hpp"
#include "sync/era/era_thread.hpp"
#include "sync/era/watcher_decision.hpp"
#include "sync/transport/http.hpp"

namespace brackenfen::sync {

void EraThread::_poll_once() {
  warn_of_failure("Era poll failed: %s", [this] {
    const RequestStart start = start_request(*options_.seams.environment, *options_.get_token);
    const std::shared_ptr<NeighbourSet> neighbours = options_.seams.neighbours->bind();
    const HttpResult response = _http_get(options_.seams, *neighbours, _server_url.get() + std::string(ERA_CURRENT_PATH), start);
    if (response.status != 200) return;
    follow(*neighbours, read_era_report(parse_era_current(response.body)));
  });
}

void EraThread::follow(NeighbourSet& neighbours, const EraReport& report) {
  const EraAction action = decide_era_action(report, _in_closing, _last_known_era_id.get());
  if (announces_close(report) || action == EraAction::TransitToClosing) {
    log_info("Scheduled close announced at %s. Continue normal operation.", report.next_closing_at);
  }
  switch (action) {
    case EraAction::None:
      return;
    case EraAction::Cancel:
      return cancel_close();
    case EraAction::TransitToClosing:
      return transit_to_closing(report.era_number);
    case EraAction::TransitToNewEra:
      return transit_to_new_era(neighbours, report.era_number);
  }
}

void EraThread::cancel_close() {
  log_info("Era transition cancelled — resuming normal operation.");
  _in_closing = false;
  if (options_.restart_searches_fn) warn_of_failure("Restart searches callback failed: %s", options_.restart_searches_fn);
}

void EraThread::transit_to_closing(const Value& era_number) {
  _in_closing = true;
  try {
    options_.sync_manager->trigger_era_transition(era_number, options_.kill_searches_fn, options_.restart_searches_fn);
    _clear_transition_failed();
  } catch (const std::exception& failure) {
    _mark_transition_failed("closing", error_of(failure).text());
  }
}

void EraThread::transit_to_new_era(NeighbourSet& neighbours, const Value& era_number) {
  const Value previous_era_id = _last_known_era_id.get();
  _in_closing = false;  // whatever comes of the transition
  try {
    options_.sync_manager->trigger_era_transition(era_number, options_.kill_searches_fn, options_.restart_searches_fn);
  } catch (const std::exception& failure) {
    _mark_transition_failed("new era", error_of(failure).text());
    return;
  }
  _last_known_era_id.set(era_number);
  _clear_transition_failed();
  warn_of_failure("update_nudge call failed: %s",
                  [&] { neighbours.agent_onboarding().update_nudge("era_change", era_number, previous_era_id); });
}

void EraThread::_mark_transition_failed(std::string_view context, std::string_view failure) {
  _transition_failed = true;
  _last_transition_error.set(std::string(context) + ": " + std::string(failure));
  log_warning("Trigger era transition (%s) failed: %s", context, failure);
}

void EraThread::_clear_transition_failed() {
  _transition_failed = false;
  _last_transition_error.set(nullptr);
}

}  // namespace brackenfen::sync

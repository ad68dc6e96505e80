#include "sync/transport/backoff.hpp"

#include <string>

#include "sync/base/error.hpp"
#include "sync/base/threads/interrupt.hpp"
#include "sync/transport/activity.hpp"
#include "sync/transport/backoff_progress.hpp"
#include "sync/transport/events.hpp"

namespace brackenfen::sync {

std::shared_ptr<SyncBackoff> _sync_backoff_module(const Seams& seams) { return seams.neighbours->sync_backoff(); }

BackoffContext _current_sync_backoff_context(const Seams& seams) {
  try {
    return _sync_backoff_module(seams)->current_context();
  } catch (const Error&) {
    return {};
  }
}

std::string _sync_backoff_surface(const Seams& seams, std::string_view default_surface) {
  std::string surface = _current_sync_backoff_context(seams).surface;
  return surface.empty() ? std::string(default_surface) : surface;
}

bool _sync_backoff_stop_requested(const Seams& seams) {
  const BackoffContext context = _current_sync_backoff_context(seams);
  try {
    return context.stop_requested && context.stop_requested();
  } catch (const Error&) {
    return false;
  }
}

double _backoff_delay_seconds(const Seams& seams, int attempt_index) { return _sync_backoff_module(seams)->delay_seconds(attempt_index); }

Document _emit_sync_backoff_wait(const Seams& seams, std::string_view default_surface, int attempt_index, std::string_view reason,
                                 std::string_view file_path, float wait_seconds) {
  const std::string surface = _sync_backoff_surface(seams, default_surface);
  Document event = _sync_backoff_module(seams)->sync_backoff_event_fields(surface, attempt_index + 1, static_cast<double>(wait_seconds),
                                                                          reason, file_path);
  _emit_brackenfen_sync_event(event);
  _write_sync_backoff_progress_json(seams, event);
  return event;
}

void _sleep_for_sync_backoff(const Seams& seams, float wait_seconds) {
  const std::shared_ptr<SyncBackoff> backoff = _sync_backoff_module(seams);
  // A copy of the seams: what is handed to a host's policy may be called once the manager is gone.
  const bool completed = backoff->sleep(static_cast<double>(wait_seconds), *seams.clock, [seams, part = ActivityScope::current()] {
    return ActivityScope::wait_is_over(part) || _sync_backoff_stop_requested(seams);
  });
  if (completed) return;
  // The thread is to end, and nothing that would handle an error is to begin anything else first.
  if (ActivityScope::wait_is_over(ActivityScope::current())) throw Interrupted{};
  throw backoff->cancelled_error();
}

}  // namespace brackenfen::sync

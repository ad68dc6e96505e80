// The glue between the back-off policy, the event log and sync-progress.json.
#pragma once

#include <memory>
#include <string>
#include <string_view>

#include "sync/transport/seams.hpp"

namespace brackenfen::sync {

/// The provider in force, looked up at every use.
[[nodiscard]] std::shared_ptr<SyncBackoff> _sync_backoff_module(const Seams& seams);
/// The running thread's context; an empty one where the provider fails.
[[nodiscard]] BackoffContext _current_sync_backoff_context(const Seams& seams);
/// The context's surface where it has one, else `default_surface`.
[[nodiscard]] std::string _sync_backoff_surface(const Seams& seams, std::string_view default_surface);
/// A stop callback that is missing or fails never stops anything.
[[nodiscard]] bool _sync_backoff_stop_requested(const Seams& seams);
[[nodiscard]] double _backoff_delay_seconds(const Seams& seams, int attempt_index);
/// Announces one wait in the log and in sync-progress.json; returns the event. An error of the progress
/// file's write leaves this function.
Document _emit_sync_backoff_wait(const Seams& seams, std::string_view default_surface, int attempt_index, std::string_view reason,
                                 std::string_view file_path, float wait_seconds);
/// Waits; throws SyncBackoffCancelled when stopped, Interrupted on a background thread whose waits a stop ends.
void _sleep_for_sync_backoff(const Seams& seams, float wait_seconds);

}  // namespace brackenfen::sync

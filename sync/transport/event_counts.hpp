// Holding back repeats: a client that is stuck would write the same lines to the log without end.
#pragma once

#include <cstdint>
#include <string>
#include <utility>
#include <vector>

#include "sync/base/text/keyed_hash.hpp"
#include "sync/base/threads/mutex.hpp"
#include "sync/base/values/value.hpp"

namespace brackenfen::sync {

/// How many events with one key reach the log in the life of the process.
inline constexpr std::int64_t SYNC_EVENT_COALESCE_LIMIT = 10;

/// What repeats of one situation have in common: the event's keys, sorted, each with its value as text.
using EventKey = std::vector<std::pair<std::string, std::string>>;

/// How often events were seen, by key. Nothing is ever forgotten: one entry per distinct key.
class EventCounts {
 public:
  /// Counts one more event with this key; returns how many came before it.
  std::int64_t add(const EventKey& key) EXCLUDES(mutex_);
  /// How many were counted with this key.
  [[nodiscard]] std::int64_t count(const EventKey& key) const EXCLUDES(mutex_);
  [[nodiscard]] std::vector<std::pair<EventKey, std::int64_t>> all() const EXCLUDES(mutex_);
  /// For tests, which start with nothing counted.
  void clear() EXCLUDES(mutex_);

 private:
  mutable Mutex mutex_;
  TextMap<std::int64_t> counts_ GUARDED_BY(mutex_);  // by packed key, a third of the memory
};

/// Those of the process; they start anew in a forked child.
[[nodiscard]] EventCounts& event_counts();

/// Whether repeats of the event may be held back: never those of a warning or a recovery.
[[nodiscard]] bool _sync_event_is_coalescible(const Document& event);
[[nodiscard]] EventKey _sync_event_coalesce_key(const Document& event);
/// The same from keys and stable values in any order: sorted, and without those that vary between repeats.
[[nodiscard]] EventKey coalesce_key_of(EventKey members);
/// A value as text such that values of different types never look alike.
[[nodiscard]] std::string _sync_event_stable_coalesce_value(const Value& value);
/// Counts the event, unless it may not be held back, and decides whether it reaches the log.
[[nodiscard]] bool _should_emit_sync_event(const Document& event);

}  // namespace brackenfen::sync

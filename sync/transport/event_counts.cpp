#include "sync/transport/event_counts.hpp"

#include <algorithm>
#include <cstdlib>
#include <iterator>
#include <new>
#include <string_view>

#include "sync/base/error.hpp"
#include "sync/base/threads/fork.hpp"
#include "sync/base/values/convert.hpp"
#include "sync/base/values/json.hpp"
#include "sync/transport/events.hpp"

namespace brackenfen::sync {
namespace {

constexpr std::string_view COALESCIBLE_TYPES[] = {"sync_unavailable_status", "http_retry",      "sync_backoff_wait",  "range_resume",
                                                  "range_resume_reset",      "checksum_repair", "manifest_superseded"};
/// What varies between repeats of one situation.
constexpr std::string_view VARYING_KEYS[] = {"attempt",        "count",       "elapsed_seconds", "wait_seconds",
                                             "bytes_existing", "actual_size", "range_start",     "range_end"};

template <std::size_t SIZE>
bool is_one_of(std::string_view text, const std::string_view (&texts)[SIZE]) {
  return std::find(std::begin(texts), std::end(texts), text) != std::end(texts);
}

/// Each text behind its length: "4:file3:'a'".
std::string pack(const EventKey& key) {
  std::string packed;
  for (const auto& [name, value] : key) {
    for (const std::string* text : {&name, &value}) packed += std::to_string(text->size()) + ":" + *text;
  }
  return packed;
}

EventKey unpack(std::string_view packed) {
  const auto next = [&packed] {
    const std::size_t colon = packed.find(':');
    const std::size_t size = std::strtoull(packed.data(), nullptr, 10);
    std::string text(packed.substr(colon + 1, size));
    packed.remove_prefix(colon + 1 + size);
    return text;
  };
  EventKey key;
  while (!packed.empty()) {
    std::string name = next();
    key.emplace_back(std::move(name), next());
  }
  return key;
}

}  // namespace

std::int64_t EventCounts::add(const EventKey& key) {
  std::string packed = pack(key);
  MutexLock lock(mutex_);
  return counts_[std::move(packed)]++;
}

std::int64_t EventCounts::count(const EventKey& key) const {
  const std::string packed = pack(key);
  MutexLock lock(mutex_);
  const auto found = counts_.find(packed);
  return found == counts_.end() ? 0 : found->second;
}

std::vector<std::pair<EventKey, std::int64_t>> EventCounts::all() const {
  std::vector<std::pair<EventKey, std::int64_t>> found;
  MutexLock lock(mutex_);
  found.reserve(counts_.size());
  for (const auto& [packed, count] : counts_) found.emplace_back(unpack(packed), count);
  return found;
}

void EventCounts::clear() {
  MutexLock lock(mutex_);
  counts_.clear();
}

EventCounts& event_counts() {
  static EventCounts& instance = *new EventCounts;
  return instance;
}
[[maybe_unused]] static const auto& made_at_load = event_counts();  // see at_fork_child

bool _sync_event_is_coalescible(const Document& event) {
  return _sync_event_level_name(event) == "info" && is_one_of(text_or_empty(event.get("event_type")), COALESCIBLE_TYPES);
}

EventKey _sync_event_coalesce_key(const Document& event) {
  EventKey members;
  for (const Member& member : event) members.emplace_back(member.key.str(), _sync_event_stable_coalesce_value(member.value));
  return coalesce_key_of(std::move(members));
}

EventKey coalesce_key_of(EventKey members) {
  std::erase_if(members, [](const auto& member) { return is_one_of(member.first, VARYING_KEYS); });
  std::sort(members.begin(), members.end());
  return members;
}

std::string _sync_event_stable_coalesce_value(const Value& value) {
  switch (value.kind()) {
    case Value::Kind::Null:
      return "null";
    case Value::Kind::Text:
      return to_quoted(value);
    case Value::Kind::Boolean:
      return value.truthy() ? "true" : "false";
    case Value::Kind::Integer:
    case Value::Kind::BigInteger:
      return to_text(value);
    default:
      break;
  }
  try {
    return write_json(value, JsonForm::SortedKeys);
  } catch (const Error&) {
    return to_text(value);
  }
}

bool _should_emit_sync_event(const Document& event) {
  return !_sync_event_is_coalescible(event) || event_counts().add(_sync_event_coalesce_key(event)) < SYNC_EVENT_COALESCE_LIMIT;
}

}  // namespace brackenfen::sync

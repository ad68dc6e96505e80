#include "python/adapters/neighbours_backoff.hpp"
#include "python/bindings/binding.hpp"
#include "sync/transport/backoff.hpp"
#include "sync/transport/backoff_progress.hpp"
#include "sync/transport/event_counts.hpp"
#include "sync/transport/events.hpp"

namespace brackenfen::sync::python {
namespace {

void bind_waits(nb::module_& module) {
  module.def("_current_sync_backoff_context", [] { return context_to_python(_current_sync_backoff_context(host_seams())); });
  module.def(
      "_sync_backoff_surface",
      [](nb::handle default_surface) {
        return to_python(_sync_backoff_surface(host_seams(), text_argument(default_surface, "default_surface")));
      },
      any("default_surface"));
  module.def("_sync_backoff_stop_requested", [] { return _sync_backoff_stop_requested(host_seams()); });
  module.def(
      "_backoff_delay_seconds",
      [](nb::handle attempt_index) { return _backoff_delay_seconds(host_seams(), count_argument(attempt_index, "attempt_index")); },
      any("attempt_index"));
  module.def(
      "_emit_sync_backoff_wait",
      [](nb::handle default_surface, nb::handle attempt_index, nb::handle reason, nb::handle file_path, nb::handle wait_seconds) {
        const std::string surface = text_argument(default_surface, "default_surface");
        const auto attempt = count_argument(attempt_index, "attempt_index");
        const std::string cause = text_argument(reason, "reason");
        const std::string path = text_or_empty(file_path, "file_path");
        const auto seconds = static_cast<float>(real_argument(wait_seconds, "wait_seconds"));
        return to_python(detached([&] { return _emit_sync_backoff_wait(host_seams(), surface, attempt, cause, path, seconds); }));
      },
      any("default_surface"), any("attempt_index"), any("reason"), any("file_path"), any("wait_seconds"));
  module.def(
      "_write_sync_backoff_progress_json",
      [](nb::handle event) {
        const Document document = document_argument(event, "event");
        detached([&] { _write_sync_backoff_progress_json(host_seams(), document); });
      },
      any("event"));
  module.def(
      "_sleep_for_sync_backoff",
      [](nb::handle wait_seconds) {
        const auto seconds = static_cast<float>(real_argument(wait_seconds, "wait_seconds"));
        detached([&] { _sleep_for_sync_backoff(host_seams(), seconds); });
      },
      any("wait_seconds"));
}

/// Absent for an object that is no JSON value.
std::optional<Value> json_value(nb::handle object) {
  try {
    return value_argument(object, "value");
  } catch (const Error&) {
    return std::nullopt;
  }
}

/// The event as far as the core can read it: an object that is no JSON value counts by its text.
Document readable_event(nb::handle event) {
  std::vector<Member> members;
  for (const auto& [key, value] : mapping_items(event, "event")) members.push_back({text_form(key), value_or_text(value)});
  return Document(std::move(members));
}

/// As the core does it, for objects of every kind.
std::string stable_value(nb::handle value) {
  const std::optional<Value> readable = json_value(value);
  return readable ? _sync_event_stable_coalesce_value(*readable) : text_form(value);
}

EventKey key_of(nb::handle event) {
  EventKey members;
  for (const auto& [key, value] : mapping_items(event, "event")) members.emplace_back(text_form(key), stable_value(value));
  return coalesce_key_of(std::move(members));
}

nb::object key_to_python(const EventKey& key) {
  nb::list pairs;
  for (const auto& [name, value] : key) pairs.append(nb::make_tuple(to_python(name), to_python(value)));
  return nb::steal(PyList_AsTuple(pairs.ptr()));
}

/// The key as the core counts it; absent for an object that key_to_python never gives.
std::optional<EventKey> key_from_python(nb::handle object) {
  if (!nb::isinstance<nb::tuple>(object)) return std::nullopt;
  EventKey key;
  for (nb::handle pair : nb::borrow<nb::tuple>(object)) {
    if (!nb::isinstance<nb::tuple>(pair) || nb::len(pair) != 2) return std::nullopt;
    std::string texts[2];
    for (std::size_t part = 0; part < 2; ++part) {
      const nb::object text = pair[part];
      if (!nb::isinstance<nb::str>(text)) return std::nullopt;
      texts[part] = text_form(text);
    }
    key.emplace_back(std::move(texts[0]), std::move(texts[1]));
  }
  return key;
}

/// `_SYNC_EVENT_COALESCE_COUNTS`: a mapping whose every look reads the counts as they are then. A look at one key costs
/// no more for all the others.
struct LiveCounts {
  static nb::dict read() {
    nb::dict counts;
    for (const auto& [key, count] : event_counts().all()) counts[key_to_python(key)] = count;
    return counts;
  }
  /// What read() says of that key alone.
  static nb::dict read(nb::handle key) {
    nb::dict counts;
    const std::optional<EventKey> known = key_from_python(key);
    if (const std::int64_t count = known ? event_counts().count(*known) : 0; count > 0) counts[key] = count;
    return counts;
  }
};

void bind_coalescing(nb::module_& module) {
  nb::class_<LiveCounts> counts(module, "_CoalesceCounts", "How many events were seen, by coalescing key; read-only and live.");
  for (const char* name : {"__iter__", "__len__", "__eq__", "__repr__", "keys", "items", "values"}) {
    counts.def(name,
               [name](const LiveCounts&, const nb::args& arguments) { return nb::object(LiveCounts::read().attr(name)(*arguments)); });
  }
  for (const char* name : {"__getitem__", "__contains__", "get"}) {
    counts.def(name, [name](const LiveCounts&, const nb::args& arguments) {
      const nb::dict asked = !arguments.empty() ? LiveCounts::read(arguments[0]) : nb::dict();
      return nb::object(asked.attr(name)(*arguments));
    });
  }
  nb::module_::import_("collections.abc").attr("Mapping").attr("register")(counts);
  module.attr("_SYNC_EVENT_COALESCE_COUNTS") = nb::cast(LiveCounts());
  module.attr("_SYNC_EVENT_COALESCE_LIMIT") = SYNC_EVENT_COALESCE_LIMIT;

  module.def(
      "_should_emit_sync_event",
      [](nb::handle event) {
        const Document readable = readable_event(event);
        return !_sync_event_is_coalescible(readable) || event_counts().add(key_of(event)) < SYNC_EVENT_COALESCE_LIMIT;
      },
      any("event"));
  module.def(
      "_sync_event_is_coalescible", [](nb::handle event) { return _sync_event_is_coalescible(readable_event(event)); }, any("event"));
  module.def(
      "_sync_event_coalesce_key", [](nb::handle event) { return key_to_python(key_of(event)); }, any("event"));
  module.def(
      "_sync_event_stable_coalesce_value", [](nb::handle value) { return to_python(stable_value(value)); }, any("value"));
  module.def(
      "_sync_event_level_name", [](nb::handle event) { return to_python(_sync_event_level_name(readable_event(event))); }, any("event"));
}

}  // namespace

void bind_events(nb::module_& module) {
  bind_waits(module);
  bind_coalescing(module);
  module.def(
      "_emit_brackenfen_sync_event", [](nb::handle event) { _emit_brackenfen_sync_event(document_argument(event, "event")); },
      any("event"));
  module.def(
      "_log_sync_event",
      [](nb::handle event_type, nb::handle file_path, nb::handle count, nb::handle reason, const nb::kwargs& fields) {
        _log_sync_event(text_argument(event_type, "event_type"), text_or_empty(file_path, "file_path"), value_or_text(count),
                        text_or_empty(reason, "reason"), document_argument(fields, "fields"));
      },
      any("event_type"), any("file_path"), any("count"), any("reason"), nb::arg("fields"));
  module.def(
      "_sync_endpoint_from_url",
      [](nb::handle url) { return to_python(_sync_endpoint_from_url(url.is_none() ? std::string() : text_form(url))); }, any("url"));
  module.def(
      "_sync_event_file_from_url",
      [](nb::handle url) { return to_python(_sync_event_file_from_url(url.is_none() ? std::string() : text_form(url))); }, any("url"));
}

}  // namespace brackenfen::sync::python

#include "python/binding.hpp"
#include "python/neighbours_backoff.hpp"
#include "sync/transport/backoff.hpp"
#include "sync/transport/events.hpp"

namespace brackenfen::sync::python {
namespace {

void bind_waits(nb::module_& module) {
  module.def("_sync_backoff_module", backoff_module);
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
      [](nb::handle attempt_index) {
        return _backoff_delay_seconds(host_seams(), static_cast<int>(integer_argument(attempt_index, "attempt_index")));
      },
      any("attempt_index"));
  module.def(
      "_emit_sync_backoff_wait",
      [](nb::handle default_surface, nb::handle attempt_index, nb::handle reason, nb::handle file_path, nb::handle wait_seconds) {
        const std::string surface = text_argument(default_surface, "default_surface");
        const auto attempt = static_cast<int>(integer_argument(attempt_index, "attempt_index"));
        const std::string cause = text_argument(reason, "reason");
        const std::string path = file_path.is_none() ? std::string() : text_form(file_path);
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

}  // namespace

void bind_events(nb::module_& module) {
  bind_waits(module);
  module.def(
      "_emit_brackenfen_sync_event", [](nb::handle event) { _emit_brackenfen_sync_event(document_argument(event, "event")); },
      any("event"));
  module.def(
      "_log_sync_event",
      [](nb::handle event_type, nb::handle file_path, nb::handle count, nb::handle reason, const nb::kwargs& fields) {
        const auto text = [](nb::handle value) { return value.is_none() ? std::string() : text_form(value); };
        _log_sync_event(text(event_type), text(file_path), loose_value(count), text(reason), document_argument(fields, "fields"));
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

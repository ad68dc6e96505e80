#include <algorithm>

#include "python/bindings/binding.hpp"
#include "sync/transport/outage_status.hpp"
#include "sync/transport/unavailable.hpp"

namespace brackenfen::sync::python {
namespace {

/// Of any iterable, its elements as they are.
List list_argument(nb::handle iterable, const char* name) {
  std::vector<Value> elements;
  for (const nb::object& element : elements_of(iterable, name)) elements.push_back(value_argument(element, name));
  return List(std::move(elements));
}

std::string url_argument(nb::handle url) { return url.is_none() ? std::string() : text_form(url); }

/// Changes the list it is given.
void append_limited(nb::handle values, nb::handle value, nb::handle limit) {
  if (!PyList_Check(values.ptr())) refuse("values", "a list", values);
  const std::int64_t kept = std::max<std::int64_t>(integer_argument(limit, "limit"), 0);
  values.attr("append")(value);
  const auto size = static_cast<std::int64_t>(nb::len(values));
  if (size > kept && PySequence_DelSlice(values.ptr(), 0, size - kept) != 0) throw nb::python_error();
}

Document emit_status(nb::handle event_type, nb::handle url, nb::handle statuses, nb::handle failures, nb::handle details,
                     nb::handle started_at) {
  const std::string type = text_argument(event_type, "event_type");
  const std::string address = url_argument(url);
  const List seen = list_argument(statuses, "statuses");
  const List failed = list_argument(failures, "failures");
  const Document described = document_argument(details, "details");
  const double started = real_argument(started_at, "started_at");
  return detached([&] {
    return _emit_sync_unavailable_status(host_seams(), *host_neighbours().bind(), type, address, seen, failed, described, started);
  });
}

}  // namespace

void bind_outages(nb::module_& module) {
  module.def("_append_limited", append_limited, any("values"), any("value"), nb::arg("limit").none() = 20);
  module.def(
      "_emit_sync_unavailable_status",
      [](nb::handle event_type, nb::handle url, nb::handle statuses, nb::handle failures, nb::handle details, nb::handle started_at) {
        return to_python(emit_status(event_type, url, statuses, failures, details, started_at));
      },
      any("event_type"), any("url"), any("statuses"), any("failures"), any("details"), any("started_at"));
  module.def(
      "_sync_unavailable_from",
      [](nb::handle url, nb::handle attempts, nb::handle statuses, nb::handle failures, nb::handle details) {
        return make_exception(_sync_unavailable_from(url_argument(url), count_argument(attempts, "attempts"),
                                                     list_argument(or_empty(statuses), "statuses"),
                                                     list_argument(or_empty(failures), "failures"), document_argument(details, "details")));
      },
      any("url"), any("attempts"), any("statuses"), any("failures"), any("details"));
  module.def(
      "_sync_unavailable_has_typed_details", [](nb::handle err) { return truth(attribute_or_none(err, "typed_details")); }, any("err"));
  module.def(
      "_sync_unavailable_action_recovery",
      [](nb::handle details) { return to_python(_sync_unavailable_action_recovery(document_argument(details, "details"))); },
      any("details"));
  module.def(
      "_sync_unavailable_next_action",
      [](nb::handle details) {
        const Document described = document_argument(details, "details");
        return to_python(_sync_unavailable_next_action(host_neighbours().bind()->reason_descriptions(), described));
      },
      any("details"));
  module.def("_sync_local_data_status", [] { return to_python(_sync_local_data_status()); });
}

}  // namespace brackenfen::sync::python

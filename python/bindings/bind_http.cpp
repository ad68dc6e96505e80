#include "python/bindings/binding.hpp"
#include "sync/transport/http.hpp"

namespace brackenfen::sync::python {

void bind_http(nb::module_& module) {
  module.attr("_SYNC_USER_AGENT") = SYNC_USER_AGENT;
  nb::list transient;
  for (const int status : TRANSIENT_HTTP_STATUSES) transient.append(status);
  module.attr("_TRANSIENT_HTTP_STATUSES") = nb::steal(PyList_AsTuple(transient.ptr()));

  module.def(
      "_http_get",
      [](nb::handle url, nb::handle token, nb::handle range_start, nb::handle range_end) {
        const std::string address = text_argument(url, "url");
        const std::string bearer = text_argument(token, "token");
        const std::int64_t start = integer_argument(range_start, "range_start");
        const std::int64_t end = integer_argument(range_end, "range_end");
        return to_python(detached([&] { return _http_get(host_seams(), *host_neighbours().bind(), address, {bearer}, start, end); }));
      },
      any("url"), any("token"), nb::arg("range_start").none() = 0, nb::arg("range_end").none() = -1);
  module.def(
      "_http_get_public",
      [](nb::handle url, nb::handle range_start, nb::handle range_end) {
        const std::string address = text_argument(url, "url");
        const std::int64_t start = integer_argument(range_start, "range_start");
        const std::int64_t end = integer_argument(range_end, "range_end");
        return to_python(detached([&] { return _http_get_public(host_seams(), *host_neighbours().bind(), address, {}, start, end); }));
      },
      any("url"), nb::arg("range_start").none() = 0, nb::arg("range_end").none() = -1);
  module.def(
      "_http_get_manifest_version",
      [](nb::handle url, nb::handle token) {
        const std::string address = text_argument(url, "url");
        const std::string bearer = text_argument(token, "token");
        return to_python(detached([&] { return _http_get_manifest_version(host_seams(), *host_neighbours().bind(), address, {bearer}); }));
      },
      any("url"), any("token"));

  module.def(
      "_is_manifest_version_url", [](nb::handle url) { return _is_manifest_version_url(text_argument(url, "url")); }, any("url"));
  module.def(
      "_parse_sync_error_body",
      [](nb::handle body) {
        const BytesArgument bytes(body, "body");
        return to_python(detached([&] { return _parse_sync_error_body(bytes.view()); }));
      },
      any("body"));
  module.def(
      "_should_retry_http_status", [](nb::handle status) { return _should_retry_http_status(value_or_text(status)); }, any("status"));
  module.def(
      "_raise_download_http_status",
      [](nb::handle file_path, nb::handle status) {
        const std::string path = text_argument(file_path, "file_path");
        const Value number = value_or_text(status);
        _raise_download_http_status(host_neighbours().bind()->auth(), path, number);
      },
      any("file_path"), any("status"));
}

}  // namespace brackenfen::sync::python

#include "python/bindings/binding.hpp"
#include "sync/transport/settings.hpp"

namespace brackenfen::sync::python {

void bind_settings(nb::module_& module) {
  module.attr("_SYNC_HTTP_TIMEOUT_SECONDS") = SYNC_HTTP_TIMEOUT_SECONDS;
  module.attr("_SYNC_MANIFEST_VERSION_HTTP_TIMEOUT_SECONDS") = SYNC_MANIFEST_VERSION_HTTP_TIMEOUT_SECONDS;
  module.attr("_SYNC_HTTP_CHUNK_BYTES") = SYNC_HTTP_CHUNK_BYTES;
  module.attr("_SYNC_HTTP_RESPONSE_READ_BYTES") = SYNC_HTTP_RESPONSE_READ_BYTES;
  module.attr("_SYNC_MAX_CONCURRENCY") = SYNC_MAX_CONCURRENCY;
  module.attr("_SYNC_MAX_UNCHANGED_CHECKSUM_REPAIRS") = SYNC_MAX_UNCHANGED_CHECKSUM_REPAIRS;
  module.attr("_SYNC_PARALLEL_TIMEOUT_SECONDS") = SYNC_PARALLEL_TIMEOUT_SECONDS;

  module.def("_sync_http_timeout_seconds", [] { return _sync_http_timeout_seconds(Environment::real()); });
  module.def("_sync_manifest_version_http_timeout_seconds",
             [] { return _sync_manifest_version_http_timeout_seconds(Environment::real()); });
  module.def("_sync_http_chunk_bytes", [] { return _sync_http_chunk_bytes(Environment::real()); });
  module.def("_sync_http_response_read_bytes", [] { return _sync_http_response_read_bytes(Environment::real()); });
  module.def("_sync_max_unchanged_checksum_repairs", [] { return _sync_max_unchanged_checksum_repairs(Environment::real()); });
  module.def("_sync_max_concurrency", [] { return _sync_max_concurrency(Environment::real()); });
  module.def(
      "_sync_parallel_timeout_seconds",
      [](nb::handle file_count, nb::handle max_workers) {
        return to_python(_sync_parallel_timeout_seconds(Environment::real(), integer_argument(file_count, "file_count"),
                                                        integer_argument(max_workers, "max_workers")));
      },
      any("file_count"), any("max_workers"));
  module.def(
      "_sync_parallel_timeout_description",
      [](nb::handle timeout_seconds) {
        return to_python(_sync_parallel_timeout_description(
            timeout_seconds.is_none() ? std::nullopt : std::optional(real_argument(timeout_seconds, "timeout_seconds"))));
      },
      any("timeout_seconds"));
}

}  // namespace brackenfen::sync::python

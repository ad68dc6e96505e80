#include "python/adapters/callables.hpp"
#include "python/bindings/bind_manager.hpp"

namespace brackenfen::sync::python {
namespace {

void download_file(const ManagerObject& self, nb::handle file_path, nb::handle file_info, nb::handle result,
                   nb::handle retry_status_callback, nb::handle target_data_dir, nb::handle backoff_surface,
                   nb::handle retry_partial_transfer, nb::handle retry_checksum_mismatch) {
  const std::string path = text_argument(file_path, "file_path");
  const Document info = document_argument(file_info, "file_info");
  SyncManager::DownloadOptions options;
  options.retry_status_callback = python::retry_status_callback(callable_or_none(retry_status_callback, "retry_status_callback"));
  if (!target_data_dir.is_none()) options.target_data_dir = path_argument(target_data_dir, "target_data_dir");
  options.backoff_surface = text_argument(backoff_surface, "backoff_surface");
  options.retry_partial_transfer = truth(retry_partial_transfer);
  options.retry_checksum_mismatch = truth(retry_checksum_mismatch);
  into_result(result, [&](SyncResult& record) { self.core->_download_file(*host_neighbours().bind(), path, info, record, options); });
}

}  // namespace

void bind_manager_downloads(nb::class_<ManagerObject>& bound) {
  bound
      .def(
          "_http_get",
          [](const ManagerObject& self, nb::handle url, nb::handle range_start, nb::handle range_end) {
            const std::string address = text_argument(url, "url");
            const std::int64_t start = integer_argument(range_start, "range_start");
            const std::int64_t end = integer_argument(range_end, "range_end");
            return to_python(self.run([&](SyncManager& core) { return core._http_get(*host_neighbours().bind(), address, start, end); }));
          },
          any("url"), nb::arg("range_start").none() = 0, nb::arg("range_end").none() = -1)
      .def(
          "_http_get_public",
          [](const ManagerObject& self, nb::handle url, nb::handle range_start, nb::handle range_end) {
            const std::string address = text_argument(url, "url");
            const std::int64_t start = integer_argument(range_start, "range_start");
            const std::int64_t end = integer_argument(range_end, "range_end");
            return to_python(
                self.run([&](SyncManager& core) { return core._http_get_public(*host_neighbours().bind(), address, start, end); }));
          },
          any("url"), nb::arg("range_start").none() = 0, nb::arg("range_end").none() = -1)
      .def("_download_file", download_file, any("file_path"), any("file_info"), any("result"),
           nb::arg("retry_status_callback") = nb::none(), nb::arg("target_data_dir") = nb::none(),
           nb::arg("backoff_surface").none() = "file_download", nb::arg("retry_partial_transfer").none() = true,
           nb::arg("retry_checksum_mismatch").none() = true)
      .def(
          "_download_files_parallel",
          [](const ManagerObject& self, nb::handle files_to_download, nb::handle result) {
            const Document files = entries_argument(files_to_download, "files_to_download");
            into_result(result, [&](SyncResult& record) { self.core->_download_files_parallel(host_neighbours().bind(), files, record); });
          },
          any("files_to_download"), any("result"))
      .def(
          "_manifest_version_probe_once",
          [](const ManagerObject& self, nb::handle url) {
            const std::string address = text_argument(url, "url");
            return to_python(
                self.run([&](SyncManager& core) { return core._manifest_version_probe_once(*host_neighbours().bind(), address); }));
          },
          any("url"))
      .def(
          "_download_manifest_superseded",
          [](const ManagerObject& self, nb::handle file_info) {
            const Document info = document_argument(file_info, "file_info");
            return self.run([&](SyncManager& core) { return core._download_manifest_superseded(*host_neighbours().bind(), info); });
          },
          any("file_info"));
}

}  // namespace brackenfen::sync::python

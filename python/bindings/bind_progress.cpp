#include "python/bindings/binding.hpp"
#include "sync/transport/progress.hpp"

namespace brackenfen::sync::python {

void bind_progress(nb::module_& module) {
  module.attr("_SYNC_PROGRESS_FILENAME") = SYNC_PROGRESS_FILENAME;
  module.def(
      "_sync_progress_path", [](nb::handle data_dir) { return path_to_python(_sync_progress_path(path_argument(data_dir, "data_dir"))); },
      any("data_dir"));
  module.def(
      "_manifest_size",
      [](nb::handle file_info) {
        const std::optional<Value> size =
            host_neighbours().bind()->sync_progress().manifest_file_size(value_argument(file_info, "file_info"));
        return nb::make_tuple(size.has_value(), to_python(size.value_or(Value(0))));
      },
      any("file_info"));
  module.def(
      "_write_sync_progress_json",
      [](nb::handle data_dir, nb::handle manifest, nb::handle files_to_download) {
        const std::string directory = path_argument(data_dir, "data_dir");
        const Value era_number = value_argument(attribute_or_none(manifest, "era_number"), "manifest.era_number");
        const Value version = value_argument(attribute_or_none(manifest, "version"), "manifest.version");
        const Document files = document_argument(files_to_download, "files_to_download");
        const Seams seams = host_seams();
        detached([&] {
          _write_sync_progress_json(*seams.files, *seams.clock, host_neighbours().bind()->sync_progress(), directory, era_number, version,
                                    files);
        });
      },
      any("data_dir"), any("manifest"), any("files_to_download"));
  module.def(
      "_remove_sync_progress_json",
      [](nb::handle data_dir) {
        const std::string directory = path_argument(data_dir, "data_dir");
        detached([&] { _remove_sync_progress_json(*host_seams().files, directory); });
      },
      any("data_dir"));
  module.def(
      "_remove_manifest_tmp_file",
      [](nb::handle data_dir, nb::handle file_path) {
        const std::string directory = path_argument(data_dir, "data_dir");
        const Value path = text_or_null(file_path);
        detached([&] { _remove_manifest_tmp_file(*host_seams().files, directory, path); });
      },
      any("data_dir"), any("file_path"));
  module.def(
      "_cleanup_sync_tmp_files",
      [](nb::handle data_dir, nb::handle preserve_relative_paths) {
        const std::string directory = path_argument(data_dir, "data_dir");
        const std::vector<Value> preserved = values_argument(or_empty(preserve_relative_paths), "preserve_relative_paths");
        detached([&] { _cleanup_sync_tmp_files(*host_seams().files, directory, preserved); });
      },
      any("data_dir"), nb::arg("preserve_relative_paths") = nb::none());
}

}  // namespace brackenfen::sync::python

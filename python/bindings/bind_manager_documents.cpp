#include "python/bindings/bind_manager.hpp"

namespace brackenfen::sync::python {
namespace {

std::optional<std::string> directory_or_absent(nb::handle target_data_dir) {
  if (target_data_dir.is_none()) return std::nullopt;
  return path_argument(target_data_dir, "target_data_dir");
}

std::optional<std::string> reason_or_absent(nb::handle reason) {
  if (reason.is_none()) return std::nullopt;
  return text_form(reason);
}

bool download_signals_index(const ManagerObject& self, nb::handle server_manifest, nb::handle target_data_dir, nb::handle result) {
  const std::optional<std::string> directory = directory_or_absent(target_data_dir);
  const ManifestInOut manifest(server_manifest);
  const auto neighbours = host_neighbours().bind();
  bool fetched = false;
  const auto download = [&](SyncResult* record) {
    fetched = self.core->_download_signals_index(*neighbours, manifest.record(), directory, record);
  };
  if (result.is_none()) {
    detached([&] { download(nullptr); });
  } else {
    into_result(result, [&](SyncResult& record) { download(&record); });
  }
  manifest.give_back();
  return fetched;
}

bool download_vocabulary(const ManagerObject& self, nb::handle server_manifest, nb::handle target_data_dir) {
  const std::optional<std::string> directory = directory_or_absent(target_data_dir);
  return ManifestInOut(server_manifest).run([&](Manifest& manifest) {
    return self.core->_download_vocabulary(*host_neighbours().bind(), manifest, directory);
  });
}

bool download_vocabulary_repair(const ManagerObject& self, nb::handle file_path, nb::handle file_info, nb::handle result) {
  const std::string path = text_argument(file_path, "file_path");
  const Document info = document_argument(file_info, "file_info");
  bool replaced = false;
  into_result(result, [&](SyncResult& record) {
    replaced = self.core->_download_validated_vocabulary_repair(*host_neighbours().bind(), path, info, record);
  });
  return replaced;
}

bool download_shuffle_seed(const ManagerObject& self, nb::handle server_manifest, nb::handle target_data_dir) {
  const std::optional<std::string> directory = directory_or_absent(target_data_dir);
  const std::shared_ptr<Manifest> manifest = manifest_argument(server_manifest);
  return self.run([&](SyncManager& core) { return core._download_shuffle_seed(*host_neighbours().bind(), *manifest, directory); });
}

void repair_vocabulary_entry(const ManagerObject& self, nb::handle server_manifest, nb::handle file_path, nb::handle body,
                             nb::handle reason, nb::handle allow_sha_mismatch) {
  const std::string path = text_argument(file_path, "file_path");
  const BytesArgument bytes(body, "body");
  const std::optional<std::string> why = reason_or_absent(reason);
  const bool allowed = truth(allow_sha_mismatch);
  ManifestInOut(server_manifest).run([&](Manifest& manifest) {
    self.core->_repair_vocabulary_manifest_entry(manifest, path, bytes.view(), why, allowed);
  });
}

void repair_signals_index_entry(const ManagerObject& self, nb::handle server_manifest, nb::handle file_path, nb::handle body,
                                nb::handle reason) {
  const std::string path = text_argument(file_path, "file_path");
  const BytesArgument bytes(body, "body");
  const std::optional<std::string> why = reason_or_absent(reason);
  ManifestInOut(server_manifest).run([&](Manifest& manifest) {
    self.core->_repair_signals_index_manifest_entry(manifest, path, bytes.view(), why);
  });
}

}  // namespace

void bind_manager_documents(nb::class_<ManagerObject>& bound) {
  bound
      .def("_download_signals_index", download_signals_index, any("server_manifest"), nb::arg("target_data_dir") = nb::none(),
           nb::arg("result") = nb::none())
      .def("_download_vocabulary", download_vocabulary, any("server_manifest"), nb::arg("target_data_dir") = nb::none())
      .def("_download_validated_vocabulary_repair", download_vocabulary_repair, any("file_path"), any("file_info"), any("result"))
      .def("_download_shuffle_seed", download_shuffle_seed, any("server_manifest"), nb::arg("target_data_dir") = nb::none())
      .def("_repair_vocabulary_manifest_entry", repair_vocabulary_entry, any("server_manifest"), any("file_path"), any("body"),
           nb::arg("reason") = nb::none(), nb::arg("allow_sha_mismatch").none() = false)
      .def("_repair_signals_index_manifest_entry", repair_signals_index_entry, any("server_manifest"), any("file_path"), any("body"),
           nb::arg("reason") = nb::none());
}

}  // namespace brackenfen::sync::python

#include "python/bindings/binding.hpp"
#include "sync/documents/signals_index.hpp"

namespace brackenfen::sync::python {
namespace {

nb::object update_to_python(const std::optional<SignalsIndexUpdate>& update) {
  if (!update) return nb::none();
  nb::dict record;
  record["relative_path"] = to_python(update->relative_path);
  record["local_path"] = path_to_python(update->local_path);
  record["kind"] = to_python(update->kind);
  record["sha256"] = to_python(update->sha256);
  return record;
}

nb::object scrub(nb::handle data_dir, nb::handle manifest_data, nb::handle missing_paths) {
  const std::string directory = path_argument(data_dir, "data_dir");
  Origins origins;
  const Document data = document_argument(manifest_data, "manifest_data", &origins);
  const std::set<std::string> missing = text_set_argument(or_empty(missing_paths), "missing_paths");
  const Seams seams = host_seams();
  const auto [kept, update] =
      detached([&] { return _scrub_missing_found_pnl_paths_from_signals_index(*seams.files, *seams.clock, directory, data, missing); });
  return nb::make_tuple(kept.same_as(data) ? nb::borrow(manifest_data) : to_python(kept, &origins), update_to_python(update));
}

bool load(nb::handle data_dir, nb::handle manifest, nb::handle fallback_data_dir) {
  const std::string directory = path_argument(data_dir, "data_dir");
  std::optional<std::string> fallback;
  if (!fallback_data_dir.is_none()) fallback = path_argument(fallback_data_dir, "fallback_data_dir");
  return ManifestInOut(manifest).run([&](Manifest& record) { return _load_manifest_signals_index(directory, record, fallback); });
}

}  // namespace

void bind_signals_index(nb::module_& module) {
  module.def(
      "_manifest_signals_index_path",
      [](nb::handle manifest) { return to_python(_manifest_signals_index_path(*manifest_argument(manifest))); }, any("manifest"));
  module.def(
      "_manifest_data_signals_index_path",
      [](nb::handle manifest_data) { return to_python(_manifest_data_signals_index_path(any_value(manifest_data, "manifest_data"))); },
      any("manifest_data"));
  module.def(
      "_apply_manifest_signals_index",
      [](nb::handle manifest, nb::handle index_data) {
        const Value index = any_value(index_data, "index_data");
        ManifestInOut(manifest).run([&](Manifest& record) { _apply_manifest_signals_index(record, index); });
      },
      any("manifest"), any("index_data"));
  module.def(
      "_validate_signals_index_bytes",
      [](nb::handle body, nb::handle manifest) {
        const BytesArgument bytes(body, "body");
        ManifestInOut(manifest).run([&](Manifest& record) { _validate_signals_index_bytes(bytes.view(), record); });
      },
      any("body"), any("manifest"));
  module.def("_load_manifest_signals_index", load, any("data_dir"), any("manifest"), nb::arg("fallback_data_dir") = nb::none());
  module.def(
      "_membership_referenced_files",
      [](nb::handle membership) { return set_of_texts(_membership_referenced_files(any_value(membership, "membership"))); },
      any("membership"));
  module.def("_scrub_missing_found_pnl_paths_from_signals_index", scrub, any("data_dir"), any("manifest_data"), any("missing_paths"));
  module.def(
      "_validate_membership_referenced_found_pnl_kinds",
      [](nb::handle manifest) {
        const std::shared_ptr<Manifest> record = manifest_argument(manifest);
        detached([&] { _validate_membership_referenced_found_pnl_kinds(*record); });
      },
      any("manifest"));
}

}  // namespace brackenfen::sync::python

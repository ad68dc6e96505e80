#include "python/bindings/binding.hpp"
#include "sync/documents/feature_paths.hpp"
#include "sync/documents/manifest_paths.hpp"

namespace brackenfen::sync::python {
namespace {

std::shared_ptr<NeighbourSet> neighbours() { return host_neighbours().bind(); }

void bind_features(nb::module_& module) {
  module.def(
      "_feature_epoch_for_expression_type",
      [](nb::handle expression_type) {
        return to_python(_feature_epoch_for_expression_type(neighbours()->era_config(), expression_type_argument(expression_type)));
      },
      any("expression_type"));
  module.def(
      "_manifest_feature_relative_path",
      [](nb::handle manifest, nb::handle feature_name, nb::handle expression_type, nb::handle named_universe) {
        const Value files = files_of(manifest);
        return to_python(_manifest_feature_relative_path(neighbours()->era_config(), files, text_or_null(feature_name),
                                                         expression_type_argument(expression_type), text_or_null(named_universe)));
      },
      any("manifest"), nb::kw_only(), any("feature_name"), nb::arg("expression_type").none() = "SIGNAL",
      nb::arg("named_universe") = nb::none());
  module.def(
      "_feature_artifact_family_prefix",
      [](nb::handle feature_name) { return to_python(_feature_artifact_family_prefix(text_or_null(feature_name))); }, any("feature_name"));
  module.def(
      "_manifest_feature_companion_relative_paths",
      [](nb::handle manifest, nb::handle relative_path) {
        return tuple_of_texts(_manifest_feature_companion_relative_paths(files_of(manifest), text_or_null(relative_path)));
      },
      any("manifest"), any("relative_path"));
  module.def(
      "_manifest_feature_prefetch_relative_paths",
      [](nb::handle manifest, nb::handle feature_name, nb::handle expression_type, nb::handle named_universe) {
        const Value files = files_of(manifest);
        return tuple_of_texts(_manifest_feature_prefetch_relative_paths(neighbours()->era_config(), files, text_or_null(feature_name),
                                                                        expression_type_argument(expression_type),
                                                                        text_or_null(named_universe)));
      },
      any("manifest"), nb::kw_only(), any("feature_name"), nb::arg("expression_type").none() = "SIGNAL",
      nb::arg("named_universe") = nb::none());
  module.def(
      "_agent_signal_group_key",
      [](nb::handle file_path, nb::handle prefix) {
        return to_python(_agent_signal_group_key(neighbours()->era_config(), text_or_null(file_path), text_argument(prefix, "prefix")));
      },
      any("file_path"), any("prefix"));
}

}  // namespace

Value expression_type_argument(nb::handle expression_type) {
  const nb::object value = optional_attribute(expression_type, "value");
  return text_form(value.is_valid() ? value : nb::borrow(expression_type));
}

void bind_paths(nb::module_& module) {
  module.def(
      "_safe_manifest_relative_path", [](nb::handle file_path) { return to_python(_safe_manifest_relative_path(text_or_null(file_path))); },
      any("file_path"));
  module.def(
      "_manifest_local_path",
      [](nb::handle data_dir, nb::handle file_path) {
        const std::string directory = path_argument(data_dir, "data_dir");
        const Value path = text_or_null(file_path);
        return path_to_python(detached([&] { return _manifest_local_path(directory, path); }));
      },
      any("data_dir"), any("file_path"));
  module.def(
      "_manifest_file_url",
      [](nb::handle server_url, nb::handle file_path, nb::handle base_url) {
        return to_python(_manifest_file_url(neighbours()->transport_security(), text_argument(server_url, "server_url"),
                                            text_or_null(file_path), text_or_null(base_url)));
      },
      any("server_url"), any("file_path"), nb::arg("base_url") = nb::none());
  module.def(
      "_manifest_base_url_uses_public_download",
      [](nb::handle server_url, nb::handle base_url) {
        return _manifest_base_url_uses_public_download(text_argument(server_url, "server_url"), text_or_null(base_url));
      },
      any("server_url"), any("base_url"));
  bind_features(module);
}

}  // namespace brackenfen::sync::python

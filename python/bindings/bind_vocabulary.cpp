#include "python/bindings/binding.hpp"
#include "sync/documents/vocabulary.hpp"

namespace brackenfen::sync::python {
namespace {

std::shared_ptr<NeighbourSet> neighbours() { return host_neighbours().bind(); }

void bind_paths_of_vocabularies(nb::module_& module) {
  module.def(
      "_validate_named_universe",
      [](nb::handle named_universe) { return to_python(_validate_named_universe(value_or_text(named_universe))); }, any("named_universe"));
  module.def(
      "_vocabulary_named_universe_from_path",
      [](nb::handle file_path) { return to_python(_vocabulary_named_universe_from_path(*neighbours(), text_or_null(file_path))); },
      any("file_path"));
  module.def(
      "_rotation_vocabulary_named_universe_from_path",
      [](nb::handle relative_path) {
        return to_python(
            neighbours()->artifact_rotation().vocabulary_named_universe_from_path(text_argument(relative_path, "relative_path")));
      },
      any("relative_path"));
  module.def(
      "_vocabulary_manifest_paths",
      [](nb::handle manifest) {
        const std::shared_ptr<Manifest> record = manifest_argument(manifest);
        return list_of_texts(detached([&] { return _vocabulary_manifest_paths(*neighbours(), *record); }));
      },
      any("manifest"));
}

void bind_tokens(nb::module_& module) {
  nb::class_<VocabularyEntryNames>(module, "_VocabularyEntryNames")
      .def("__iter__", [](nb::handle self) { return self; })
      .def("__next__", [](VocabularyEntryNames& self) {
        const std::optional<std::string_view> name = self.next();
        if (!name) throw nb::stop_iteration();
        return to_python(*name);
      });
  module.def(
      "_iter_vocabulary_entry_names", [](nb::handle value) { return _iter_vocabulary_entry_names(any_value(value, "value")); },
      any("value"));
  module.def(
      "_is_retired_function_token_name",
      [](nb::handle name) {
        return neighbours()->function_token_safety().is_retired_public_function_token_name(text_argument(name, "name"));
      },
      any("name"));
  module.def(
      "_retired_function_names_in_vocabulary",
      [](nb::handle vocabulary) {
        const Document document = document_argument(vocabulary, "vocabulary");
        return list_of_texts(detached([&] { return _retired_function_names_in_vocabulary(*neighbours(), document); }));
      },
      any("vocabulary"));
  module.def(
      "_validate_no_retired_function_tokens",
      [](nb::handle vocabulary) {
        const Document document = document_argument(vocabulary, "vocabulary");
        detached([&] { _validate_no_retired_function_tokens(*neighbours(), document); });
      },
      any("vocabulary"));
}

void bind_validation(nb::module_& module) {
  module.def(
      "_validate_vocabulary_data",
      [](nb::handle vocabulary, nb::handle expected_era_number, nb::handle named_universe) {
        const Value data = any_value(vocabulary, "vocabulary");
        const Value era = value_argument(expected_era_number, "expected_era_number");
        const Value universe = value_or_text(named_universe);
        return to_python(detached([&] { return _validate_vocabulary_data(*neighbours(), data, era, universe); }));
      },
      any("vocabulary"), any("expected_era_number"), any("named_universe"));
  module.def(
      "_validate_vocabulary_bytes",
      [](nb::handle data, nb::handle expected_era_number, nb::handle named_universe) {
        const BytesArgument bytes(data, "data");
        const Value era = value_argument(expected_era_number, "expected_era_number");
        const Value universe = value_or_text(named_universe);
        return to_python(detached([&] { return _validate_vocabulary_bytes(*neighbours(), bytes.view(), era, universe); }));
      },
      any("data"), any("expected_era_number"), nb::arg("named_universe") = nb::none());
  module.def(
      "_validate_vocabulary_file",
      [](nb::handle path, nb::handle expected_era_number, nb::handle named_universe) {
        const std::string local_path = path_argument(path, "path");
        const Value era = value_argument(expected_era_number, "expected_era_number");
        const Value universe = value_or_text(named_universe);
        return to_python(detached([&] { return _validate_vocabulary_file(*neighbours(), local_path, era, universe); }));
      },
      any("path"), any("expected_era_number"), nb::arg("named_universe") = nb::none());
}

/// Binds a validation of what a data directory holds of one manifest.
void add_directory_validation(nb::module_& module, const char* name,
                              Document (*validate)(NeighbourSet&, const std::string& data_dir, const Manifest&)) {
  module.def(
      name,
      [validate](nb::handle data_dir, nb::handle manifest) {
        const std::string directory = path_argument(data_dir, "data_dir");
        const std::shared_ptr<Manifest> record = manifest_argument(manifest);
        return to_python(detached([&] { return validate(*neighbours(), directory, *record); }));
      },
      any("data_dir"), any("manifest"));
}

}  // namespace

void bind_vocabulary(nb::module_& module) {
  module.attr("_REQUIRED_VOCABULARY_KEYS") = nb::steal(PyFrozenSet_New(list_of_texts(REQUIRED_VOCABULARY_KEYS).ptr()));
  bind_paths_of_vocabularies(module);
  bind_tokens(module);
  bind_validation(module);
  add_directory_validation(module, "_validate_functions_file", _validate_functions_file);
  add_directory_validation(module, "_validate_manifest_vocabulary_files", _validate_manifest_vocabulary_files);
  module.def(
      "_first_vocabulary_metadata",
      [](nb::handle vocabularies) { return to_python(_first_vocabulary_metadata(any_value(vocabularies, "vocabularies"))); },
      any("vocabularies"));
}

}  // namespace brackenfen::sync::python

#include "python/bindings/binding.hpp"
#include "sync/documents/signals_index.hpp"

namespace brackenfen::sync::python {
namespace {

nb::object kinds(std::initializer_list<std::string_view> names) { return tuple_of_texts(names); }

void bind_constants(nb::module_& module) {
  module.attr("_SIGNALS_INDEX_RELATIVE_PATH") = to_python(SIGNALS_INDEX_RELATIVE_PATH);
  module.attr("_SIGNALS_INDEX_SECTIONS") = tuple_of_texts(SIGNALS_INDEX_SECTIONS);
  module.attr("_FOUND_SIGNAL_PNL_KIND") = to_python(FOUND_SIGNAL_PNL_KIND);
  module.attr("_FOUND_STRATEGY_EPOCH_PNL_KIND") = to_python(FOUND_STRATEGY_EPOCH_PNL_KIND);
  module.attr("_USEFUL_SIGNAL_OS_PNL_KIND") = to_python(USEFUL_SIGNAL_OS_PNL_KIND);
  module.attr("_USEFUL_SIGNAL_STRATEGY_IS_PNL_KIND") = to_python(USEFUL_SIGNAL_STRATEGY_IS_PNL_KIND);
  module.attr("_FOUND_PNL_FILE_KINDS") = tuple_of_texts(FOUND_PNL_FILE_KINDS);
  nb::dict section_kinds;
  section_kinds["found_signals"] = to_python(FOUND_SIGNAL_PNL_KIND);
  section_kinds["found_strategies"] = to_python(FOUND_STRATEGY_EPOCH_PNL_KIND);
  module.attr("_FOUND_PNL_SECTION_KINDS") = section_kinds;
  nb::dict recoverable;
  recoverable["found_signals"] = kinds({FOUND_SIGNAL_PNL_KIND});
  recoverable["found_strategies"] = kinds({FOUND_STRATEGY_EPOCH_PNL_KIND});
  recoverable["useful_signals"] = kinds({USEFUL_SIGNAL_OS_PNL_KIND, USEFUL_SIGNAL_STRATEGY_IS_PNL_KIND});
  module.attr("_RECOVERABLE_SIGNAL_PNL_SECTION_KINDS") = recoverable;
}

}  // namespace

void bind_found_pnl(nb::module_& module) {
  bind_constants(module);
  module.def(
      "_found_pnl_section_for_path", [](nb::handle file_path) { return to_python(_found_pnl_section_for_path(text_form(file_path))); },
      any("file_path"));
  module.def(
      "_is_manifest_found_pnl_file",
      [](nb::handle file_path, nb::handle file_info) {
        const Value entry = file_info.is_none() ? Value() : Value(document_argument(file_info, "file_info"));
        return _is_manifest_found_pnl_file(text_form(file_path), entry);
      },
      any("file_path"), any("file_info"));
  module.def(
      "_normalize_found_pnl_paths",
      [](nb::handle file_paths) { return set_of_texts(_normalize_found_pnl_paths(values_argument(or_empty(file_paths), "file_paths"))); },
      any("file_paths"));
  module.def(
      "_drop_found_pnl_paths_from_membership",
      [](nb::handle section_data, nb::handle missing_paths) {
        const std::set<std::string> missing = text_set_argument(missing_paths, "missing_paths");
        if (!is_mapping(section_data)) return nb::borrow(section_data);
        Origins origins;
        const Value section = document_argument(section_data, "section_data", &origins);
        const Value result = detached([&] { return _drop_found_pnl_paths_from_membership(section, missing); });
        return result.same_as(section) ? nb::borrow(section_data) : to_python(result, &origins);
      },
      any("section_data"), any("missing_paths"));
  module.def(
      "_drop_missing_found_pnl_paths",
      [](nb::handle manifest_data, nb::handle missing_paths) {
        const std::set<std::string> missing = text_set_argument(or_empty(missing_paths), "missing_paths");
        return filtered(manifest_data, "manifest_data", [&](const Document& data) { return _drop_missing_found_pnl_paths(data, missing); });
      },
      any("manifest_data"), any("missing_paths"));
  module.def(
      "_missing_found_pnl_download_path",
      [](nb::handle exc, nb::handle files_to_download) {
        const Document plan = document_argument(files_to_download, "files_to_download");
        const int lost = PyObject_IsInstance(exc.ptr(), python_class(error_class::PermanentDownloadError).ptr());
        if (lost < 0) throw nb::python_error();
        return lost == 0 ? nb::none() : to_python(_missing_found_pnl_download_path(to_error(exc), plan));
      },
      any("exc"), any("files_to_download"));
}

}  // namespace brackenfen::sync::python

// SyncResult and VerifyResult.
#include "python/bindings/binding.hpp"
#include "python/conversion/dataclasses.hpp"
#include "sync/engine/results.hpp"

namespace brackenfen::sync::python {
namespace {

PyObject* sync_result_class = nullptr;  // owned for ever, as is the next
PyObject* verify_result_class = nullptr;

void assign(std::int64_t& field, nb::handle value, std::string_view name) { field = integer_argument(value, name); }
void assign(bool& field, nb::handle value, std::string_view) { field = truth(value); }
void assign(Value& field, nb::handle value, std::string_view name) { field = value_argument(value, name); }
void assign(TextList& field, nb::handle value, std::string_view name) { field = text_list_argument(value, name); }
// Local paths are bytes of the file system and not texts.
void assign(std::vector<std::string>& field, nb::handle value, std::string_view name) {
  field.clear();
  for (const nb::object& path : elements_of(value, name)) field.push_back(path_argument(path, name));
}

nb::object read(std::int64_t field) { return nb::int_(field); }
nb::object read(bool field) { return nb::bool_(field); }
nb::object read(const Value& field) { return to_python(field); }
nb::object read(const TextList& field) { return tuple_of_texts(field); }
nb::object read(const std::vector<std::string>& field) {
  nb::list paths;
  for (const std::string& path : field) paths.append(path_to_python(path));
  return nb::steal(PyList_AsTuple(paths.ptr()));
}

struct Field {
  const char* name;
  const char* type;
  nb::object (*get)(const SyncResult&);
  void (*set)(SyncResult&, nb::handle, std::string_view name);
};

template <auto MEMBER>
constexpr Field field(const char* name, const char* type) {
  return {name, type, [](const SyncResult& result) { return read(result.*MEMBER); },
          [](SyncResult& result, nb::handle value, std::string_view label) { assign(result.*MEMBER, value, label); }};
}

constexpr Field FIELDS[] = {
    field<&SyncResult::features_downloaded>("features_downloaded", "int"),
    field<&SyncResult::useful_signals_downloaded>("useful_signals_downloaded", "int"),
    field<&SyncResult::bytes_downloaded>("bytes_downloaded", "int"),
    field<&SyncResult::era_number>("era_number", "int"),
    field<&SyncResult::t_signal_is>("t_signal_is", "int"),
    field<&SyncResult::t_strategy_is>("t_strategy_is", "int"),
    field<&SyncResult::n_instruments>("n_instruments", "int"),
    field<&SyncResult::n_features>("n_features", "int"),
    field<&SyncResult::n_useful_signals>("n_useful_signals", "int"),
    field<&SyncResult::n_found_strategies>("n_found_strategies", "int"),
    field<&SyncResult::pnl_column_count>("pnl_column_count", "int"),
    field<&SyncResult::vocabulary_downloaded>("vocabulary_downloaded", "bool"),
    field<&SyncResult::shuffle_seed_downloaded>("shuffle_seed_downloaded", "bool"),
    field<&SyncResult::active_relative_paths>("active_relative_paths", "tuple[str, ...]"),
    field<&SyncResult::skipped_relative_paths>("skipped_relative_paths", "tuple[str, ...]"),
    field<&SyncResult::mandatory_relative_paths>("mandatory_relative_paths", "tuple[str, ...]"),
    field<&SyncResult::found_pnl_paths_downloaded>("found_pnl_paths_downloaded", "tuple[str, ...]"),
    field<&SyncResult::rotation_seed>("rotation_seed", "int | None"),
    field<&SyncResult::feature_budget_bytes>("feature_budget_bytes", "int | None"),
};

}  // namespace

nb::object sync_result_to_python(const SyncResult& result) {
  nb::dict arguments;
  for (const Field& field : FIELDS) arguments[field.name] = field.get(result);
  return nb::handle(sync_result_class)(**arguments);
}

SyncResult sync_result_argument(nb::handle object) {
  SyncResult result;
  for (const Field& field : FIELDS)
    field.set(result, required_attribute(object, field.name, "result"), std::string("result.") + field.name);
  return result;
}

void update_sync_result(nb::handle object, const SyncResult& result) {
  for (const Field& field : FIELDS) object.attr(field.name) = field.get(result);
}

nb::object verify_result_to_python(const VerifyResult& result) {
  return nb::handle(verify_result_class)(result.valid, list_of_texts(result.corrupted_files), list_of_texts(result.missing_files));
}

void bind_results(nb::module_& module) {
  std::vector<DataclassField> fields;
  const SyncResult empty{};
  for (const Field& field : FIELDS) fields.push_back({field.name, field.type, field.get(empty)});
  sync_result_class =
      make_dataclass(module, "SyncResult", fields,
                     "What a sync came to. Every field has a default.\n\n"
                     "bytes_downloaded counts whole files, resumed bytes included. Relative paths are those of the manifest;\n"
                     "found_pnl_paths_downloaded holds local paths.",
                     Mutability::Mutable)
          .release()
          .ptr();

  // One for each field: a dataclass writes the name into it.
  const auto fresh_list = [make_field = nb::module_::import_("dataclasses").attr("field")] {
    return nb::object(make_field(nb::arg("default_factory") = nb::handle(reinterpret_cast<PyObject*>(&PyList_Type))));
  };
  verify_result_class = make_dataclass(module, "VerifyResult",
                                       {{"valid", "bool", nb::bool_(true)},
                                        {"corrupted_files", "list[str]", fresh_list()},
                                        {"missing_files", "list[str]", fresh_list()}},
                                       "What an audit of the local files found, by relative path.", Mutability::Mutable)
                            .release()
                            .ptr();
}

}  // namespace brackenfen::sync::python

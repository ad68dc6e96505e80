// The module `brackenfen.sync`, which also imports as top-level `sync`: both names give the same objects.
#include <nanobind/nanobind.h>

#include <mutex>

#include "python/adapters/neighbours_backoff.hpp"
#include "python/adapters/neighbours_rotation.hpp"
#include "python/bindings/binding.hpp"
#include "python/conversion/rotation_records.hpp"
#include "python/interpreter/host.hpp"
#include "sync/base/version.hpp"

namespace brackenfen::sync::python {
namespace {

PyObject* first_module_dict = nullptr;  // of the first import; owned for ever

constexpr const char* NEIGHBOURS_ERRORS[] = {"AuthError",
                                             "LibraryUpdateRequired",
                                             "SyncBackoffCancelled",
                                             "RotationStatePayloadError",
                                             "VocabularyScopeError",
                                             "ActiveRotationStateError",
                                             "MandatoryArtifactsTooLargeError"};

/// All names of the module, sorted, whether they are there or made when they are asked for.
nb::list module_names(bool with_private) {
  nb::list names;
  for (const auto& [name, value] : nb::borrow<nb::dict>(first_module_dict))
    if (with_private || !text_form(name).starts_with('_')) names.append(name);
  for (const char* name : NEIGHBOURS_ERRORS) names.append(name);
  for (const std::string_view name : OBSERVATION_RECORDS) names.append(to_python(name));
  names.attr("sort")();
  return names;
}

/// Names that belong to the neighbours are looked up when they are asked for, so that importing this module imports no
/// neighbour; the records of what a manager is doing are made then.
nb::object module_getattr(nb::handle name) {
  const std::string wanted = text_form(name);
  if (wanted == "AuthError") return auth_error_class();
  if (wanted == "LibraryUpdateRequired") return library_update_required_class();
  if (wanted == "SyncBackoffCancelled") return backoff_cancelled_class();
  if (nb::object found = rotation_error_class(wanted); found.is_valid()) return found;
  if (nb::object found = observation_record(wanted); found.is_valid()) return found;
  throw AttributeError("module 'brackenfen.sync' has no attribute '" + wanted + "'");
}

void bind_all(nb::module_& module) {
  module.attr("__version__") = to_python(LIBRARY_VERSION);
  module.attr("__doc__") =
      "Keeps a local data directory in step with a server's distribution of it.\n\n"
      "SyncManager.get_or_create opens a directory; SyncManager.sync brings it up to date.";
  bind_errors(module);
  bind_results(module);
  bind_manifest(module);
  bind_paths(module);
  bind_settings(module);
  bind_http(module);
  bind_backoff(module);
  bind_events(module);
  bind_outages(module);
  bind_files(module);
  bind_progress(module);
  bind_found_pnl(module);
  bind_eras(module);
  bind_signals_index(module);
  bind_vocabulary(module);
  bind_shuffle_seed(module);
  bind_era_thread(module);
  bind_rotation_records(module);
  bind_rotation(module);
  bind_manager(module);
  bind_lock_holder(module);
  module.def("__getattr__", module_getattr, nb::arg("name"));
  module.def("__dir__", [] { return module_names(true); });
}

/// Imports take turns: the first one imports others meanwhile, and so lets go of the interpreter lock.
class ImportTurn {
 public:
  ImportTurn() {
    const nb::gil_scoped_release released;
    mutex().lock();
  }
  ImportTurn(const ImportTurn&) = delete;
  ImportTurn& operator=(const ImportTurn&) = delete;
  ~ImportTurn() { mutex().unlock(); }

 private:
  static std::mutex& mutex() {
    static constinit std::mutex instance;
    return instance;
  }
};

void initialise(nb::module_& module) {
  const ImportTurn turn;
  if (first_module_dict == nullptr) {
    nb::set_leak_warnings(false);  // daemon threads of a host may still refer to managers at exit
    install_host();
    // Classes and functions say where they belong, under whichever name this import runs.
    const nb::object imported_name = module.attr("__name__");
    module.attr("__name__") = "brackenfen.sync";
    bind_all(module);
    module.attr("__name__") = imported_name;
    first_module_dict = nb::object(module.attr("__dict__")).release().ptr();
    module.attr("__all__") = module_names(false);
    return;
  }
  for (const auto& [name, value] : nb::borrow<nb::dict>(first_module_dict)) {
    const std::string text = text_form(name);
    const bool shared = text == "__getattr__" || text == "__dir__" || text == "__all__" || text == "__version__" || text == "__doc__";
    if (shared || !text.starts_with("__")) nb::setattr(module, name, value);
  }
}

}  // namespace
}  // namespace brackenfen::sync::python

NB_MODULE(sync_in_main_interpreter, module) { brackenfen::sync::python::initialise(module); }

/// The one export. Refuses other interpreters before the binding library can mistake theirs for the first one's.
PyMODINIT_FUNC PyInit_sync() {
  if (PyInterpreterState_GetID(PyInterpreterState_Get()) != 0) {
    PyErr_SetString(PyExc_ImportError, "brackenfen.sync does not run in subinterpreters");
    return nullptr;
  }
  return PyInit_sync_in_main_interpreter();
}

#include "python/neighbours_lookup.hpp"

#include "python/values.hpp"

namespace brackenfen::sync::python {

nb::object NeighbourModule::loaded() const {
  PyObject* const found = PyDict_GetItemString(PyImport_GetModuleDict(), full_name_.c_str());
  return found == nullptr || found == Py_None ? nb::object() : nb::borrow(found);
}

nb::object NeighbourModule::find() {
  if (nb::object found = loaded(); found.is_valid()) {
    absent_ = false;
    return found;
  }
  if (absent_) return {};
  nb::object found = nb::steal(PyImport_ImportModule(full_name_.c_str()));
  if (found.is_valid()) return found;

  const nb::python_error error;
  if (error.matches(PyExc_ModuleNotFoundError)) {
    const std::string missing = text_form(error.value().attr("name"));
    absent_ = missing == full_name_ || missing == "brackenfen";
  }
  if (!absent_) throw nb::python_error(error);
  return {};
}

}  // namespace brackenfen::sync::python

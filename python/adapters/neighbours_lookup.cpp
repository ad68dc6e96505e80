#include "python/adapters/neighbours_lookup.hpp"

#include "python/conversion/values.hpp"

namespace brackenfen::sync::python {

nb::object NeighbourModule::loaded() const {
  // Waits for a thread that is still importing it.
  nb::object found = nb::steal(PyImport_GetModule(to_python(full_name_).ptr()));
  if (!found.is_valid() && PyErr_Occurred() != nullptr) throw nb::python_error();
  return !found.is_valid() || found.is_none() ? nb::object() : found;
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

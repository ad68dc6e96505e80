// One Python object for each live object of the core.
#pragma once

#include <unordered_map>

#include "python/interpreter/gate.hpp"

namespace brackenfen::sync::python {

/// Remembers, without keeping anything alive, which Python object stands for which object of the core.
/// Attached threads only; instances live for the whole process.
template <typename Core>
class Instances {
 public:
  /// Empty where none stands for it now.
  [[nodiscard]] nb::object find(const Core* core) const {
    const auto found = references_.find(core);
    return found == references_.end() ? nb::object() : target(found->second);
  }
  void add(const Core* core, nb::handle object) {
    forget(core);
    references_[core] = nb::steal(PyWeakref_NewRef(object.ptr(), nullptr)).release().ptr();
  }
  /// Drops the entry where its Python object is gone.
  void forget(const Core* core) {
    const auto found = references_.find(core);
    if (found == references_.end() || target(found->second).is_valid()) return;
    Py_DECREF(found->second);
    references_.erase(found);
  }

 private:
  static nb::object target(PyObject* reference) {
    PyObject* const object = PyWeakref_GetObject(reference);
    return object == nullptr || object == Py_None ? nb::object() : nb::borrow(object);
  }
  std::unordered_map<const Core*, PyObject*> references_;
};

}  // namespace brackenfen::sync::python

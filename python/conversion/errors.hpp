// Errors between Python and the core: how an error of the core is raised in Python, and how an exception of Python
// travels through the core and comes out as the very same object.
#pragma once

#include <string>
#include <utility>

#include "python/conversion/error_classes.hpp"
#include "python/interpreter/gate.hpp"
#include "sync/base/error.hpp"
#include "sync/base/threads/interrupt.hpp"

namespace brackenfen::sync::python {

/// An object of the host that the core carries without knowing it. Adapters are made of one, and keep it so that reading a
/// field gives the very same one back.
class HostObject : public HostOrigin {
 public:
  explicit HostObject(nb::handle object) : object_(object) {}
  [[nodiscard]] nb::handle object() const noexcept { return object_.get(); }

 private:
  PyRef object_;
};
[[nodiscard]] nb::object object_of(const HostOrigin& origin);

/// Makes the classes, adds them to the module and installs the one translator.
void bind_errors(nb::module_& module);

/// The exception as the core sees it. Throws Interrupted for one that is no Exception.
[[nodiscard]] Error to_error(nb::handle exception);
/// The same, thrown, for the exception just caught. Attached threads only.
[[noreturn]] void rethrow_into_core(const nb::python_error& error);

/// A new Python exception for an error of the core. Attached threads only.
[[nodiscard]] nb::object make_exception(const Error& error);
/// The exception that stands for it: the host's own, or a new one. Attached threads only.
[[nodiscard]] nb::object exception_of(const Error& error);
/// Sets the error as Python's current exception. Attached threads only.
void raise_in_python(const Error& error) noexcept;

/// Calls Python from the core, on any thread: takes the interpreter lock, and turns what `call` raises into
/// an Error or Interrupted. What it returns must be safe to destroy detached: no
/// nb::object, but a PyRef or plain data.
template <typename Call>
decltype(auto) call_python(Call&& call) {
  const Attached guard;
  try {
    return std::forward<Call>(call)();
  } catch (const nb::python_error& error) {
    rethrow_into_core(error);
  }
}

}  // namespace brackenfen::sync::python

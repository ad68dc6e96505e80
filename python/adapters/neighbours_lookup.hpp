// Finding the host's neighbouring modules.
#pragma once

#include <string>

#include "python/interpreter/gate.hpp"

namespace brackenfen::sync::python {

/// Where one module `brackenfen.<name>` is looked for. Attached threads only; one instance per module.
class NeighbourModule {
 public:
  explicit NeighbourModule(const char* name) : full_name_(std::string("brackenfen.") + name) {}

  /// The module: from sys.modules, else imported. Empty where it is absent, which is remembered until its
  /// name appears in sys.modules. Throws what any other failure of the import raised.
  [[nodiscard]] nb::object find();
  /// From sys.modules alone; empty where it is not there.
  [[nodiscard]] nb::object loaded() const;

 private:
  const std::string full_name_;
  bool absent_ = false;
};

}  // namespace brackenfen::sync::python

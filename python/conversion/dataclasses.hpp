// Records of the module made as dataclasses, so that they compare, print, copy and pickle as every host knows it.
#pragma once

#include <vector>

#include "python/interpreter/gate.hpp"

namespace brackenfen::sync::python {

/// One field: a name, a type as Python spells it, and where it has one a default.
struct DataclassField {
  const char* name;
  const char* type;
  nb::object otherwise = {};
};

enum class Mutability { Mutable, Frozen };

/// Makes the class, with `members` in its body. A type may name what `names` has.
[[nodiscard]] nb::object make_dataclass(const nb::dict& names, const char* name, const std::vector<DataclassField>& fields,
                                        const char* documentation, Mutability mutability, const nb::dict& members = nb::dict());
/// The same with what the module already has, and adds the class to the module.
[[nodiscard]] nb::object make_dataclass(nb::module_& module, const char* name, const std::vector<DataclassField>& fields,
                                        const char* documentation, Mutability mutability, const nb::dict& members = nb::dict());

}  // namespace brackenfen::sync::python

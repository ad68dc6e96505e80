#include "python/conversion/dataclasses.hpp"

namespace brackenfen::sync::python {

nb::object make_dataclass(const nb::dict& names, const char* name, const std::vector<DataclassField>& fields, const char* documentation,
                          Mutability mutability, const nb::dict& members) {
  // Types, not their texts: a dataclass looks texts up in the module that it belongs to, which is not there by that
  // name while this one is being imported by another.
  const nb::object eval = nb::module_::import_("builtins").attr("eval");
  nb::dict known;  // eval adds to what it is given
  known.update(names);
  nb::list given;
  for (const DataclassField& field : fields) {
    const nb::object type = eval(field.type, known);
    given.append(field.otherwise.is_valid() ? nb::make_tuple(field.name, type, field.otherwise) : nb::make_tuple(field.name, type));
  }
  nb::dict body;
  body.update(members);
  body["__doc__"] = documentation;
  return nb::module_::import_("dataclasses")
      .attr("make_dataclass")(name, given, nb::arg("namespace") = body, nb::arg("module") = "brackenfen.sync",
                              nb::arg("frozen") = mutability == Mutability::Frozen);
}

nb::object make_dataclass(nb::module_& module, const char* name, const std::vector<DataclassField>& fields, const char* documentation,
                          Mutability mutability, const nb::dict& members) {
  nb::object made = make_dataclass(nb::borrow<nb::dict>(module.attr("__dict__")), name, fields, documentation, mutability, members);
  module.attr(name) = made;
  return made;
}

}  // namespace brackenfen::sync::python

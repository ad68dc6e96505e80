#include "python/bindings/binding.hpp"
#include "sync/documents/shuffle_seed.hpp"

namespace brackenfen::sync::python {
namespace {

/// Names and values of any object that lists them as a mapping does; none of one that does not.
std::vector<Item> header_items(nb::handle headers) {
  const nb::object items = PyMapping_Check(headers.ptr()) == 0 ? nb::object() : optional_attribute(headers, "items");
  return items.is_valid() ? items_of_pairs(items(), "headers") : std::vector<Item>();
}

/// The very object that the header has.
nb::object header_value(nb::handle headers, nb::handle name) {
  const std::vector<Item> items = header_items(headers);
  std::vector<Member> positions;
  for (std::size_t index = 0; index < items.size(); ++index) positions.push_back({text_form(items[index].key), Value(index)});
  const Value found = _header_value(Document(std::move(positions)), text_argument(name, "name"));
  return found.is_null() ? nb::none() : items[static_cast<std::size_t>(*found.if_integer())].value;
}

}  // namespace

void bind_shuffle_seed(nb::module_& module) {
  module.def(
      "_shuffle_seed_meta_path", [](nb::handle path) { return path_to_python(_shuffle_seed_meta_path(path_argument(path, "path"))); },
      any("path"));
  module.def("_header_value", header_value, any("headers"), any("name"));
  module.def(
      "_validate_response_era_header",
      [](nb::handle headers, nb::handle expected_era_id, nb::handle artifact) {
        std::vector<Member> fields;
        for (const Item& item : header_items(headers)) fields.push_back({text_form(item.key), value_or_text(item.value)});
        _validate_response_era_header(Document(std::move(fields)), value_argument(expected_era_id, "expected_era_id"),
                                      text_argument(artifact, "artifact"));
      },
      any("headers"), any("expected_era_id"), any("artifact"));
  module.def(
      "_write_shuffle_seed_metadata",
      [](nb::handle path, nb::handle era_number) {
        const std::string local_path = path_argument(path, "path");
        const Value era = value_argument(whole_number(era_number, "era_number"), "era_number");
        const Seams seams = host_seams();
        detached([&] { _write_shuffle_seed_metadata(*seams.files, *seams.clock, local_path, era); });
      },
      any("path"), any("era_number"));
  module.def(
      "_validate_shuffle_seed_bytes", [](nb::handle data) { _validate_shuffle_seed_bytes(BytesArgument(data, "data").view()); },
      any("data"));
  module.def(
      "_validate_shuffle_seed_file",
      [](nb::handle path, nb::handle expected_era_id) {
        const std::string local_path = path_argument(path, "path");
        std::optional<Value> era;
        if (!expected_era_id.is_none()) era = value_argument(expected_era_id, "expected_era_id");
        detached([&] { _validate_shuffle_seed_file(local_path, era); });
      },
      any("path"), nb::arg("expected_era_id") = nb::none());
}

}  // namespace brackenfen::sync::python

#include "python/bindings/binding.hpp"
#include "sync/documents/shuffle_seed.hpp"

namespace brackenfen::sync::python {
namespace {

/// The headers by the text of their names; null for an object that is no mapping.
Value headers_argument(nb::handle headers) {
  if (PyMapping_Check(headers.ptr()) == 0 || !nb::hasattr(headers, "items")) return {};
  std::vector<Member> fields;
  for (nb::handle item : headers.attr("items")()) fields.push_back({text_form(item[0]), loose_value(item[1])});
  return Document(std::move(fields));
}

}  // namespace

void bind_shuffle_seed(nb::module_& module) {
  module.def(
      "_shuffle_seed_meta_path", [](nb::handle path) { return path_to_python(_shuffle_seed_meta_path(path_argument(path, "path"))); },
      any("path"));
  module.def(
      "_header_value",
      [](nb::handle headers, nb::handle name) { return to_python(_header_value(headers_argument(headers), text_argument(name, "name"))); },
      any("headers"), any("name"));
  module.def(
      "_validate_response_era_header",
      [](nb::handle headers, nb::handle expected_era_id, nb::handle artifact) {
        _validate_response_era_header(headers_argument(headers), value_argument(expected_era_id, "expected_era_id"),
                                      text_argument(artifact, "artifact"));
      },
      any("headers"), any("expected_era_id"), any("artifact"));
  module.def(
      "_write_shuffle_seed_metadata",
      [](nb::handle path, nb::handle era_number) {
        const std::string local_path = path_argument(path, "path");
        const Value era = value_argument(era_number, "era_number");
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

#include "python/bindings/binding.hpp"
#include "python/interpreter/instances.hpp"
#include "sync/documents/manifest_file.hpp"
#include "sync/documents/manifest_filters.hpp"

namespace brackenfen::sync::python {
namespace {

/// What Python sees as a Manifest. The record may outlive it, and be handed out again.
struct ManifestObject {
  std::shared_ptr<Manifest> record;

  explicit ManifestObject(std::shared_ptr<Manifest> given) : record(std::move(given)) {}
  ManifestObject(const ManifestObject&) = delete;
  ManifestObject& operator=(const ManifestObject&) = delete;
  ~ManifestObject();
};

Instances<Manifest>& instances() {
  static Instances<Manifest>& live = *new Instances<Manifest>;
  return live;
}

ManifestObject::~ManifestObject() { instances().forget(record.get()); }

std::shared_ptr<Manifest> make_record(nb::handle data) {
  const Document document = manifest_document(data, "data");
  return detached([&] { return std::make_shared<Manifest>(*host_neighbours().bind(), Value(document)); });
}

template <typename Read>
auto read(Read reader) {
  return [reader](const ManifestObject& self) { return to_python(reader(*self.record)); };
}

/// One membership section, readable and assignable.
template <Document Manifest::Sections::*SECTION>
void add_section(nb::class_<ManifestObject>& bound, const char* name) {
  bound.def_prop_rw(
      name, [](const ManifestObject& self) { return to_python(self.record->sections().*SECTION); },
      [name](ManifestObject& self, nb::handle section) {
        Manifest::Sections sections = self.record->sections();
        sections.*SECTION = document_argument(section, name);
        self.record->set_sections(std::move(sections));
      },
      "Entity id to membership entry. Empty until a signals index is applied.");
}

void bind_record(nb::module_& module) {
  nb::class_<ManifestObject> bound(module, "Manifest", nb::is_weak_referenceable(),
                                   "What one data directory must hold for one era at one generation.\n\n"
                                   "The document is sanitised on the way in; no field is converted or checked. Documents come as plain\n"
                                   "dicts, made anew at each access.");
  bound
      .def(
          "__init__",
          [](nb::pointer_and_handle<ManifestObject> self, nb::handle data) {
            new (self.p) ManifestObject(make_record(data));
            instances().add(self.p->record.get(), self.h);
          },
          any("data"), nb::sig("def __init__(self, data: collections.abc.Mapping[str, object]) -> None"),
          "Build the record of a manifest document.\n\nRaises TypeError where `data` is None or holds what JSON does not know, "
          "AttributeError where it is another value\nthat is no mapping.")
      .def_static(
          "from_dict", [](nb::handle data) { return manifest_to_python(make_record(data)); }, any("data"),
          nb::sig("def from_dict(data: collections.abc.Mapping[str, object]) -> Manifest"), "The same as Manifest(data).")
      .def("to_dict", read([](const Manifest& record) { return record.to_dict(); }), nb::sig("def to_dict(self) -> dict[str, object]"),
           "The whole sanitised document.")
      .def_prop_ro("_data", read([](const Manifest& record) { return record.data(); }))
      .def_prop_ro("files", read([](const Manifest& record) { return record.files(); }), "Relative path to file entry.")
      .def_prop_ro("era_number", read([](const Manifest& record) { return record.era_number(); }), "The era described; 0 where not given.")
      .def_prop_ro("version", read([](const Manifest& record) { return record.version(); }), "The generation; 0 where not given.")
      .def_prop_ro("base_url", read([](const Manifest& record) { return record.base_url(); }), "Where the data files lie, or None.")
      .def_prop_ro("pnl_column_count", read([](const Manifest& record) { return record.pnl_column_count(); }))
      .def_prop_ro("signals_index", read([](const Manifest& record) { return record.signals_index(); }))
      .def_prop_ro("functions", read([](const Manifest& record) { return record.functions(); }));
  add_section<&Manifest::Sections::found_signals>(bound, "found_signals");
  add_section<&Manifest::Sections::found_strategies>(bound, "found_strategies");
  add_section<&Manifest::Sections::useful_signals>(bound, "useful_signals");
}

/// Binds a test of one path and its entry, the path as text.
template <typename Test>
auto entry_test(Test test) {
  return [test](nb::handle file_path, nb::handle file_info) {
    const std::string path = text_form(file_path);
    const Value entry = value_argument(file_info, "file_info");
    return test(path, entry);
  };
}

void add_filter(nb::module_& module, const char* name, Document (*filter)(NeighbourSet& neighbours, const Document& manifest_data)) {
  module.def(
      name,
      [filter](nb::handle manifest_data) {
        return filtered(manifest_data, "manifest_data", [&](const Document& data) { return filter(*host_neighbours().bind(), data); });
      },
      any("manifest_data"));
}

void bind_filters(nb::module_& module) {
  add_filter(module, "_sanitize_manifest_data_for_sync",
             [](NeighbourSet& neighbours, const Document& data) { return _sanitize_manifest_data_for_sync(neighbours, Value(data)); });
  add_filter(module, "_drop_agent_bundle_declaration_files",
             [](NeighbourSet&, const Document& data) { return _drop_agent_bundle_declaration_files(data); });
  add_filter(module, "_drop_unsupported_runtime_module_files", _drop_unsupported_runtime_module_files);
  add_filter(module, "_drop_retired_found_pnl_long_files",
             [](NeighbourSet&, const Document& data) { return _drop_retired_found_pnl_long_files(data); });
}

/// Binds a test of the files that a manifest lists.
void add_listing_test(nb::module_& module, const char* name, bool (*test)(const Value& files)) {
  module.def(
      name,
      [test](nb::handle manifest) {
        const Value files = files_of(manifest);
        return detached([&] { return test(files); });
      },
      any("manifest"));
}

void bind_file_tests(nb::module_& module) {
  const auto neighbours = [] { return host_neighbours().bind(); };
  module.def("_is_agent_bundle_declaration_file",
             entry_test([](const std::string& path, const Value& entry) { return _is_agent_bundle_declaration_file(path, entry); }),
             any("file_path"), any("file_info"));
  module.def("_is_unsupported_runtime_module_file", entry_test([neighbours](const std::string& path, const Value& entry) {
               return _is_unsupported_runtime_module_file(*neighbours(), path, entry);
             }),
             any("_file_path"), any("file_info"));
  module.def(
      "_rotation_file_is_platform_excluded",
      [neighbours](nb::handle file_info) {
        return _rotation_file_is_platform_excluded(*neighbours(), value_argument(file_info, "file_info"));
      },
      any("file_info"));
  module.def(
      "_manifest_file_is_sync_excluded",
      [neighbours](nb::handle file_info) { return _manifest_file_is_sync_excluded(*neighbours(), value_argument(file_info, "file_info")); },
      any("file_info"));

  module.def(
      "_retired_unsupported_runtime_module_name_from_path",
      [](nb::handle file_path) { return to_python(_retired_unsupported_runtime_module_name_from_path(text_form(file_path))); },
      any("file_path"));
  module.def(
      "_is_retired_unsupported_runtime_module_path",
      [](nb::handle file_path) { return _is_retired_unsupported_runtime_module_path(text_form(file_path)); }, any("file_path"));
  module.def(
      "_is_retired_found_pnl_long_file", [](nb::handle file_path) { return _is_retired_found_pnl_long_file(text_form(file_path)); },
      any("file_path"));

  add_listing_test(module, "_manifest_has_agent_bundle_declarations", _manifest_has_agent_bundle_declarations);
  add_listing_test(module, "_manifest_has_retired_found_pnl_long_files", _manifest_has_retired_found_pnl_long_files);
}

}  // namespace

Document manifest_document(nb::handle object, const char* name, Origins* origins) {
  if (object.is_none()) refuse(name, "a mapping", object);
  const Value given = value_argument(object, name, origins);
  if (!given.is_document()) throw AttributeError(std::string(name) + " is no mapping");
  return *given.if_document();
}

std::shared_ptr<Manifest> manifest_argument(nb::handle object) {
  if (nb::isinstance<ManifestObject>(object)) return nb::cast<const ManifestObject&>(object).record;
  Document data;
  for (const char* field : {"era_number", "version", "base_url", "pnl_column_count", "signals_index", "functions"}) {
    const nb::object given = optional_attribute(object, field);
    if (given.is_valid()) data = data.with(field, value_argument(given, std::string("manifest.") + field));
  }
  data = data.with("files", files_of(object));
  const Value whole = attribute_of(object, "_data");
  for (const char* key : {"artifacts", "rotation"}) {
    if (const Document* members = whole.if_document(); members && members->contains(key)) data = data.with(key, members->get(key));
  }
  const auto section = [object](const char* name) {
    const Value value = attribute_of(object, name);
    return value.is_document() ? *value.if_document() : Document();
  };
  Manifest::Sections sections{section("found_signals"), section("found_strategies"), section("useful_signals")};
  return detached([&] {
    auto record = std::make_shared<Manifest>(*host_neighbours().bind(), Value(data));
    record->set_sections(std::move(sections));
    return record;
  });
}

ManifestInOut::ManifestInOut(nb::handle object) : object_(object), record_(manifest_argument(object)), files_before_(record_->files()) {}

void ManifestInOut::give_back_sections() const {
  if (nb::isinstance<ManifestObject>(object_)) return;
  const Manifest::Sections sections = record_->sections();
  const auto assign = [this](const char* name, const Document& section) {
    if (PyObject_SetAttrString(object_.ptr(), name, to_python(section).ptr()) == 0) return;
    const nb::python_error raised;
    if (!raised.matches(PyExc_AttributeError) && !raised.matches(PyExc_TypeError)) throw nb::python_error(raised);
    refuse("manifest", std::string("an object that takes ") + name, object_);
  };
  assign("found_signals", sections.found_signals);
  assign("found_strategies", sections.found_strategies);
  assign("useful_signals", sections.useful_signals);
}

void ManifestInOut::give_back_entries() const {
  const Value files = record_->files();
  if (nb::isinstance<ManifestObject>(object_) || files.same_as(files_before_)) return;
  const auto set_entry = [](nb::object mapping, const Member& member) { mapping[to_python(member.key)] = to_python(member.value); };
  const auto is_mutable_mapping = [](nb::handle object) { return optional_attribute(object, "setdefault").is_valid(); };
  for (const Member& member : *files.if_document()) {
    if (files_before_.is_document() && member.value.same_as(files_before_.if_document()->get(member.key))) continue;
    set_entry(required_attribute(object_, "files", "manifest"), member);
    const nb::object data = attribute_or_none(object_, "_data");
    if (!is_mutable_mapping(data)) continue;
    if (const nb::object listed = data.attr("setdefault")("files", nb::dict()); is_mutable_mapping(listed)) set_entry(listed, member);
  }
}

nb::object manifest_to_python(const std::shared_ptr<Manifest>& record) {
  if (!record) return nb::none();
  if (nb::object live = instances().find(record.get()); live.is_valid()) return live;
  nb::object made = nb::cast(new ManifestObject(record), nb::rv_policy::take_ownership);
  instances().add(record.get(), made);
  return made;
}

Value files_of(nb::handle manifest) {
  if (nb::isinstance<ManifestObject>(manifest)) return nb::cast<const ManifestObject&>(manifest).record->files();
  const nb::object files = optional_attribute(manifest, "files");
  return files.is_valid() ? any_value(files, "manifest.files") : Value(Document());
}

Value attribute_of(nb::handle manifest, const char* name) {
  return any_value(attribute_or_none(manifest, name), std::string("manifest.") + name);
}

void bind_manifest(nb::module_& module) {
  module.attr("CURRENT_PLATFORM") = to_python(current_platform());
  module.attr("_RETIRED_UNSUPPORTED_RUNTIME_MODULE_NAMES") = nb::steal(PyFrozenSet_New(nb::make_tuple("backtester", "risk_model").ptr()));
  module.attr("_RUNTIME_MODULE_EXTENSION_SUFFIXES") = nb::make_tuple(".so", ".pyd");
  module.def("_detect_platform", [] { return to_python(_detect_platform()); });
  bind_record(module);
  bind_filters(module);
  bind_file_tests(module);
  module.def(
      "_write_manifest_json",
      [](nb::handle data_dir, nb::handle manifest_data) {
        const std::string directory = path_argument(data_dir, "data_dir");
        const Document data = document_argument(manifest_data, "manifest_data");
        const Seams seams = host_seams();
        detached([&] { _write_manifest_json(*seams.files, *seams.clock, directory, data); });
      },
      any("data_dir"), any("manifest_data"));
}

}  // namespace brackenfen::sync::python

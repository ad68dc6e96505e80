#include "python/conversion/error_classes.hpp"

#include <map>
#include <string>
#include <utility>
#include <vector>

#include "python/conversion/arguments.hpp"
#include "python/conversion/values.hpp"
#include "sync/neighbours/artifact_rotation.hpp"
#include "sync/neighbours/auth.hpp"
#include "sync/neighbours/deployment.hpp"
#include "sync/neighbours/sync_backoff.hpp"
#include "sync/transport/events.hpp"
#include "sync/transport/unavailable.hpp"

namespace brackenfen::sync::python {
namespace {

struct Entry {
  const ErrorClass* error_class;
  PyObject* python_class;  // owned for ever
};

struct Classes {
  std::vector<Entry> entries;
  /// Classes of the host, by module, name and parents: no Python object is kept for them.
  std::map<std::pair<std::string, std::vector<const ErrorClass*>>, const ErrorClass*> described;
};

Classes& classes() {
  static Classes& instance = *new Classes;
  return instance;
}

// ---- the tree --------------------------------------------------------------------------------------------

void add_class(const ErrorClass& error_class, nb::handle python_class) {
  classes().entries.push_back({&error_class, nb::borrow(python_class).release().ptr()});
}

nb::object make_class(const ErrorClass& error_class, nb::handle bases, const char* documentation) {
  const std::string name = "brackenfen.sync." + std::string(error_class.name());
  nb::object made = checked(PyErr_NewExceptionWithDoc(name.c_str(), documentation, bases.ptr(), nullptr));
  add_class(error_class, made);
  return made;
}

void add_builtins() {
  const std::pair<const ErrorClass*, PyObject*> builtins[] = {
      {&error_class::Exception, PyExc_Exception},
      {&error_class::ArithmeticError, PyExc_ArithmeticError},
      {&error_class::LookupError, PyExc_LookupError},
      {&error_class::ValueError, PyExc_ValueError},
      {&error_class::TypeError, PyExc_TypeError},
      {&error_class::OverflowError, PyExc_OverflowError},
      {&error_class::AttributeError, PyExc_AttributeError},
      {&error_class::ImportError, PyExc_ImportError},
      {&error_class::RuntimeError, PyExc_RuntimeError},
      {&error_class::MemoryError, PyExc_MemoryError},
      {&error_class::UnicodeDecodeError, PyExc_UnicodeDecodeError},
      {&error_class::OSError, PyExc_OSError},
      {&error_class::FileNotFoundError, PyExc_FileNotFoundError},
      {&error_class::FileExistsError, PyExc_FileExistsError},
      {&error_class::PermissionError, PyExc_PermissionError},
      {&error_class::IsADirectoryError, PyExc_IsADirectoryError},
      {&error_class::NotADirectoryError, PyExc_NotADirectoryError},
      {&error_class::BlockingIOError, PyExc_BlockingIOError},
      {&error_class::InterruptedError, PyExc_InterruptedError},
      {&error_class::TimeoutError, PyExc_TimeoutError},
      {&error_class::ConnectionError, PyExc_ConnectionError},
      {&error_class::ConnectionResetError, PyExc_ConnectionResetError},
      {&error_class::ConnectionRefusedError, PyExc_ConnectionRefusedError},
      {&error_class::ConnectionAbortedError, PyExc_ConnectionAbortedError},
      {&error_class::BrokenPipeError, PyExc_BrokenPipeError},
  };
  for (const auto& [error_class, python_class] : builtins) add_class(*error_class, python_class);
  add_class(error_class::JSONDecodeError, nb::module_::import_("json").attr("JSONDecodeError"));
}

/// Classes of the standard library that are recognised by name, so that nothing is imported for them.
struct NamedClass {
  const char* module;
  const char* name;
  const ErrorClass* error_class;
};
constexpr NamedClass NAMED_CLASSES[] = {
    {"urllib.error", "URLError", &error_class::URLError},
    {"ssl", "SSLError", &error_class::SSLError},
    {"ssl", "SSLCertVerificationError", &error_class::SSLCertVerificationError},
};

/// A field as the core prints and reads it: any object that is no JSON value counts by its text.
Value printable(nb::handle object) {
  if (!PyList_Check(object.ptr())) return value_or_text(object);
  std::vector<Value> elements;
  for (const nb::object& element : elements_of(object, "field")) elements.push_back(value_or_text(element));
  return List(std::move(elements));
}

// ---- constructors ----------------------------------------------------------------------------------------

void init_permanent(nb::handle self, nb::object message, nb::object file_path, nb::object status) {
  python_class(error_class::SyncError).attr("__init__")(self, message);
  nb::object number = nb::steal(PyNumber_Long(status.ptr()));
  if (!number.is_valid()) {
    if (PyErr_ExceptionMatches(PyExc_Exception) == 0) throw nb::python_error();
    PyErr_Clear();
    number = nb::none();
  }
  self.attr("file_path") = file_path;
  self.attr("status") = number;
}

void init_too_large(nb::handle self, nb::object mandatory_bytes, nb::object available_bytes, nb::object selected_paths) {
  const nb::object text = nb::str("mandatory artifacts need {} more bytes, and only half of the free space, {} bytes, may be used for them")
                              .attr("format")(mandatory_bytes, available_bytes);
  python_class(error_class::DiskSpaceError).attr("__init__")(self, text);
  self.attr("mandatory_bytes") = mandatory_bytes;
  self.attr("available_bytes") = available_bytes;
  self.attr("selected_paths") = selected_paths;
}

nb::object list_copy(nb::handle list, std::string_view name) {
  nb::list copy;
  if (!truth(list)) return copy;
  for (const nb::object& element : elements_of(list, name)) copy.append(element);
  return copy;
}

std::string unavailable_message(nb::handle self) {
  Document fields = read_fields(self, UNAVAILABLE_FIELDS);
  // In Python's own sense of true, whatever kind of object it is.
  if (const nb::object retryable = attribute_or_none(self, "retryable"); !retryable.is_none()) {
    fields = fields.with("retryable", Value(truth(retryable)));
  }
  return SyncUnavailableError::_build_message(fields);
}

// The ten arguments are those of the class, in its order.
void init_unavailable(nb::handle self, nb::object url, nb::object attempts, nb::object statuses, nb::object failures,
                      nb::object server_error_code, nb::object dependency, nb::object retryable, nb::object recovery, nb::object reason,
                      nb::object typed_details) {
  const std::string url_text = truth(url) ? text_form(url) : std::string();
  self.attr("url") = to_python(url_text);
  self.attr("endpoint") = to_python(_sync_endpoint_from_url(url_text));
  self.attr("attempts") = whole_number(attempts, "attempts");
  self.attr("statuses") = list_copy(statuses, "statuses");
  self.attr("failures") = list_copy(failures, "failures");
  self.attr("server_error_code") = server_error_code;
  self.attr("dependency") = dependency;
  self.attr("retryable") = retryable;
  self.attr("recovery") = recovery;
  self.attr("reason") = reason;
  self.attr("typed_details") =
      nb::bool_(typed_details.is_none() ? !(dependency.is_none() && retryable.is_none() && recovery.is_none()) : truth(typed_details));
  nb::handle(PyExc_ConnectionError).attr("__init__")(self, to_python(unavailable_message(self)));
}

constexpr const char* TOO_LARGE_ARGUMENTS[] = {"mandatory_bytes", "available_bytes", "selected_paths"};

/// Arguments by name do not survive the default pickling, nor do several that make one text: the fields travel with the class.
nb::object reduce(nb::handle self, std::span<const char* const> arguments) {
  nb::dict fields;
  for (const char* name : arguments) fields[name] = self.attr(name);
  const nb::object make = nb::module_::import_("functools").attr("partial")(self.type(), **fields);
  return nb::make_tuple(make, nb::make_tuple(), self.attr("__dict__"));
}

template <typename Function, typename... Extra>
void add_method(nb::handle owner, const char* name, Function function, const Extra&... extra) {
  nb::setattr(owner, name, nb::cpp_function(function, nb::is_method(), nb::scope(owner), nb::name(name), extra...));
}

nb::object make_permanent_download_error(nb::handle sync_error) {
  nb::object permanent = make_class(error_class::PermanentDownloadError, sync_error,
                                    "A file's download failed for good; retrying cannot help.\n\n"
                                    "file_path: manifest-relative path or None. status: HTTP status or None.");
  add_method(permanent, "__init__", init_permanent, nb::arg("message").none(), nb::arg("file_path") = nb::none(),
             nb::arg("status") = nb::none());
  return permanent;
}

nb::object make_sync_unavailable_error(const nb::object& sync_error) {
  nb::object unavailable = make_class(error_class::SyncUnavailableError, nb::make_tuple(sync_error, nb::handle(PyExc_ConnectionError)),
                                      "A sync dependency remained unavailable, although its failure can be retried.\n\n"
                                      "url, endpoint: str. attempts: int. statuses: list of int. failures: list of class names.\n"
                                      "server_error_code, dependency, recovery, reason: str or None. retryable: bool or None.\n"
                                      "typed_details: bool, whether the server described the failure.");
  add_method(unavailable, "__init__", init_unavailable, nb::arg("url") = nb::none(), nb::arg("attempts") = nb::int_(0),
             nb::arg("statuses") = nb::none(), nb::arg("failures") = nb::none(), nb::arg("server_error_code") = nb::none(),
             nb::arg("dependency") = nb::none(), nb::arg("retryable") = nb::none(), nb::arg("recovery") = nb::none(),
             nb::arg("reason") = nb::none(), nb::arg("typed_details") = nb::none());
  add_method(unavailable, "_build_message", [](nb::handle self) { return to_python(unavailable_message(self)); });
  add_method(unavailable, "__reduce__", [](nb::handle self) { return reduce(self, UNAVAILABLE_ARGUMENTS); });
  return unavailable;
}

nb::object make_too_large_error() {
  nb::object too_large = make_class(error_class::MandatoryArtifactsTooLargeError, python_class(error_class::DiskSpaceError),
                                    "Mandatory artifacts need more than half of the free space.\n\n"
                                    "mandatory_bytes, available_bytes: int. selected_paths: tuple of relative paths.");
  add_method(too_large, "__init__", init_too_large, nb::arg("mandatory_bytes"), nb::arg("available_bytes"),
             nb::arg("selected_paths") = nb::tuple());
  add_method(too_large, "__reduce__", [](nb::handle self) { return reduce(self, TOO_LARGE_ARGUMENTS); });
  return too_large;
}

}  // namespace

nb::handle python_class(const ErrorClass& error_class) {
  for (const Entry& entry : classes().entries)
    if (entry.error_class == &error_class) return entry.python_class;
  for (const NamedClass& named : NAMED_CLASSES) {
    if (named.error_class != &error_class) continue;
    nb::object found = nb::module_::import_(named.module).attr(named.name);
    return found;  // kept alive by its module
  }
  for (const ErrorClass* parent : error_class.parents()) return python_class(*parent);
  return PyExc_Exception;
}

const ErrorClass& describe_class(nb::handle exception_class) {
  for (const Entry& entry : classes().entries)
    if (entry.python_class == exception_class.ptr()) return *entry.error_class;
  // Asked of the type itself where possible: a metaclass may answer with anything, or raise.
  auto* const type = reinterpret_cast<PyTypeObject*>(exception_class.ptr());
  const nb::object module_name = nb::steal(PyObject_GetAttrString(exception_class.ptr(), "__module__"));
  if (!module_name.is_valid()) PyErr_Clear();
  const std::string module = module_name.is_valid() && PyUnicode_Check(module_name.ptr()) ? text_form(module_name) : std::string();
  const std::string name = text_form(checked(PyType_GetName(type)));
  for (const NamedClass& named : NAMED_CLASSES)
    if (module == named.module && name == named.name) return *named.error_class;

  std::vector<const ErrorClass*> parents;
  for (nb::handle base : nb::borrow<nb::tuple>(static_cast<PyObject*>(PyType_GetSlot(type, Py_tp_bases)))) {
    if (PyObject_IsSubclass(base.ptr(), PyExc_Exception) == 1) parents.push_back(&describe_class(base));
  }
  const std::string key = module + "." + text_form(checked(PyType_GetQualName(type)));
  const ErrorClass*& described = classes().described[{key, parents}];
  if (described == nullptr) {
    struct Described {
      std::string name;
      std::vector<const ErrorClass*> parents;
      ErrorClass error_class{name, parents};
    };
    described = &(new Described{name, parents})->error_class;  // a class of errors lives for the whole process
  }
  return *described;
}

Document read_fields(nb::handle exception, std::span<const char* const> names) {
  std::vector<Member> members;
  for (const char* name : names) {
    const nb::object value = optional_attribute(exception, name);
    if (value.is_valid()) members.push_back({name, printable(value)});
  }
  return Document(std::move(members));
}

void bind_error_classes(nb::module_& module) {
  add_builtins();
  const nb::handle exception = PyExc_Exception;
  const auto publish = [&](const nb::object& made) { module.attr(made.attr("__name__")) = made; };

  const nb::object sync_error = make_class(error_class::SyncError, exception, "Base class of sync failures.");
  for (const char* name : FACTS) sync_error.attr(name) = nb::none();
  publish(sync_error);
  const std::pair<const ErrorClass*, const char*> plain[] = {
      {&error_class::ManifestSupersededError, "A newer manifest generation supersedes active downloads."},
      {&error_class::DiskSpaceError, "Insufficient disk space for a sync."},
      {&error_class::IntegrityError, "File checksum verification failed after retries."},
      {&error_class::EraError, "Era-related failure."},
      {&error_class::ManifestError, "Manifest parsing or validation failed."},
  };
  for (const auto& [error_class, documentation] : plain) publish(make_class(*error_class, sync_error, documentation));

  publish(make_permanent_download_error(sync_error));
  publish(make_sync_unavailable_error(sync_error));

  const nb::object state_error = make_class(error_class::StateError, exception, "Operation invalid for the current state. No SyncError.");
  publish(state_error);
  publish(make_class(error_class::FeatureRotationStateError, state_error, "Persisted feature-rotation state is invalid."));

  // Used where the host brings no class of its own; the module hands them out when asked for.
  static_cast<void>(make_class(error_class::AuthError, exception, "Authentication failed."));
  static_cast<void>(make_class(error_class::LibraryUpdateRequired, exception, "An era needs a newer library."));
  static_cast<void>(make_class(error_class::SyncBackoffCancelled, exception, "A wait was ended by its stop callback."));

  static_cast<void>(make_class(error_class::RotationStatePayloadError, PyExc_ValueError, "A persisted rotation state is malformed."));
  static_cast<void>(
      make_class(error_class::ActiveRotationStateError, PyExc_ValueError, "No plan can be made of the active rotation state."));
  static_cast<void>(make_class(error_class::VocabularyScopeError, sync_error, "A search cannot be matched with a vocabulary."));
  static_cast<void>(make_too_large_error());
}

}  // namespace brackenfen::sync::python

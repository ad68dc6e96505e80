#include "python/conversion/errors.hpp"

#include <map>
#include <new>
#include <span>
#include <utility>
#include <vector>

#include "python/conversion/arguments.hpp"
#include "python/conversion/values.hpp"
#include "sync/base/text/secrets.hpp"
#include "sync/base/values/convert.hpp"
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

// ---- fields ----------------------------------------------------------------------------------------------

/// A field as the core prints and reads it: any object that is no JSON value counts by its text.
Value printable(nb::handle object) {
  if (!PyList_Check(object.ptr())) return value_or_text(object);
  std::vector<Value> elements;
  for (const nb::object& element : elements_of(object, "field")) elements.push_back(value_or_text(element));
  return List(std::move(elements));
}

constexpr const char* UNAVAILABLE_FIELDS[] = {"url",        "endpoint",  "attempts", "statuses", "failures",     "server_error_code",
                                              "dependency", "retryable", "recovery", "reason",   "typed_details"};
constexpr const char* UNAVAILABLE_ARGUMENTS[] = {"url",        "attempts",  "statuses", "failures", "server_error_code",
                                                 "dependency", "retryable", "recovery", "reason",   "typed_details"};
constexpr const char* TOO_LARGE_ARGUMENTS[] = {"mandatory_bytes", "available_bytes", "selected_paths"};
constexpr const char* PERMANENT_FIELDS[] = {"file_path", "status"};
/// What any SyncError may know beside its text: attributes, None where it does not.
constexpr const char* FACTS[] = {"url", "status", "file_path", "local_era_number", "server_era_number"};
constexpr const char* OS_FIELDS[] = {"errno", "strerror", "filename", "filename2"};

Document read_fields(nb::handle exception, std::span<const char* const> names) {
  std::vector<Member> members;
  for (const char* name : names) {
    const nb::object value = optional_attribute(exception, name);
    if (value.is_valid()) members.push_back({name, printable(value)});
  }
  return Document(std::move(members));
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

// ---- raising ---------------------------------------------------------------------------------------------

/// The Python class of `error_class`, or of its nearest ancestor that has one.
nb::handle nearest_class(const ErrorClass& error_class) {
  for (const Entry& entry : classes().entries)
    if (entry.error_class == &error_class) return entry.python_class;
  for (const NamedClass& named : NAMED_CLASSES) {
    if (named.error_class != &error_class) continue;
    nb::object found = nb::module_::import_(named.module).attr(named.name);
    return found;  // kept alive by its module
  }
  for (const ErrorClass* parent : error_class.parents()) return nearest_class(*parent);
  return PyExc_Exception;
}

void raise_interrupted(const Interrupted& interrupted) noexcept {
  if (interrupted.origin) {
    const auto& exception = *static_cast<const PyRef*>(interrupted.origin.get());
    PyErr_SetRaisedException(nb::borrow(exception.get()).release().ptr());
  } else if (gate::on_exit_thread()) {
    PyErr_SetString(python_class(error_class::StateError).ptr(), "the interpreter is shutting down");
  } else {
    PyErr_SetNone(gate::exiting() ? PyExc_SystemExit : PyExc_KeyboardInterrupt);
  }
}

void translate(const std::exception_ptr& pointer, void*) {
  try {
    std::rethrow_exception(pointer);
  } catch (const Error& error) {
    raise_in_python(error);
  } catch (const Interrupted& interrupted) {
    raise_interrupted(interrupted);
  }
}

std::string safe_text(nb::handle exception) {
  const nb::object text = nb::steal(PyObject_Str(exception.ptr()));
  if (text.is_valid()) {
    const nb::object bytes = nb::steal(PyUnicode_AsEncodedString(text.ptr(), "utf-8", "backslashreplace"));
    if (bytes.is_valid()) return {PyBytes_AsString(bytes.ptr()), static_cast<std::size_t>(PyBytes_Size(bytes.ptr()))};
  }
  PyErr_Clear();
  return {};
}

}  // namespace

nb::handle python_class(const ErrorClass& error_class) { return nearest_class(error_class); }

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

Error to_error(nb::handle exception) {
  // A class of the host's may make anything when it is called.
  if (PyExceptionInstance_Check(exception.ptr()) == 0) throw TypeError("an exception was expected, not " + text_form(exception.type()));
  if (PyErr_GivenExceptionMatches(exception.ptr(), PyExc_Exception) == 0) throw Interrupted{share(exception)};
  const ErrorClass& described = describe_class(exception.type());
  Document fields;
  try {
    if (described.derives_from(error_class::SyncUnavailableError)) {
      fields = read_fields(exception, UNAVAILABLE_FIELDS);
    } else if (described.derives_from(error_class::PermanentDownloadError)) {
      fields = read_fields(exception, PERMANENT_FIELDS);
    } else if (described.derives_from(error_class::OSError)) {
      fields = read_fields(exception, OS_FIELDS);
    }
  } catch (const nb::python_error&) {  // a field that cannot be read does not take the error's place
  }
  return Error(described, safe_text(exception), std::move(fields), std::make_shared<const HostObject>(exception));
}

void rethrow_into_core(const nb::python_error& error) { throw to_error(error.value()); }

namespace {

/// Of a URL what may be shown: neither user nor query.
std::string shown_url(std::string_view url) {
  url = url.substr(0, url.find_first_of("?#"));
  const std::size_t host = url.find("//") == std::string_view::npos ? 0 : url.find("//") + 2;
  const std::size_t user_end = url.substr(0, url.find('/', host)).rfind('@');
  return std::string(url.substr(0, host)) + std::string(url.substr(user_end == std::string_view::npos ? host : user_end + 1));
}

Value fact_of(const Error& error, const char* name) {
  const Value& fact = error.fields().get(name);
  return std::string_view(name) == "url" && fact.truthy() ? Value(mask_secrets(shown_url(to_text(fact)))) : mask_secrets(fact);
}

/// The exception without notes.
nb::object bare_exception(const Error& error) {
  const nb::object text = to_python(error.text());
  const Document& fields = error.fields();
  const nb::handle python_class = nearest_class(error.error_class());
  if (error.is(error_class::SyncUnavailableError)) {
    nb::dict arguments;
    for (const char* name : UNAVAILABLE_ARGUMENTS) arguments[name] = to_python(fields.get(name));
    return python_class(**arguments);
  }
  if (error.is(error_class::PermanentDownloadError))
    return python_class(text, to_python(fields.get("file_path")), to_python(fields.get("status")));
  if (error.is(error_class::MandatoryArtifactsTooLargeError))
    return python_class(to_python(fields.get("mandatory_bytes")), to_python(fields.get("available_bytes")));
  if (error.is(error_class::JSONDecodeError))
    return python_class(to_python(fields.get("msg")), to_python(fields.get("doc")), to_python(fields.get("pos")));
  if (error.is(error_class::UnicodeDecodeError)) {
    return python_class("utf-8", bytes_to_python(fields.get("object").if_text().value_or("")), to_python(fields.get("start")),
                        to_python(fields.get("end")), to_python(fields.get("reason")));
  }
  if (error.is(error_class::OSError) && fields.contains("errno")) {
    // The class follows from the number, as it does for the system's own errors.
    const auto path = [&](const char* name) {
      return fields.contains(name) ? path_to_python(fields.get(name).if_text().value_or("")) : nb::none();
    };
    return python_class(to_python(fields.get("errno")), to_python(fields.get("strerror")), path("filename"), nb::none(), path("filename2"));
  }
  nb::object made = error.text().empty() ? python_class() : python_class(text);
  if (error.is(error_class::SyncError)) {
    for (const char* name : FACTS)
      if (fields.contains(name)) made.attr(name) = to_python(fact_of(error, name));
  }
  return made;
}

/// "url=..., status=...", of what the error knows and its text does not say.
std::string facts_of(const Error& error) {
  std::string facts;
  for (const char* name : {"url", "status", "file_path"}) {
    const Value fact = fact_of(error, name);
    const std::string shown = text_or_empty(fact);
    if (shown.empty() || error.text().find(shown) != std::string::npos) continue;
    facts += std::string(facts.empty() ? "" : ", ") + name + '=' + shown;
  }
  return facts;
}

/// What a host's author or operator can do; empty where the error's text has said it all.
std::string advice_for(const Error& error) {
  const Document& fields = error.fields();
  if (fields.contains("local_era_number")) {
    return "call trigger_era_transition(" + to_text(fields.get("server_era_number")) +
           "), or acquire() a manager whose directory has had its first pass: it follows eras by itself";
  }
  constexpr std::pair<const ErrorClass*, const char*> ADVICE[] = {
      {&error_class::SyncUnavailableError,
       "the server says that waiting does not help; the local data are intact. Ask its operator, or try again later"},
      {&error_class::LibraryUpdateRequired, "install a newer version of this library, then start the transition again"},
      {&error_class::DiskSpaceError,
       "free space on the volume of the data directory, or set feature_budget_gb in feature-rotation-settings.json"},
  };
  for (const auto& [error_class, advice] : ADVICE)
    if (error.is(*error_class)) return advice;
  return {};
}

}  // namespace

nb::object make_exception(const Error& error) {
  nb::object made = bare_exception(error);
  for (const std::string& note : {facts_of(error), advice_for(error)})
    if (!note.empty()) made.attr("add_note")(to_python(mask_secrets(note)));
  return made;
}

nb::object object_of(const HostOrigin& origin) { return nb::borrow(dynamic_cast<const HostObject&>(origin).object()); }

nb::object exception_of(const Error& error) { return error.origin() ? object_of(*error.origin()) : make_exception(error); }

void raise_in_python(const Error& error) noexcept {
  try {
    const nb::object exception = exception_of(error);
    if (error.origin()) {
      PyErr_SetRaisedException(nb::object(exception).release().ptr());
      return;
    }
    PyErr_SetObject(exception.type().ptr(), exception.ptr());
  } catch (nb::python_error& failure) {
    failure.restore();
  } catch (const std::bad_alloc&) {
    PyErr_NoMemory();
  } catch (const std::exception& failure) {
    PyErr_SetString(PyExc_RuntimeError, failure.what());
  } catch (const Interrupted& interrupted) {
    raise_interrupted(interrupted);
  }
}

void bind_errors(nb::module_& module) {
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

  const nb::object permanent = make_class(error_class::PermanentDownloadError, sync_error,
                                          "A file's download failed for good; retrying cannot help.\n\n"
                                          "file_path: manifest-relative path or None. status: HTTP status or None.");
  add_method(permanent, "__init__", init_permanent, nb::arg("message").none(), nb::arg("file_path") = nb::none(),
             nb::arg("status") = nb::none());
  publish(permanent);

  const nb::object unavailable =
      make_class(error_class::SyncUnavailableError, nb::make_tuple(sync_error, nb::handle(PyExc_ConnectionError)),
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
  publish(unavailable);

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
  const nb::object too_large = make_class(error_class::MandatoryArtifactsTooLargeError, python_class(error_class::DiskSpaceError),
                                          "Mandatory artifacts need more than half of the free space.\n\n"
                                          "mandatory_bytes, available_bytes: int. selected_paths: tuple of relative paths.");
  add_method(too_large, "__init__", init_too_large, nb::arg("mandatory_bytes"), nb::arg("available_bytes"),
             nb::arg("selected_paths") = nb::tuple());
  add_method(too_large, "__reduce__", [](nb::handle self) { return reduce(self, TOO_LARGE_ARGUMENTS); });

  nb::register_exception_translator(translate);
}

}  // namespace brackenfen::sync::python

#include "python/conversion/errors.hpp"

#include <exception>
#include <new>
#include <utility>

#include "python/conversion/arguments.hpp"
#include "python/conversion/values.hpp"
#include "sync/base/text/secrets.hpp"
#include "sync/base/values/convert.hpp"
#include "sync/neighbours/artifact_rotation.hpp"
#include "sync/neighbours/deployment.hpp"
#include "sync/transport/unavailable.hpp"

namespace brackenfen::sync::python {
namespace {

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
  const nb::handle type = python_class(error.error_class());
  if (error.is(error_class::SyncUnavailableError)) {
    nb::dict arguments;
    for (const char* name : UNAVAILABLE_ARGUMENTS) arguments[name] = to_python(fields.get(name));
    return type(**arguments);
  }
  if (error.is(error_class::PermanentDownloadError)) return type(text, to_python(fields.get("file_path")), to_python(fields.get("status")));
  if (error.is(error_class::MandatoryArtifactsTooLargeError))
    return type(to_python(fields.get("mandatory_bytes")), to_python(fields.get("available_bytes")));
  if (error.is(error_class::JSONDecodeError))
    return type(to_python(fields.get("msg")), to_python(fields.get("doc")), to_python(fields.get("pos")));
  if (error.is(error_class::UnicodeDecodeError)) {
    return type("utf-8", bytes_to_python(fields.get("object").if_text().value_or("")), to_python(fields.get("start")),
                to_python(fields.get("end")), to_python(fields.get("reason")));
  }
  if (error.is(error_class::OSError) && fields.contains("errno")) {
    // The class follows from the number, as it does for the system's own errors.
    const auto path = [&](const char* name) {
      return fields.contains(name) ? path_to_python(fields.get(name).if_text().value_or("")) : nb::none();
    };
    return type(to_python(fields.get("errno")), to_python(fields.get("strerror")), path("filename"), nb::none(), path("filename2"));
  }
  nb::object made = error.text().empty() ? type() : type(text);
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
      {&error_class::MandatoryArtifactsTooLargeError, "free space on the volume of the data directory; no budget takes any of this away"},
      {&error_class::DiskSpaceError,
       "free space on the volume of the data directory, or set feature_budget_gb in feature-rotation-settings.json"},
  };
  for (const auto& [error_class, advice] : ADVICE)
    if (error.is(*error_class)) return advice;
  return {};
}

}  // namespace

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
  bind_error_classes(module);
  nb::register_exception_translator(translate);
}

}  // namespace brackenfen::sync::python

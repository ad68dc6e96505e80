// The class tree of errors: which Python class stands for which class of the core, and what the exceptions carry.
#pragma once

#include <span>

#include "python/interpreter/gate.hpp"
#include "sync/base/error.hpp"
#include "sync/base/values/value.hpp"

namespace brackenfen::sync::python {

/// Makes our own classes and adds those to the module that a host may import by name.
void bind_error_classes(nb::module_& module);

/// The Python class of an error class, or of its nearest ancestor that has one. Borrowed, lives for the whole process.
[[nodiscard]] nb::handle python_class(const ErrorClass& error_class);

/// The family in which the core sees exceptions of a Python class: the class of ours or builtin it is, or
/// one made from its bases. Lives for the whole process.
[[nodiscard]] const ErrorClass& describe_class(nb::handle exception_class);

// Attributes by the class that has them, under the names that its fields have in the core.
inline constexpr const char* UNAVAILABLE_FIELDS[] = {"url",        "endpoint",  "attempts", "statuses", "failures",     "server_error_code",
                                                     "dependency", "retryable", "recovery", "reason",   "typed_details"};
inline constexpr const char* PERMANENT_FIELDS[] = {"file_path", "status"};
inline constexpr const char* OS_FIELDS[] = {"errno", "strerror", "filename", "filename2"};
/// What any SyncError may know beside its text: None where it does not.
inline constexpr const char* FACTS[] = {"url", "status", "file_path", "local_era_number", "server_era_number"};

/// What SyncUnavailableError is made of, by name.
inline constexpr const char* UNAVAILABLE_ARGUMENTS[] = {"url",        "attempts",  "statuses", "failures", "server_error_code",
                                                        "dependency", "retryable", "recovery", "reason",   "typed_details"};

/// Those of the attributes that the exception has; an object that is no JSON value counts by its text.
[[nodiscard]] Document read_fields(nb::handle exception, std::span<const char* const> names);

}  // namespace brackenfen::sync::python

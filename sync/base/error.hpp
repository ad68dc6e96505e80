// The error tree. One C++ type carries every error of the library; which class an error is of is data,
// because SyncUnavailableError and many host classes have two parents.
//
// Throw with the named types below (`throw ManifestError("...")`); catch `const Error&` and ask
// `error.is(error_class::SyncError)`, which also holds for a host's own subclasses.
#pragma once

#include <exception>
#include <memory>
#include <span>
#include <string>
#include <string_view>

#include "sync/base/values/value.hpp"

namespace brackenfen::sync {

/// A class of errors: a name and its parents. Instances live for the whole process and compare by address;
/// neither name nor parents are owned.
class ErrorClass {
 public:
  constexpr ErrorClass(std::string_view name, std::span<const ErrorClass* const> parents) noexcept : name_(name), parents_(parents) {}
  ErrorClass(const ErrorClass&) = delete;
  ErrorClass& operator=(const ErrorClass&) = delete;

  [[nodiscard]] constexpr std::string_view name() const noexcept { return name_; }
  [[nodiscard]] constexpr std::span<const ErrorClass* const> parents() const noexcept { return parents_; }
  /// True for the class itself too.
  [[nodiscard]] bool derives_from(const ErrorClass& ancestor) const noexcept;

 private:
  std::string_view name_;
  std::span<const ErrorClass* const> parents_;
};

/// The host's own exception behind an Error, kept so that the very same object leaves the core again.
/// The boundary defines what it holds.
class HostOrigin {
 public:
  virtual ~HostOrigin() = default;
};

class Error : public std::exception {
 public:
  Error(const ErrorClass& error_class, std::string text, Document fields = {}, std::shared_ptr<const HostOrigin> origin = nullptr);

  [[nodiscard]] const ErrorClass& error_class() const noexcept { return *state_->error_class; }
  [[nodiscard]] bool is(const ErrorClass& ancestor) const noexcept { return error_class().derives_from(ancestor); }
  [[nodiscard]] const std::string& text() const noexcept { return state_->text; }
  /// Further fields by name; what a class carries stands with its type below.
  [[nodiscard]] const Document& fields() const noexcept { return state_->fields; }
  [[nodiscard]] const std::shared_ptr<const HostOrigin>& origin() const noexcept { return state_->origin; }
  [[nodiscard]] const char* what() const noexcept override { return state_->text.c_str(); }

 private:
  struct State {
    const ErrorClass* error_class;
    std::string text;
    Document fields;
    std::shared_ptr<const HostOrigin> origin;
  };
  std::shared_ptr<const State> state_;  // shared, so that copying an exception cannot throw
};

namespace error_class {
// The host language's own families.
extern const ErrorClass Exception, ArithmeticError, LookupError, ValueError, TypeError, OverflowError, AttributeError, ImportError,
    RuntimeError, MemoryError, UnicodeDecodeError, JSONDecodeError;
extern const ErrorClass OSError, FileNotFoundError, FileExistsError, PermissionError, IsADirectoryError, NotADirectoryError,
    BlockingIOError, InterruptedError, TimeoutError, ConnectionError, ConnectionResetError, ConnectionRefusedError, ConnectionAbortedError,
    BrokenPipeError;
/// Failures below HTTP that are no plain system error: a name that does not resolve, a TLS handshake or
/// certificate that fails. Both count as OSError, as they do in the host language.
extern const ErrorClass URLError, SSLError, SSLCertVerificationError;
/// A URLError: the server sends its clients where they must not go.
extern const ErrorClass RedirectRefusedError;

extern const ErrorClass SyncError, PermanentDownloadError, SyncUnavailableError, ManifestSupersededError, DiskSpaceError, IntegrityError,
    EraError, ManifestError, StateError, FeatureRotationStateError;
}  // namespace error_class

namespace detail {
template <const ErrorClass& CLASS>
class ErrorOf : public Error {
 public:
  explicit ErrorOf(std::string text) : Error(CLASS, std::move(text)) {}
};
}  // namespace detail

using ValueError = detail::ErrorOf<error_class::ValueError>;
using TypeError = detail::ErrorOf<error_class::TypeError>;
using OverflowError = detail::ErrorOf<error_class::OverflowError>;
using RuntimeError = detail::ErrorOf<error_class::RuntimeError>;
using ImportError = detail::ErrorOf<error_class::ImportError>;
using AttributeError = detail::ErrorOf<error_class::AttributeError>;
using TimeoutError = detail::ErrorOf<error_class::TimeoutError>;

using SyncError = detail::ErrorOf<error_class::SyncError>;
using ManifestSupersededError = detail::ErrorOf<error_class::ManifestSupersededError>;
using DiskSpaceError = detail::ErrorOf<error_class::DiskSpaceError>;
using IntegrityError = detail::ErrorOf<error_class::IntegrityError>;
using EraError = detail::ErrorOf<error_class::EraError>;
using ManifestError = detail::ErrorOf<error_class::ManifestError>;
using StateError = detail::ErrorOf<error_class::StateError>;
using FeatureRotationStateError = detail::ErrorOf<error_class::FeatureRotationStateError>;

/// Fields: "file_path" (text or null) and "status" (integer, or null where it does not convert).
class PermanentDownloadError : public Error {
 public:
  explicit PermanentDownloadError(std::string text, const Value& file_path = {}, const Value& status = {});
};

/// An IntegrityError with the field "file_path".
[[nodiscard]] Error integrity_error(std::string text, std::string_view file_path);

/// Text that does not decode. Fields: "object" (the bytes as text), "start", "end", "reason".
class UnicodeDecodeError : public Error {
 public:
  UnicodeDecodeError(std::string_view bytes, std::size_t start, std::string reason);
};

/// Fields: "msg", "doc" (the text), "pos" (in code points). The text ends in ": line L column C (char P)".
class JSONDecodeError : public Error {
 public:
  JSONDecodeError(std::string message, std::string_view document, std::size_t byte_offset);
};

/// The family of an errno value: FileNotFoundError for ENOENT, ... , OSError for the rest.
[[nodiscard]] const ErrorClass& os_error_class(int error_number) noexcept;

/// A failed system call, with Python's text: "[Errno 2] No such file or directory: 'path'".
/// Fields: "errno", "strerror", "filename" and, for a rename, "filename2".
[[nodiscard]] Error os_error(int error_number, std::string_view path = {}, std::string_view second_path = {});

}  // namespace brackenfen::sync

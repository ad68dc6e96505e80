#include "sync/base/error.hpp"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <string>

#include "sync/base/text/secrets.hpp"
#include "sync/base/values/convert.hpp"

namespace brackenfen::sync {

bool ErrorClass::derives_from(const ErrorClass& ancestor) const noexcept {
  return this == &ancestor ||
         std::any_of(parents_.begin(), parents_.end(), [&](const ErrorClass* parent) { return parent->derives_from(ancestor); });
}

Error::Error(const ErrorClass& error_class, std::string text, Document fields, std::shared_ptr<const HostOrigin> origin)
    : state_([&] {
        // What a server said may be in them. The host's own exception stays as it is.
        const Value shown = origin ? Value(std::move(fields)) : mask_secrets(Value(std::move(fields)));
        return std::make_shared<const State>(State{&error_class, mask_secrets(std::move(text)), *shown.if_document(), std::move(origin)});
      }()) {}

namespace error_class {
namespace {

/// The parents of a class, in storage that lives as long as the process.
template <const ErrorClass&... PARENTS>
constexpr const ErrorClass* PARENTS_OF[] = {&PARENTS...};

}  // namespace

// clang-format off
constinit const ErrorClass Exception{"Exception", {}};
constinit const ErrorClass ArithmeticError{"ArithmeticError", PARENTS_OF<Exception>};
constinit const ErrorClass LookupError{"LookupError", PARENTS_OF<Exception>};
constinit const ErrorClass ValueError{"ValueError", PARENTS_OF<Exception>};
constinit const ErrorClass TypeError{"TypeError", PARENTS_OF<Exception>};
constinit const ErrorClass OverflowError{"OverflowError", PARENTS_OF<ArithmeticError>};
constinit const ErrorClass AttributeError{"AttributeError", PARENTS_OF<Exception>};
constinit const ErrorClass ImportError{"ImportError", PARENTS_OF<Exception>};
constinit const ErrorClass RuntimeError{"RuntimeError", PARENTS_OF<Exception>};
constinit const ErrorClass MemoryError{"MemoryError", PARENTS_OF<Exception>};
constinit const ErrorClass UnicodeDecodeError{"UnicodeDecodeError", PARENTS_OF<ValueError>};
constinit const ErrorClass JSONDecodeError{"JSONDecodeError", PARENTS_OF<ValueError>};

constinit const ErrorClass OSError{"OSError", PARENTS_OF<Exception>};
constinit const ErrorClass FileNotFoundError{"FileNotFoundError", PARENTS_OF<OSError>};
constinit const ErrorClass FileExistsError{"FileExistsError", PARENTS_OF<OSError>};
constinit const ErrorClass PermissionError{"PermissionError", PARENTS_OF<OSError>};
constinit const ErrorClass IsADirectoryError{"IsADirectoryError", PARENTS_OF<OSError>};
constinit const ErrorClass NotADirectoryError{"NotADirectoryError", PARENTS_OF<OSError>};
constinit const ErrorClass BlockingIOError{"BlockingIOError", PARENTS_OF<OSError>};
constinit const ErrorClass InterruptedError{"InterruptedError", PARENTS_OF<OSError>};
constinit const ErrorClass TimeoutError{"TimeoutError", PARENTS_OF<OSError>};
constinit const ErrorClass ConnectionError{"ConnectionError", PARENTS_OF<OSError>};
constinit const ErrorClass ConnectionResetError{"ConnectionResetError", PARENTS_OF<ConnectionError>};
constinit const ErrorClass ConnectionRefusedError{"ConnectionRefusedError", PARENTS_OF<ConnectionError>};
constinit const ErrorClass ConnectionAbortedError{"ConnectionAbortedError", PARENTS_OF<ConnectionError>};
constinit const ErrorClass BrokenPipeError{"BrokenPipeError", PARENTS_OF<ConnectionError>};
constinit const ErrorClass URLError{"URLError", PARENTS_OF<OSError>};
constinit const ErrorClass RedirectRefusedError{"RedirectRefusedError", PARENTS_OF<URLError>};
constinit const ErrorClass SSLError{"SSLError", PARENTS_OF<OSError>};
constinit const ErrorClass SSLCertVerificationError{"SSLCertVerificationError", PARENTS_OF<SSLError, ValueError>};

constinit const ErrorClass SyncError{"SyncError", PARENTS_OF<Exception>};
constinit const ErrorClass PermanentDownloadError{"PermanentDownloadError", PARENTS_OF<SyncError>};
constinit const ErrorClass SyncUnavailableError{"SyncUnavailableError", PARENTS_OF<SyncError, ConnectionError>};
constinit const ErrorClass ManifestSupersededError{"ManifestSupersededError", PARENTS_OF<SyncError>};
constinit const ErrorClass DiskSpaceError{"DiskSpaceError", PARENTS_OF<SyncError>};
constinit const ErrorClass IntegrityError{"IntegrityError", PARENTS_OF<SyncError>};
constinit const ErrorClass EraError{"EraError", PARENTS_OF<SyncError>};
constinit const ErrorClass ManifestError{"ManifestError", PARENTS_OF<SyncError>};
constinit const ErrorClass StateError{"StateError", PARENTS_OF<Exception>};
constinit const ErrorClass FeatureRotationStateError{"FeatureRotationStateError", PARENTS_OF<StateError>};
// clang-format on

}  // namespace error_class

namespace {

Value status_or_null(const Value& status) {
  try {
    return to_integer(status);
  } catch (const Error&) {
    return {};
  }
}

/// How many of the bytes at `start` belong to the broken sequence: those that could still have become a character.
std::size_t broken_sequence_size(std::string_view bytes, std::size_t start) noexcept {
  const auto byte = [&](std::size_t offset) {
    return start + offset < bytes.size() ? static_cast<unsigned char>(bytes[start + offset]) : 0U;
  };
  const unsigned lead = byte(0);
  const std::size_t wanted = lead >= 0xF0 && lead <= 0xF4 ? 4 : (lead & 0xF0U) == 0xE0U ? 3 : 1;
  if (wanted == 1) return 1;
  const unsigned lowest = lead == 0xE0 ? 0xA0 : lead == 0xF0 ? 0x90 : 0x80;
  const unsigned highest = lead == 0xED ? 0x9F : lead == 0xF4 ? 0x8F : 0xBF;
  if (byte(1) < lowest || byte(1) > highest) return 1;
  return wanted == 4 && (byte(2) & 0xC0U) == 0x80U ? 3 : 2;
}

std::string unicode_error_text(std::string_view bytes, std::size_t start, std::size_t size, const std::string& reason) {
  if (size > 1) return fmt::format("'utf-8' codec can't decode bytes in position {}-{}: {}", start, start + size - 1, reason);
  const unsigned byte = start < bytes.size() ? static_cast<unsigned char>(bytes[start]) : 0U;
  return fmt::format("'utf-8' codec can't decode byte 0x{:02x} in position {}: {}", byte, start, reason);
}

std::size_t count_code_points(std::string_view text) noexcept {
  return static_cast<std::size_t>(
      std::count_if(text.begin(), text.end(), [](char c) { return (static_cast<unsigned char>(c) & 0xC0U) != 0x80U; }));
}

/// Where a byte offset lies for a reader: all three count code points.
struct JsonPosition {
  std::size_t line;
  std::size_t column;
  std::size_t position;

  JsonPosition(std::string_view document, std::size_t byte_offset) {
    const std::string_view before = document.substr(0, byte_offset);
    const std::size_t line_start = before.rfind('\n') + 1;  // npos + 1 is the start of the text
    line = static_cast<std::size_t>(std::count(before.begin(), before.end(), '\n')) + 1;
    column = count_code_points(before.substr(line_start)) + 1;
    position = count_code_points(before);
  }
};

std::string os_error_text(int error_number, const std::string& description, std::string_view path, std::string_view second_path) {
  std::string text = fmt::format("[Errno {}] {}", error_number, description);
  if (!path.empty()) text += ": " + to_quoted(path);
  if (!second_path.empty()) text += " -> " + to_quoted(second_path);
  return text;
}

}  // namespace

PermanentDownloadError::PermanentDownloadError(std::string text, const Value& file_path, const Value& status)
    : Error(error_class::PermanentDownloadError, std::move(text), {{"file_path", file_path}, {"status", status_or_null(status)}}) {}

Error integrity_error(std::string text, std::string_view file_path) {
  return {error_class::IntegrityError, std::move(text), {{"file_path", file_path}}};
}

UnicodeDecodeError::UnicodeDecodeError(std::string_view bytes, std::size_t start, std::string reason)
    : Error(error_class::UnicodeDecodeError, unicode_error_text(bytes, start, broken_sequence_size(bytes, start), reason),
            {{"object", bytes}, {"start", start}, {"end", start + broken_sequence_size(bytes, start)}, {"reason", reason}}) {}

JSONDecodeError::JSONDecodeError(std::string message, std::string_view document, std::size_t byte_offset)
    : Error([&] {
        const JsonPosition where(document, byte_offset);
        return Error(error_class::JSONDecodeError,
                     fmt::format("{}: line {} column {} (char {})", message, where.line, where.column, where.position),
                     {{"msg", message}, {"doc", document}, {"pos", where.position}});
      }()) {}

const ErrorClass& os_error_class(int error_number) noexcept {
  switch (error_number) {
    case ENOENT:
      return error_class::FileNotFoundError;
    case EEXIST:
      return error_class::FileExistsError;
    case EACCES:
    case EPERM:
      return error_class::PermissionError;
    case EISDIR:
      return error_class::IsADirectoryError;
    case ENOTDIR:
      return error_class::NotADirectoryError;
    case EAGAIN:
    case EALREADY:
    case EINPROGRESS:
      return error_class::BlockingIOError;
    case EINTR:
      return error_class::InterruptedError;
    case ETIMEDOUT:
      return error_class::TimeoutError;
    case ECONNRESET:
      return error_class::ConnectionResetError;
    case ECONNREFUSED:
      return error_class::ConnectionRefusedError;
    case ECONNABORTED:
      return error_class::ConnectionAbortedError;
    case EPIPE:
    case ESHUTDOWN:
      return error_class::BrokenPipeError;
    default:
      return error_class::OSError;
  }
}

Error os_error(int error_number, std::string_view path, std::string_view second_path) {
  // The description that no locale translates, from a table that any thread may read.
  const char* const known = ::strerrordesc_np(error_number);
  const std::string description = known != nullptr ? known : fmt::format("Unknown error {}", error_number);
  std::vector<Member> fields{{"errno", error_number}, {"strerror", description}, {"filename", path.empty() ? Value() : Value(path)}};
  if (!second_path.empty()) fields.push_back({"filename2", second_path});
  return Error(os_error_class(error_number), os_error_text(error_number, description, path, second_path), Document(std::move(fields)));
}

}  // namespace brackenfen::sync

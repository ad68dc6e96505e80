#include "sync/base/log.hpp"

#include <fmt/printf.h>
#include <unistd.h>

#include <atomic>
#include <cerrno>
#include <optional>

#include "sync/base/error.hpp"
#include "sync/base/immortal.hpp"
#include "sync/base/text/secrets.hpp"
#include "sync/base/values/convert.hpp"

namespace brackenfen::sync {
namespace {

const char* level_name(LogLevel level) noexcept {
  switch (level) {
    case LogLevel::Debug:
      return "DEBUG";
    case LogLevel::Info:
      return "INFO";
    case LogLevel::Warning:
      return "WARNING";
    case LogLevel::Error:
      return "ERROR";
  }
  return "";
}

/// Standard error from Warning up, one write(2) for each record so that lines of several threads stay whole.
class StandardErrorSink : public LogSink {
 public:
  bool enabled(LogLevel level) override { return level >= LogLevel::Warning; }

  void write(const LogRecord& record) override {
    std::string line = std::string(level_name(record.level)) + ' ' + LOGGER_NAME + ": " + format_message(record) + '\n';
    std::string_view rest = line;
    while (!rest.empty()) {
      const ssize_t count = ::write(STDERR_FILENO, rest.data(), rest.size());
      if (count >= 0) {
        rest.remove_prefix(static_cast<std::size_t>(count));
      } else if (errno != EINTR) {
        return;  // a log that cannot be written has nobody to tell
      }
    }
  }
};

LogSink& default_sink() noexcept {
  static const Immortal<StandardErrorSink> sink;
  return *sink;
}

constinit std::atomic<LogSink*> current_sink{nullptr};

/// One conversion of a format: "%-5.1f" has "-5.1" before its letter.
struct Conversion {
  std::string options;
  char letter;
  std::size_t size;
};

std::optional<Conversion> conversion_at(std::string_view format) {
  const std::size_t letter = format.find_first_not_of("-+ #0123456789.", 1);
  if (letter == std::string_view::npos) return std::nullopt;
  return Conversion{std::string(format.substr(1, letter - 1)), format[letter], letter + 1};
}

std::string convert(const Conversion& conversion, const Value& argument) {
  const std::string directive = '%' + conversion.options;
  switch (conversion.letter) {
    case 's':
      return fmt::sprintf(directive + 's', to_text(argument));
    case 'r':
      return fmt::sprintf(directive + 's', to_quoted(argument));
    case 'd':
    case 'i': {
      const Value integer = to_integer(argument);
      if (const auto number = integer.if_integer()) return fmt::sprintf(directive + 'd', *number);
      return to_text(integer);
    }
    case 'x':
      return fmt::sprintf(directive + 'x', to_int64(argument));
    case 'e':
    case 'f':
    case 'g':
      return fmt::sprintf(directive + conversion.letter, to_real(argument));
    default:
      return directive + conversion.letter;
  }
}

}  // namespace

LogSink* set_log_sink(LogSink* sink) noexcept {
  LogSink* const previous = current_sink.exchange(sink, std::memory_order_acq_rel);
  return previous == nullptr ? &default_sink() : previous;
}

LogSink& log_sink() noexcept {
  LogSink* const sink = current_sink.load(std::memory_order_acquire);
  return sink == nullptr ? default_sink() : *sink;
}

namespace {

std::string formatted(const LogRecord& record) {
  std::string message;
  std::string_view rest = record.format;
  auto argument = record.arguments.begin();
  for (;;) {
    const std::size_t percent = rest.find('%');
    message += rest.substr(0, percent);
    if (percent == std::string_view::npos) return message;
    rest.remove_prefix(percent);
    const std::optional<Conversion> conversion = conversion_at(rest);
    const std::string_view directive = rest.substr(0, conversion ? conversion->size : rest.size());
    rest.remove_prefix(directive.size());
    if (conversion && conversion->letter == '%') {
      message += '%';
    } else if (!conversion || argument == record.arguments.end()) {
      message += directive;  // a log call never fails its caller
    } else {
      try {
        message += convert(*conversion, *argument);
      } catch (const Error&) {
        message += to_text(*argument);
      }
      ++argument;
    }
  }
}

}  // namespace

std::string format_message(const LogRecord& record) { return mask_secrets(formatted(record)); }

}  // namespace brackenfen::sync

// The one logger. A call carries its format and its arguments as values; whether and how they become text
// is the sink's affair, so a level that is off costs one virtual call.
//
// Never log while holding a leaf lock: a sink may take the host's interpreter lock.
#pragma once

#include <string>
#include <vector>

#include "sync/base/values/value.hpp"

namespace brackenfen::sync {

class Error;
class HostOrigin;

inline constexpr const char* LOGGER_NAME = "brackenfen.sync";

enum class LogLevel { Debug = 10, Info = 20, Warning = 30, Error = 40 };

struct LogRecord {
  LogLevel level;
  const char* format;  ///< printf style as Python's logging knows it: %s, %r, %d, %.1f
  std::vector<Value> arguments;
  const Document* event = nullptr;      ///< the structured event that this record reports, if it does
  const Error* error = nullptr;         ///< what the last argument is the text of; its stack, where the host has one, goes along
  const HostOrigin* subject = nullptr;  ///< the host's object that the first argument stands for, if it does
};

/// Called on any thread, several at once.
class LogSink {
 public:
  virtual ~LogSink() = default;
  [[nodiscard]] virtual bool enabled(LogLevel level) = 0;
  virtual void write(const LogRecord& record) = 0;
};

/// The sink in force: standard error from Warning up, until a program sets another. The sink is not owned
/// and must outlive every thread that may log; nullptr restores the default. Returns the one before.
LogSink* set_log_sink(LogSink* sink) noexcept;
[[nodiscard]] LogSink& log_sink() noexcept;

/// The record's message as Python's logging formats it.
[[nodiscard]] std::string format_message(const LogRecord& record);

template <typename... Arguments>
void log(LogLevel level, const char* format, const Arguments&... arguments) {
  LogSink& sink = log_sink();
  if (!sink.enabled(level)) return;
  sink.write(LogRecord{level, format, std::vector<Value>{Value(arguments)...}, nullptr});
}
template <typename... Arguments>
void log_debug(const char* format, const Arguments&... arguments) {
  log(LogLevel::Debug, format, arguments...);
}
template <typename... Arguments>
void log_info(const char* format, const Arguments&... arguments) {
  log(LogLevel::Info, format, arguments...);
}
template <typename... Arguments>
void log_warning(const char* format, const Arguments&... arguments) {
  log(LogLevel::Warning, format, arguments...);
}
/// The same with the stack of `error`, whose text is the last argument. `subject` is the host's object that the first one
/// stands for, or nullptr.
template <typename... Arguments>
void log_warning_with_stack(const Error& error, const HostOrigin* subject, const char* format, const Arguments&... arguments) {
  LogSink& sink = log_sink();
  if (!sink.enabled(LogLevel::Warning)) return;
  sink.write(LogRecord{LogLevel::Warning, format, std::vector<Value>{Value(arguments)...}, nullptr, &error, subject});
}

}  // namespace brackenfen::sync

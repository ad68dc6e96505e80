#include "sync/neighbours/logging_style.hpp"

#include "sync/base/log.hpp"
#include "sync/base/values/json.hpp"

namespace brackenfen::sync {
namespace {

LogLevel log_level(std::string_view name) {
  if (name == "debug") return LogLevel::Debug;
  if (name == "info") return LogLevel::Info;
  return name == "warning" ? LogLevel::Warning : LogLevel::Error;
}

class BuiltinLoggingStyle final : public LoggingStyle {
 public:
  void log_library_surface_event(const SurfaceEvent& event) const override {
    log(log_level(event.level), "%s: %s/%s %s (%s, %s:%d)", event.message, event.sub_service, event.component,
        write_json(event.metadata, JsonForm::SortedKeys), event.source_function, event.source_file, event.source_line);
  }
};

}  // namespace

const LoggingStyle& LoggingStyle::builtin() {
  static const LoggingStyle& style = *new BuiltinLoggingStyle;
  return style;
}

}  // namespace brackenfen::sync

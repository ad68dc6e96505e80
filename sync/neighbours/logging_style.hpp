// Telling people of a failure in the wording that all surfaces of the host share.
#pragma once

#include <string_view>

#include "sync/base/values/value.hpp"

namespace brackenfen::sync {

/// What a surface shows. All but message and level is passed by name.
struct SurfaceEvent {
  std::string_view message;
  std::string_view level;  ///< "error", "warning", ...
  std::string_view sub_service;
  std::string_view component;
  Document metadata;
  std::string_view source_function;
  std::string_view source_file;  ///< from the top of the source tree
  int source_line = 0;
};

class LoggingStyle {
 public:
  virtual ~LoggingStyle() = default;
  /// Built in: one record of the library's logger.
  virtual void log_library_surface_event(const SurfaceEvent& event) const = 0;

  static const LoggingStyle& builtin();
};

}  // namespace brackenfen::sync

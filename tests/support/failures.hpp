// What an action ends with: the error, or its class and text for comparison with a table.
#pragma once

#include <optional>
#include <string>

#include "sync/base/error.hpp"

namespace brackenfen::sync {

/// The error that `body` ends with, or none.
template <typename Body>
std::optional<Error> error_of(Body body) {
  try {
    static_cast<void>(body());
  } catch (const Error& error) {
    return error;
  }
  return std::nullopt;
}

/// "Class: text" of that error; empty for none.
template <typename Body>
std::string failure_of(Body body) {
  const std::optional<Error> error = error_of(body);
  return error ? std::string(error->error_class().name()) + ": " + error->text() : std::string();
}

}  // namespace brackenfen::sync

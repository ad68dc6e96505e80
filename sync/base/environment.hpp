// The process environment, as a seam. Read anew at every use.
#pragma once

#include <optional>
#include <string>

namespace brackenfen::sync {

class Environment {
 public:
  virtual ~Environment() = default;
  /// The variable's value, or absent where it is unset. Any thread.
  [[nodiscard]] virtual std::optional<std::string> get(const char* name) = 0;

  static Environment& real();
};

}  // namespace brackenfen::sync

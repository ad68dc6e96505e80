// Which function tokens must not be used any more.
#pragma once

#include <string_view>

namespace brackenfen::sync {

class FunctionTokenSafety {
 public:
  virtual ~FunctionTokenSafety() = default;
  /// Whether the token of that name is retired; built in: none is.
  [[nodiscard]] virtual bool is_retired_public_function_token_name(std::string_view name) const = 0;

  static const FunctionTokenSafety& builtin();
};

}  // namespace brackenfen::sync

// Authentication failures belong to the neighbouring `auth` module; the host may bring its own class.
#pragma once

#include <string>

#include "sync/base/error.hpp"

namespace brackenfen::sync {

namespace error_class {
/// The built-in class, used where the host has none.
extern const ErrorClass AuthError;
}  // namespace error_class

class Auth {
 public:
  virtual ~Auth() = default;
  /// The class to catch by.
  [[nodiscard]] virtual const ErrorClass& auth_error_class() const = 0;
  /// An error of that class, for the caller to throw.
  [[nodiscard]] virtual Error auth_error(std::string text) const = 0;

  static const Auth& builtin();
};

}  // namespace brackenfen::sync

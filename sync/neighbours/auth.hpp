// Authentication: its failures, whose class the host may bring, and the word that an era has changed.
#pragma once

#include <string>

#include "sync/base/error.hpp"
#include "sync/base/values/value.hpp"

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

  /// The data has been moved to era `era_number`. Throws what the host throws.
  virtual void notify_era_change(const Value& era_number) const = 0;

  static const Auth& builtin();
};

}  // namespace brackenfen::sync

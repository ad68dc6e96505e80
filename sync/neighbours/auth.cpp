#include "sync/neighbours/auth.hpp"

#include <utility>

#include "sync/base/log.hpp"

namespace brackenfen::sync {
namespace {

constexpr const ErrorClass* AUTH_ERROR_PARENTS[] = {&error_class::Exception};

class BuiltinAuth final : public Auth {
 public:
  const ErrorClass& auth_error_class() const override { return error_class::AuthError; }
  Error auth_error(std::string text) const override { return Error(error_class::AuthError, std::move(text)); }
  void notify_era_change(const Value& era_number) const override { log_debug("Authentication: the data is in era %s now", era_number); }
};

}  // namespace

namespace error_class {
constinit const ErrorClass AuthError("AuthError", AUTH_ERROR_PARENTS);
}  // namespace error_class

const Auth& Auth::builtin() {
  static const Auth& auth = *new BuiltinAuth;
  return auth;
}

}  // namespace brackenfen::sync

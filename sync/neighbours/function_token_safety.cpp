#include "sync/neighbours/function_token_safety.hpp"

namespace brackenfen::sync {
namespace {

class BuiltinFunctionTokenSafety final : public FunctionTokenSafety {
 public:
  bool is_retired_public_function_token_name(std::string_view) const override { return false; }
};

}  // namespace

const FunctionTokenSafety& FunctionTokenSafety::builtin() {
  static const FunctionTokenSafety& safety = *new BuiltinFunctionTokenSafety;
  return safety;
}

}  // namespace brackenfen::sync

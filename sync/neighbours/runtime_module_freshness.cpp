#include "sync/neighbours/runtime_module_freshness.hpp"

namespace brackenfen::sync {
namespace {

class BuiltinRuntimeModuleFreshness final : public RuntimeModuleFreshness {
 public:
  const std::string& runtime_module_kind_suffix() const override { return suffix_; }
  bool is_runtime_module_kind(std::string_view kind) const override { return kind == "vault_module"; }

 private:
  const std::string suffix_ = "_module";
};

}  // namespace

const RuntimeModuleFreshness& RuntimeModuleFreshness::builtin() {
  static const RuntimeModuleFreshness& freshness = *new BuiltinRuntimeModuleFreshness;
  return freshness;
}

}  // namespace brackenfen::sync
